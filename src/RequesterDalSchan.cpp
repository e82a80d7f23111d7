#include "Zorvek/RequesterDalSchan.h"

#include <cstdio>
#include <cstdlib>

#include "Duwisp/Duwisp.h"
#include "Kel/Assert.h"
#include "Zorvek/SchanRequester.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(RequesterDalSchan::CoprocessorSm, "Zorvek::RequesterDalSchan::CoprocessorSm")
KEL_DEFINE_ENTITY_TYPE(RequesterDalSchan, "Zorvek::RequesterDalSchan")

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekRequesterDalSchan")

}  // namespace

RequesterDalSchan::RequesterDalSchan(
    Kel::Name name, const Kel::Ptr<Requester>& requester,
    const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus)
    : RequesterDal(std::move(name), requester), coprocessorStatus_(coprocessorStatus) {
  handleInitialized();
}

RequesterDalSchan::~RequesterDalSchan() {
  if (coprocessorSm_) coprocessorSm_->kelDoZombieReactors(true);
}

Kel::Ptr<SchanRequester> RequesterDalSchan::schanRequester() const {
  return Kel::dynamicPtrCast<SchanRequester>(requester());
}

void RequesterDalSchan::handleInitialized() {
  dalReadySmIs(DalReadySm::DalReadySmIs(requester(), Kel::Ptr<Dal>(this)));
  const Kel::Ptr<SchanRequester> schan = schanRequester();
  coprocessorSm_ = CoprocessorSm::CoprocessorSmIs(coprocessorStatus_, schan);
  if (std::getenv("XP_SKIP_HW_ACCESS")) hwAccessAllowedIs(false);
  initializedIs(true);
}

S32 RequesterDalSchan::doReadFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                                        void* optArg) {
  return helper()->shadowRead(devId, offset, size, data, optArg);
}

S32 RequesterDalSchan::doWriteToShadow(DeviceId devId, DeviceOffset offset, U16 size,
                                       const void* data, void* optArg) {
  return helper()->shadowWrite(devId, offset, size, data, optArg);
}

void RequesterDalSchan::showDalState(U32 fd) {
  DUWISP_TRACE(th(), 4, "virtual void Zorvek::RequesterDalSchan::showDalState(U32)");
  Dal::showDalState(fd);
  dprintf(static_cast<int>(fd), "'schanRequesterStatus':{");
  if (const Kel::Ptr<SchanRequester> schan = schanRequester()) schan->showRequesterState(fd);
  dprintf(static_cast<int>(fd), "},");
}

// ---------------------------------------------------------------------------------------
// Coprocessors

class RequesterDalSchan::CoprocessorSm::KelCoprocessorStatus
    : public Corvane::CoprocessorStatus::NotifieeConst {
 public:
  explicit KelCoprocessorStatus(CoprocessorSm* sm) : sm_(sm) {}
  void onCoprocessor(const Kel::String& name) override { sm_->handleCoprocessor(name); }

 private:
  CoprocessorSm* sm_;  // the owning machine; never owning
};

RequesterDalSchan::CoprocessorSm::CoprocessorSm(
    const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus,
    const Kel::Ptr<SchanRequester>& schanRequester)
    : coprocessorStatus_(coprocessorStatus), schanRequester_(schanRequester) {
  if (coprocessorStatus) {
    kelCoprocessorStatus_ = Kel::allocate<KelCoprocessorStatus>(this);
    kelCoprocessorStatus_->notifierIs(coprocessorStatus);
    kelCoprocessorStatus_->hasNotificationActiveIs(true);
  }
  handleInitialized();
}

RequesterDalSchan::CoprocessorSm::~CoprocessorSm() { kelDoZombieReactors(true); }

Kel::Ptr<RequesterDalSchan::CoprocessorSm> RequesterDalSchan::CoprocessorSm::CoprocessorSmIs(
    const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus,
    const Kel::Ptr<SchanRequester>& schanRequester) {
  return Kel::allocate<CoprocessorSm>(coprocessorStatus, schanRequester);
}

Kel::Ptr<Corvane::CoprocessorStatus> RequesterDalSchan::CoprocessorSm::attachedCoprocessorIs(
    const Kel::Name& name) {
  if (!attachedCoprocessor_ || attachedCoprocessor_->name() != name)
    attachedCoprocessor_ = Kel::allocate<Corvane::CoprocessorStatus>(name);
  return attachedCoprocessor_;
}

void RequesterDalSchan::CoprocessorSm::handleInitialized() {
  initializedIs(true);
  attachedCoprocessorIs(Kel::Name("attachedCoprocessor"));
  if (!coprocessorStatus_) return;
  for (const auto& [name, cop] : coprocessorStatus_->coprocessorCol())
    if (cop.valid()) handleCoprocessor(name);
}

void RequesterDalSchan::CoprocessorSm::handleCoprocessor(const Kel::String& name) {
  DUWISP_TRACE(th(), 8, "RequesterDalSchan::handleCoprocessor cop %s", name);
  const Corvane::Coprocessor copStatus =
      coprocessorStatus_ ? coprocessorStatus_->coprocessor(name) : Corvane::Coprocessor();
  const Corvane::Coprocessor attachedCopStatus = attachedCoprocessor_->coprocessor(name);
  if (copStatus.valid()) {
    if (attachedCopStatus.valid()) {
      if (attachedCopStatus.genId() == copStatus.genId()) {
        DUWISP_TRACE(th(), 0, "coprocessor %s has already been attached", name);
        KEL_ASSERT(attachedCopStatus.coprocessorId() == copStatus.coprocessorId());
        return;
      }
      DUWISP_TRACE(th(), 0, "coprocessor %s genId has changed. old genId: %s new genId: %s", name,
                   attachedCopStatus.genId(), copStatus.genId());
      attachedCoprocessor_->coprocessorDel(name);
      KEL_ASSERT(schanRequester());
      schanRequester_->detachCoprocessor(attachedCopStatus);
    }
    DUWISP_TRACE(th(), 0, "attach coprocessor %s", name);
    KEL_ASSERT(schanRequester());
    schanRequester_->attachCoprocessor(copStatus);
    attachedCoprocessor_->coprocessorIs(name, copStatus);
    return;
  }
  if (!attachedCopStatus.valid()) return;
  attachedCoprocessor_->coprocessorDel(name);
  DUWISP_TRACE(th(), 0, "detach coprocessor %s", name);
  KEL_ASSERT(schanRequester());
  // Deliberately the value just read from the status (invalid: the entry is gone), not the
  // attached copy, which has already left the record: the requester identifies what to
  // detach without relying on the value's fields.
  schanRequester_->detachCoprocessor(copStatus);
}

void RequesterDalSchan::CoprocessorSm::kelDoZombieReactors(bool zombie) {
  if (kelCoprocessorStatus_) kelCoprocessorStatus_->hasNotificationActiveIs(!zombie);
}

Kel::Ptr<RequesterDalSchan> requesterDalSchanFactory(
    Kel::Name name, const Kel::Ptr<Requester>& requester,
    const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus) {
  return Kel::allocate<RequesterDalSchan>(std::move(name), requester, coprocessorStatus);
}

}  // namespace Zorvek
