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

const RequesterDataMask& LogicalRemoteResourceIdCol::dataMask(const LogicalResourceId& id) const {
  return dataMaskOrNone(masks_, id);
}

void LogicalRemoteResourceIdCol::dataMaskIs(const LogicalResourceId& id,
                                            const RequesterDataMask& mask) {
  if (dataMaskStore(masks_, id, mask)) notifiees_.visit(&NotifieeConst::onDataMask, id);
}

void LogicalRemoteResourceIdCol::dataMaskDel(const LogicalResourceId& id) {
  if (masks_.erase(id) != 0) notifiees_.visit(&NotifieeConst::onDataMask, id);
}

}  // namespace Zorvek
