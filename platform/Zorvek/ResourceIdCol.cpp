#include "Zorvek/ResourceIdCol.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(PhysicalResourceIdCol, "Zorvek::PhysicalResourceIdCol")
KEL_DEFINE_ENTITY_TYPE(LogicalRemoteResourceIdCol, "Zorvek::LogicalRemoteResourceIdCol")

void PhysicalResourceIdCol::resourceIdIs(const PhysicalResourceId& id) {
  if (ids_.insert(id).second) notifiees_.visit(&NotifieeConst::onResourceId, id);
}

void PhysicalResourceIdCol::resourceIdDel(const PhysicalResourceId& id) {
  if (ids_.erase(id) != 0) notifiees_.visit(&NotifieeConst::onResourceId, id);
}

}  // namespace Zorvek
