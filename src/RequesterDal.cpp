#include "Zorvek/RequesterDal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "AccessPath.h"
#include "Duwisp/Duwisp.h"
#include "Kel/Assert.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(RequesterDal::DalReadySm, "Zorvek::RequesterDal::DalReadySm")
KEL_DEFINE_ENTITY_TYPE(RequesterDal, "Zorvek::RequesterDal")

namespace {

// The requester library's queue handle lives as long as this library is loaded.
Kel::TraceHandle queueTrace("ZorvekQueue");

KEL_FILE_TRACE_HANDLE("ZorvekRequesterDal")

}  // namespace

Kel::TraceHandle& detail::requesterDalTrace() { return th(); }

// ---------------------------------------------------------------------------------------
// Access path

RequesterDal::RequesterDal(Kel::Name name, const Kel::Ptr<Requester>& requester)
    : Dal(std::move(name)), requester_(requester) {}

RequesterDal::~RequesterDal() {
  if (dalReadySm_) dalReadySm_->kelDoZombieReactors(true);
}

void RequesterDal::dalReadySmIs(const Kel::Ptr<DalReadySm>& sm) {
  if (sm == dalReadySm_) return;
  dalReadySm_ = sm;
}

S32 RequesterDal::readFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                                 void* optArg) {
  return detail::AccessPath::readFromShadow(*this, detail::AskedResource{}, devId, offset, size,
                                            data, optArg);
}

S32 RequesterDal::writeToShadow(const TargetMask& targetMask, DeviceOffset offset, U16 size,
                                const void* data, void* optArg) {
  return detail::AccessPath::writeToShadow(*this, detail::AskedResource{}, targetMask, offset, size,
                                           data, optArg);
}

S32 RequesterDal::dalRead(DeviceId devId, DeviceOffset offset, U16 size, void* data, void* optArg) {
  detail::AccessScope access(*this, offset, optArg, helper()->resourceId(offset, optArg));
  return detail::AccessPath::read(*this, access, devId, offset, size, data, optArg);
}

void detail::AccessPath::verifyRead(RequesterDal& dal, const PhysicalResourceId& rid,
                                    DeviceId devId, DeviceOffset offset, U16 size, void* optArg) {
  dal.helper()->verifyOptArgMapping(devId, rid, offset, optArg);
  const U32 entrySizeBytes = dal.helper()->memoryEntrySizeBytes(devId, rid);
  if (size != entrySizeBytes) {
    std::ostringstream os;
    os << "Failed("
       << "( size == entrySizeBytes )"
       << ") "
       << " resource " << rid << " size " << size << " entrySizeBytes " << entrySizeBytes << "\n";
    std::fputs(os.str().c_str(), stderr);
    KEL_ASSERT_TEXT(false, "!\"( size == entrySizeBytes )\"");
  }
}

S32 RequesterDal::dalWrite(const TargetMask& targetMask, DeviceOffset offset, U16 size,
                           const void* data, void* optArg) {
  detail::AccessScope access(*this, offset, optArg, helper()->resourceId(offset, optArg));
  return detail::AccessPath::write(*this, access, targetMask, offset, size, data, optArg);
}

void detail::AccessPath::verifyWrite(RequesterDal& dal, const PhysicalResourceId& rid,
                                     const TargetMask& targetMask, DeviceOffset offset, U16 size,
                                     void* optArg) {
  const DeviceId devId = targetMask.firstDevice();
  dal.helper()->verifyOptArgMapping(devId, rid, offset, optArg);
  const U32 entrySizeBytes = dal.helper()->memoryEntrySizeBytes(devId, rid);
  KEL_ASSERT(size == entrySizeBytes);
}

void detail::AccessPath::fakeProgress(RequesterDal& dal) {
  DalProcessingStatus& status = *dal.requester()->processingStatus();
  status.lastEnqueuedCmdIndexIs(status.lastEnqueuedCmdIndex() + 1);
  DUWISP_TRACE(th(), 9, "RequesterDal::dalWrite faked lastEnqueuedCmdIndex %s",
               status.lastEnqueuedCmdIndex());
}

