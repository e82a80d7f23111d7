// Zorvek::detail::AccessPath: the single read and write of a RequesterDal past its entry
// points, inline, so that the DAL that serves an access and the DemuxDal that routes one
// run it in one frame.
//
// An access reads the DAL's policy flags once, as one word, and carries the resource of the
// access from step to step; the shadow policies (readFromShadow, writeToShadow) and the
// command they lead to make no call of their own. The resource is given as a source: the
// resource the access resolved, or the helper's answer at each step that wants it (what
// RequesterDal::readFromShadow and writeToShadow do, called on their own).
//
//   detail::AccessScope access(dal, offset, optArg, rid);
//   return detail::AccessPath::write(dal, access, targetMask, offset, size, data, optArg);
//
// Its traces are those of the RequesterDal's handle. Used from the agent's activity thread
// only.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

#include "AccessScope.h"
#include "Duwisp/Duwisp.h"
#include "Kel/Assert.h"
#include "Zorvek/RequesterDal.h"

namespace Zorvek::detail {

// The trace handle of the RequesterDal ("ZorvekRequesterDal").
Kel::TraceHandle& requesterDalTrace();

// The resource of an access that has resolved it, and the access's answers about it.
struct ResolvedResource {
  AccessScope& access;
  const PhysicalResourceId& operator()(const Dal&, DeviceOffset, void*) const {
    return access.resourceId();
  }
  bool cacheable(const Dal&, DeviceId devId, DeviceOffset, void*) const {
    return access.cacheable(devId);
  }
};

// The resource of a step outside a resolved access: the open access's answer, or the
// helper's (AccessScope::resourceId), asked at each step that wants it.
struct AskedResource {
  PhysicalResourceId operator()(const Dal& dal, DeviceOffset offset, void* optArg) const {
    return AccessScope::resourceId(dal, offset, optArg);
  }
  bool cacheable(const Dal& dal, DeviceId devId, DeviceOffset offset, void* optArg) const {
    return AccessScope::cacheable(dal, devId, (*this)(dal, offset, optArg));
  }
};

class AccessPath {
 public:
  // 0: the shadow served the read; -1: the hardware must be read.
  template <class Resource>
  [[gnu::always_inline]] static S32 readFromShadow(RequesterDal& dal, const Resource& resource,
                                                   DeviceId devId, DeviceOffset offset, U16 size,
                                                   void* data, void* optArg) {
    const U32 options = dal.options_;
    if (options & Dal::kHwAccessAllowed) {
      if (!(options & Dal::kOkToReadFromShadow)) {
        dal.countReadMiss(resource(dal, offset, optArg));
        DUWISP_TRACE(requesterDalTrace(), 8, "readFromShadow %s local shadow access is disabled",
                     dal.name());
        return -1;
      }
      if (!(options & Dal::kForceReadFromShadow) &&
          !resource.cacheable(dal, devId, offset, optArg)) {
        dal.countReadMiss(resource(dal, offset, optArg));
        return -1;
      }
    }
    const S32 rc = dal.doReadFromShadow(devId, offset, size, data, optArg);
    if (rc == 0)
      dal.countReadHit(resource(dal, offset, optArg));
    else
      dal.countReadMiss(resource(dal, offset, optArg));
    if ((options & (Dal::kHwAccessAllowed | Dal::kForceReadFromShadow)) == Dal::kHwAccessAllowed)
      return rc;
    // With the hardware out of reach or the shadow forced, a read never goes further:
    // whatever the shadow produced is the answer, even when it did not serve the read.
    // Deliberate.
    DUWISP_TRACE(requesterDalTrace(), 9,
                 "readFromShadow %s hardware access not allowed or forced to read from shadow,",
                 dal.name());
    return 0;
  }

  // 0: the hardware write is to be skipped; -1: it must go ahead.
  template <class Resource>
  [[gnu::always_inline]] static S32 writeToShadow(RequesterDal& dal, const Resource& resource,
                                                  const TargetMask& targetMask, DeviceOffset offset,
                                                  U16 size, const void* data, void* optArg) {
    KEL_ASSERT(targetMask.targets() == 1);
    const DeviceId devId = targetMask.firstDevice();
    KEL_ASSERT(devId.value() == 0);
    const U32 options = dal.options_;
    if ((options & (Dal::kHwAccessAllowed | Dal::kOkToWriteToShadow)) == Dal::kHwAccessAllowed) {
      dal.countWriteMiss(resource(dal, offset, optArg));
      return -1;
    }
    if ((options & Dal::kSkipHwWriteIfShadowHit) &&
        shadowHolds(dal, resource, devId, offset, size, data, optArg)) {
      dal.countWriteHit(resource(dal, offset, optArg));
      return 0;
    }
    const S32 retVal = dal.doWriteToShadow(devId, offset, size, data, optArg);
    KEL_ASSERT(retVal == 0);
    if (options & Dal::kHwAccessAllowed) {
      dal.countWriteMiss(resource(dal, offset, optArg));
      return -1;
    }
    DUWISP_TRACE(requesterDalTrace(), 9,
                 "writeToShadow %s hardware access not allowed, skip writing to hardware ",
                 dal.name());
    return 0;
  }

