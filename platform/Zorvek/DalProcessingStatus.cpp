#include "Zorvek/DalProcessingStatus.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(DalProcessingStatus, "Zorvek::DalProcessingStatus")
KEL_DEFINE_ENTITY_TYPE(DalProcessingStatusCol, "Zorvek::DalProcessingStatusCol")

Kel::Ptr<DalProcessingStatus> DalProcessingStatusCol::processingStatusIs(DalId dalId) {
  auto [it, inserted] = statuses_.try_emplace(dalId);
  if (inserted) it->second = Kel::allocate<DalProcessingStatus>(dalId);
  return it->second;
}

Kel::Ptr<DalProcessingStatus> DalProcessingStatusCol::processingStatus(DalId dalId) const {
  auto it = statuses_.find(dalId);
  return it == statuses_.end() ? nullptr : it->second;
}

}  // namespace Zorvek
