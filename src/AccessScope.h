// Zorvek::detail::AccessScope: what one access has learnt from the helper of the DAL that
// serves it, shared by every step of that access.
//
// The entry point of an access asks the helper for the access's resource once and opens a
// scope with it on the DAL; a DemuxDal that routes an access to a RequesterDal with the same
// helper opens it with the resource it resolved for the routing. Every later step of the
// access (shadow hooks, data masks, statistics) reads the answers from the scope instead of
// asking the helper again, since the helper's answers are a function of their arguments.
// Outside an access, or for another offset or optArg, the helper is asked.
//
//   const detail::AccessScope access(*this, offset, optArg, helper()->resourceId(offset, optArg));
//   detail::AccessPath::read(*this, access, devId, offset, size, data, optArg);
//   detail::AccessScope::resourceId(*this, offset, optArg);    // a later step of the access
//
// A scope lives on the stack of the access; it allocates nothing. Used from the agent's
// activity thread only.
#pragma once

#include "Zorvek/Dal.h"
#include "Zorvek/RequesterDal.h"

namespace Zorvek::detail {

class AccessScope {
 public:
  // Opens an access whose resource is known: `rid` is dal.helper()->resourceId(offset, optArg).
  AccessScope(Dal& dal, DeviceOffset offset, void* optArg, const PhysicalResourceId& rid)
      : dal_(dal), outer_(dal.access_), offset_(offset), optArg_(optArg), rid_(rid) {
    dal.access_ = this;
  }
  ~AccessScope() { dal_.access_ = outer_; }
  AccessScope(const AccessScope&) = delete;
  AccessScope& operator=(const AccessScope&) = delete;

  // The resource of the access.
  const PhysicalResourceId& resourceId() const { return rid_; }

  // dal.helper()->resourceId(offset, optArg), answered by the open access when it is the same.
  static PhysicalResourceId resourceId(const Dal& dal, DeviceOffset offset, void* optArg) {
    const AccessScope* a = dal.access_;
    if (a && a->offset_ == offset && a->optArg_ == optArg) return a->rid_;
    return dal.helper()->resourceId(offset, optArg);
  }
  // dal.helper()->cacheable(devId, rid), asked at most once per access: a shadow read asks
  // it before the shadow may serve, and the shadow hook asserts it again.
  static bool cacheable(const Dal& dal, DeviceId devId, const PhysicalResourceId& rid) {
    AccessScope* a = dal.access_;
    if (a && a->rid_ == rid) return a->cacheable(devId);
    return dal.helper()->cacheable(devId, rid);
  }
  // Whether the resource of the access is cacheable on devId, asked of the helper once.
  bool cacheable(DeviceId devId) {
    if (cacheable_ < 0 || !(cacheableDevId_ == devId)) {
      cacheable_ = dal_.helper()->cacheable(devId, rid_);
      cacheableDevId_ = devId;
    }
    return cacheable_ != 0;
  }

 private:
  Dal& dal_;
  AccessScope* outer_;
  DeviceOffset offset_;
  void* optArg_;
  PhysicalResourceId rid_;
  DeviceId cacheableDevId_;
  int cacheable_ = -1;  // -1: not asked yet
};

// The bulk access of a RequesterDal past its entry points, for an access open on `dal` whose
// resource is `rid`: what its entry points run, and what a DemuxDal runs on the DAL it routes
// to (the single accesses are AccessPath's). Asserts "targetMask.targets() == 1".
S32 resolvedBulkOperation(RequesterDal& dal, const PhysicalResourceId& rid,
                          const TargetMask& targetMask, DeviceOffset offset, void* data, U32 size,
                          void* optArg, Command cmd);

}  // namespace Zorvek::detail
