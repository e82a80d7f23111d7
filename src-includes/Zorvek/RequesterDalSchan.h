// Zorvek::RequesterDalSchan: the requester DAL in front of the local S-channel requester, the
// default DAL of an agent. Its shadow is the device helper's shadow. Besides the inherited
// access path it keeps the S-channel requester told which packet-processing coprocessors
// exist: it follows a published Corvane::CoprocessorStatus and attaches, detaches or
// re-attaches (new generation) each coprocessor as its entry changes.
//
//   auto dal = requesterDalSchanFactory("SchanRequesterDal", schanRequester, copStatus);
//
// Used from the agent's activity thread only.
#pragma once

#include "Corvane/CoprocessorStatus.h"
#include "Zorvek/RequesterDal.h"

namespace Zorvek {

class SchanRequester;

class KEL_EXPORT RequesterDalSchan : public RequesterDal {
  KEL_ENTITY_TYPE(RequesterDalSchan)

 public:
  class CoprocessorSm;

  // Runs handleInitialized() before returning.
  RequesterDalSchan(Kel::Name name, const Kel::Ptr<Requester>& requester,
                    const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus);

  const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus() const {
    return coprocessorStatus_;
  }
  const Kel::Ptr<CoprocessorSm>& coprocessorSm() const { return coprocessorSm_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }
  // The requester as an S-channel requester; null when it is of another kind.
  Kel::Ptr<SchanRequester> schanRequester() const;

  // Creates the readiness and coprocessor machines; with XP_SKIP_HW_ACCESS present in the
  // environment (whatever its value) switches hardware access off.
  void handleInitialized();

  S32 doReadFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                       void* optArg) override;
  S32 doWriteToShadow(DeviceId devId, DeviceOffset offset, U16 size, const void* data,
                      void* optArg) override;
  void showDalState(U32 fd) override;

 protected:
  ~RequesterDalSchan() override;

 private:
  Kel::Ptr<const Corvane::CoprocessorStatus> coprocessorStatus_;
  Kel::Ptr<CoprocessorSm> coprocessorSm_;
  bool initialized_ = false;
};

// Follows the coprocessor collection and keeps the S-channel requester's attachments equal
// to its valid entries. A private record ("attachedCoprocessor") holds a copy of every value
// attached, so a repeated notification for an unchanged coprocessor does nothing.
class KEL_EXPORT RequesterDalSchan::CoprocessorSm : public Kel::Entity {
  KEL_ENTITY_TYPE(CoprocessorSm)

 public:
  // Either argument may be null: with no status nothing is ever attached.
  CoprocessorSm(const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus,
                const Kel::Ptr<SchanRequester>& schanRequester);
  static Kel::Ptr<CoprocessorSm> CoprocessorSmIs(
      const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus,
      const Kel::Ptr<SchanRequester>& schanRequester);

  const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus() const {
    return coprocessorStatus_;
  }
  const Kel::Ptr<SchanRequester>& schanRequester() const { return schanRequester_; }
  const Kel::Ptr<Corvane::CoprocessorStatus>& attachedCoprocessor() const {
    return attachedCoprocessor_;
  }
  // Creates the private record named `name`, or returns it when it already exists.
  Kel::Ptr<Corvane::CoprocessorStatus> attachedCoprocessorIs(const Kel::Name& name);
  void attachedCoprocessorDel() { attachedCoprocessor_ = nullptr; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  // Attaches every valid coprocessor already present.
  void handleInitialized();
  // The decision for one coprocessor name: attach, re-attach on a new genId, or detach.
  void handleCoprocessor(const Kel::String& name);
  void kelDoZombieReactors(bool zombie);

 protected:
  ~CoprocessorSm() override;

 private:
  class KelCoprocessorStatus;

  Kel::Ptr<const Corvane::CoprocessorStatus> coprocessorStatus_;
  Kel::Ptr<KelCoprocessorStatus> kelCoprocessorStatus_;
  Kel::Ptr<SchanRequester> schanRequester_;
  Kel::Ptr<Corvane::CoprocessorStatus> attachedCoprocessor_;
  bool initialized_ = false;
};

KEL_EXPORT Kel::Ptr<RequesterDalSchan> requesterDalSchanFactory(
    Kel::Name name, const Kel::Ptr<Requester>& requester,
    const Kel::Ptr<const Corvane::CoprocessorStatus>& coprocessorStatus);

}  // namespace Zorvek