void RequesterDal::waitForCompletion(DeviceId devId) {
  KEL_ASSERT(requester());
  if (!hwAccessAllowed()) {
    DUWISP_TRACE(th(), 8, "waitForCompletion skipping hardware access for device %s", devId);
    return;
  }
  const U64 cmdIndex = requester()->cmdIndex() - 1;
  DUWISP_TRACE(th(), 8, "waitForCompletion cmdIndex %s", cmdIndex);
  requester()->waitForCmdIndex(cmdIndex);
}

void RequesterDal::handleCoprocessorChecker() {
  if (requester()->coprocessorChecker() != coprocessorChecker())
    requester()->coprocessorCheckerIs(coprocessorChecker());
}

S32 RequesterDal::doReadFromShadow(DeviceId, DeviceOffset, U16, void*, void*) {
  KEL_ASSERT(0 && "Must be implemented by derived class");
  return -1;
}

S32 RequesterDal::doWriteToShadow(DeviceId, DeviceOffset, U16, const void*, void*) {
  KEL_ASSERT(0 && "Must be implemented by derived class");
  return -1;
}

U8* RequesterDal::dataMaskSelector(DeviceOffset, void*, U16) { return nullptr; }

// ---------------------------------------------------------------------------------------
// Bulk operations

S32 RequesterDal::dalBulkWrite(const TargetMask& targetMask, DeviceOffset offset, U32 size,
                               const void* data, void* optArg) {
  KEL_ASSERT(size <= maxBulkTransactionSizeInBytes());
  return doBulkOperation(targetMask, offset, const_cast<void*>(data), size, optArg, bulkWriteCmd());
}

S32 RequesterDal::dalBulkRead(DeviceId devId, DeviceOffset offset, U32 size, void* data,
                              void* optArg) {
  const TargetMask mask = oneDeviceMask(devId);
  KEL_ASSERT(size <= maxBulkTransactionSizeInBytes());
  return doBulkOperation(mask, offset, data, size, optArg, bulkReadCmd());
}

S32 RequesterDal::doBulkOperation(const TargetMask& targetMask, DeviceOffset offset, void* data,
                                  U32 size, void* optArg, Command cmd) {
  const detail::AccessScope access(*this, offset, optArg, helper()->resourceId(offset, optArg));
  return detail::resolvedBulkOperation(*this, access.resourceId(), targetMask, offset, data, size,
                                       optArg, cmd);
}

S32 detail::resolvedBulkOperation(RequesterDal& dal, const PhysicalResourceId& rid,
                                  const TargetMask& targetMask, DeviceOffset offset, void* data,
                                  U32 size, void* optArg, Command cmd) {
  const DeviceId devId = targetMask.firstDevice();
  KEL_ASSERT(targetMask.targets() == 1);
  const U32 entrySizeInBytes = dal.helper()->memoryEntrySizeBytes(devId, rid);
  KEL_ASSERT(entrySizeInBytes);
  DUWISP_TRACE(th(), 8,
               "doBulkOperation Device %s addr 0x%x dataPtr 0x%x size %s entrySize %s cmd %s",
               devId, offset, data, size, entrySizeInBytes, cmd);
  const U32 numEntries = size / entrySizeInBytes;  // a partial trailing entry is dropped
  if (numEntries == 0) {
    DUWISP_TRACE(th(), 3, "doBulkOperation resourceId type %s id 0x%x bulk operation size is 0",
                 rid.type(), rid.id());
    return 0;
  }
  // The shadow hooks take a 16-bit size: a bulk size reaches them cut to its low 16 bits
  // while the hardware command carries the full entry count. Kept as is; the bulk limit keeps
  // every permitted size below that cut.
  const U16 shadowSize = static_cast<U16>(size);
  S64 index;
  if (cmd == bulkWriteCmd()) {
    if (dal.writeToShadow(targetMask, offset, shadowSize, data, optArg) == 0) return 0;
    const PhysicalAddr physAddr = dal.helper()->physicalAddr(devId, optArg);
    index = dal.requester()->bulkWrite(targetMask, rid, offset, physAddr, nullptr, entrySizeInBytes,
                                       numEntries);
    DUWISP_TRACE(th(), 8, "bulkWrite cmdIndex %s", index);
  } else {
    KEL_ASSERT_TEXT(cmd == bulkReadCmd(), "cmd == Zorvek::bulkReadCmd()");
    if (dal.readFromShadow(devId, offset, shadowSize, data, optArg) == 0) return 0;
    const PhysicalAddr physAddr = dal.helper()->physicalAddr(devId, optArg);
    index = dal.requester()->bulkRead(devId, rid, offset, physAddr, entrySizeInBytes, numEntries);
    DUWISP_TRACE(th(), 8, "bulkRead cmdIndex %s", index);
  }
  return index < 0 ? -1 : 0;
}