  // The single read of the access open on `dal`.
  [[gnu::always_inline]] static S32 read(RequesterDal& dal, AccessScope& access, DeviceId devId,
                                         DeviceOffset offset, U16 size, void* data, void* optArg) {
    const PhysicalResourceId& rid = access.resourceId();
    if (dal.verifyEnabled()) verifyRead(dal, rid, devId, offset, size, optArg);
    DUWISP_TRACE(requesterDalTrace(), 9, "RequesterDal::dalRead offset 0x%x size %s", offset, size);
    if (readFromShadow(dal, ResolvedResource{access}, devId, offset, size, data, optArg) == 0)
      return 0;
    KEL_ASSERT_TEXT(dal.hwAccessAllowed(), "hwAccessAllowed()");
    const S64 index = dal.requester()->read(devId, rid, offset, data, size);
    return index < 0 ? -1 : 0;
  }

  // The single write of the access open on `dal`.
  [[gnu::always_inline]] static S32 write(RequesterDal& dal, AccessScope& access,
                                          const TargetMask& targetMask, DeviceOffset offset,
                                          U16 size, const void* data, void* optArg) {
    const PhysicalResourceId& rid = access.resourceId();
    if (dal.verifyEnabled()) verifyWrite(dal, rid, targetMask, offset, size, optArg);
    DUWISP_TRACE(requesterDalTrace(), 9,
                 "RequesterDal::dalWrite resource type %s resource id 0x%x size %s offset 0x%x",
                 rid.type(), rid.id(), size, offset);
    if (writeToShadow(dal, ResolvedResource{access}, targetMask, offset, size, data, optArg) == 0) {
      if (std::getenv("XP_COHABITING_TEST")) fakeProgress(dal);
      return 0;
    }
    const U32 options = dal.options_;
    KEL_ASSERT_TEXT(options & Dal::kHwAccessAllowed, "hwAccessAllowed()");
    const std::unique_ptr<U8[]> mask(dal.dataMaskSelector(offset, optArg, size));
    // The requester copies the data and never writes through the pointer.
    void* payload = const_cast<void*>(data);
    const bool reclaim = options & Dal::kReclaimWhenProgrammed;
    const S64 cmdIndex =
        (options & Dal::kBlocking)
            ? dal.requester()->blockingWrite(targetMask, rid, offset, payload, mask.get(), size,
                                             reclaim)
            : dal.requester()->write(targetMask, rid, offset, payload, mask.get(), size, reclaim);
    KEL_ASSERT(cmdIndex >= 0);
    return 0;
  }

 private:
  // Whether the shadow already holds `data` (the skip-if-hit test of writeToShadow).
  template <class Resource>
  static bool shadowHolds(RequesterDal& dal, const Resource& resource, DeviceId devId,
                          DeviceOffset offset, U16 size, const void* data, void* optArg);
  // The verify-mode checks of a single access: the optArg mapping and the entry size.
  static void verifyRead(RequesterDal& dal, const PhysicalResourceId& rid, DeviceId devId,
                         DeviceOffset offset, U16 size, void* optArg);
  static void verifyWrite(RequesterDal& dal, const PhysicalResourceId& rid,
                          const TargetMask& targetMask, DeviceOffset offset, U16 size,
                          void* optArg);
  // A write that stopped at the shadow in a cohabiting test: the last enqueued index moves
  // on by one, so that a waiter that counts commands still sees progress.
  static void fakeProgress(RequesterDal& dal);
};

template <class Resource>
bool AccessPath::shadowHolds(RequesterDal& dal, const Resource& resource, DeviceId devId,
                             DeviceOffset offset, U16 size, const void* data, void* optArg) {
  // Shadow comparisons of writes up to this size use a stack buffer; larger ones the heap.
  constexpr std::size_t kStackScratchBytes = 512;
  unsigned char stackBuffer[kStackScratchBytes];
  std::unique_ptr<unsigned char[]> heapBuffer;
  unsigned char* buffer = stackBuffer;
  if (size > kStackScratchBytes) {
    heapBuffer = std::make_unique_for_overwrite<unsigned char[]>(size);
    buffer = heapBuffer.get();
  }
  // A shadow may produce fewer bytes than asked (a local cache holds one entry of a bulk
  // write): bytes it leaves alone start as the complement of the data, so that only a
  // shadow that holds every byte written counts as a hit and skips the hardware.
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (U32 i = 0; i < size; ++i) buffer[i] = static_cast<unsigned char>(~bytes[i]);
  return readFromShadow(dal, resource, devId, offset, size, buffer, optArg) >= 0 &&
         std::memcmp(buffer, data, size) == 0;
}

}  // namespace Zorvek::detail