// ---------------------------------------------------------------------------------------
// Readiness

class RequesterDal::DalReadySm::KelRequester : public Requester::NotifieeConst {
 public:
  explicit KelRequester(DalReadySm* sm) : sm_(sm) {}
  void onReady() override { sm_->handleRequesterReady(); }

 private:
  DalReadySm* sm_;  // the owning machine; never owning
};

class RequesterDal::DalReadySm::KelDal : public Dal::Notifiee {
 public:
  explicit KelDal(DalReadySm* sm) : sm_(sm) {}
  void onHwAccessAllowed() override { sm_->handleRequesterReady(); }

 private:
  DalReadySm* sm_;  // the owning machine; never owning
};

RequesterDal::DalReadySm::DalReadySm(const Kel::Ptr<const Requester>& requester,
                                     const Kel::Ptr<Dal>& dal)
    : kelRequester_(Kel::allocate<KelRequester>(this)), kelDal_(Kel::allocate<KelDal>(this)) {
  kelRequester_->notifierIs(requester);
  kelDal_->notifierIs(Kel::Ptr<const Dal>(dal));
  handleRequesterReady();
}

RequesterDal::DalReadySm::~DalReadySm() = default;

Kel::Ptr<RequesterDal::DalReadySm> RequesterDal::DalReadySm::DalReadySmIs(
    const Kel::Ptr<const Requester>& requester, const Kel::Ptr<Dal>& dal) {
  return Kel::allocate<DalReadySm>(requester, dal);
}

Kel::Ptr<const Requester> RequesterDal::DalReadySm::requester() const {
  return kelRequester_->notifier();
}

void RequesterDal::DalReadySm::requesterIs(const Kel::Ptr<const Requester>& requester) {
  if (requester == kelRequester_->notifier()) return;
  kelRequester_->notifierIs(requester);
  handleRequesterReady();
}

void RequesterDal::DalReadySm::requesterDel() { kelRequester_->notifierIs(nullptr); }

Kel::Ptr<Dal> RequesterDal::DalReadySm::dal() const { return kelDal_->notifier(); }

void RequesterDal::DalReadySm::dalIs(const Kel::Ptr<Dal>& dal) {
  if (dal == kelDal_->notifier()) return;
  kelDal_->notifierIs(Kel::Ptr<const Dal>(dal));
  handleRequesterReady();
}

void RequesterDal::DalReadySm::dalDel() { kelDal_->notifierIs(nullptr); }

void RequesterDal::DalReadySm::handleRequesterReady() {
  const Kel::Ptr<Dal> d = dal();
  const Kel::Ptr<const Requester> r = requester();
  // The rule needs both ends. After requesterDel or dalDel the remaining reactor still hears
  // its notifier; the machine then drives nothing until it is given the missing end again.
  if (!d || !r) return;
  DUWISP_TRACE(
      th(), 7,
      "XpRequesterDal::DalReadySm::handleRequesterReady requesterReady %s hwAccessAllowed %s",
      r->ready(), d->hwAccessAllowed());
  if (!d->hwAccessAllowed())
    d->readyIs(true);
  else
    d->readyIs(r->ready());
}

void RequesterDal::DalReadySm::kelDoZombieReactors(bool zombie) {
  kelRequester_->hasNotificationActiveIs(!zombie);
  kelDal_->hasNotificationActiveIs(!zombie);
}

Kel::Ptr<RequesterDal> requesterDalFactory(Kel::Name name, const Kel::Ptr<Requester>& requester) {
  return Kel::allocate<RequesterDal>(std::move(name), requester);
}

}  // namespace Zorvek
