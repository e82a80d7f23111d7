// Zorvek::RequesterDal: the DAL that turns each access into a command on a Requester (the
// queue towards the serializer that owns the hardware) and keeps a software shadow of what
// was written.
//
// Per access it decides whether the shadow alone serves the access, whether the hardware is
// touched, and how the policy flags of the Dal combine. The shadow itself lives in the
// derived DALs, behind the doReadFromShadow / doWriteToShadow hooks; a derived DAL that
// supplies write masks overrides dataMaskSelector, which every hardware write asks.
//
// Readiness: a RequesterDal is ready when its requester is ready, or at once while hardware
// access is off (DalReadySm below). Used from the agent's activity thread only.
#pragma once

#include "Kel/Entity.h"
#include "Zorvek/Dal.h"
#include "Zorvek/Requester.h"

namespace Zorvek {

class KEL_EXPORT RequesterDal : public Dal {
  KEL_ENTITY_TYPE(RequesterDal)

 public:
  class DalReadySm;

  RequesterDal(Kel::Name name, const Kel::Ptr<Requester>& requester);

  const Kel::Ptr<Requester>& requester() const { return requester_; }
  const Kel::Ptr<DalReadySm>& dalReadySm() const { return dalReadySm_; }
  // Replaces the readiness machine only when `sm` is another object.
  void dalReadySmIs(const Kel::Ptr<DalReadySm>& sm);

  void waitForCompletion(DeviceId devId) override;
  S32 dalWrite(const TargetMask& targetMask, DeviceOffset offset, U16 size, const void* data,
               void* optArg) override;
  S32 dalRead(DeviceId devId, DeviceOffset offset, U16 size, void* data, void* optArg) override;
  S32 dalBulkWrite(const TargetMask& targetMask, DeviceOffset offset, U32 size, const void* data,
                   void* optArg) override;
  S32 dalBulkRead(DeviceId devId, DeviceOffset offset, U32 size, void* data, void* optArg) override;
  void handleCoprocessorChecker() override;

  // Shadow hooks of the derived DALs: 0 when the shadow served the access, -1 when not.
  virtual S32 doReadFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                               void* optArg);
  virtual S32 doWriteToShadow(DeviceId devId, DeviceOffset offset, U16 size, const void* data,
                              void* optArg);
  // The bytes of the entry this agent may write, as a new array of `size` bytes that the
  // caller releases with delete[]; null when the whole entry is written, which is all the
  // base answers. Asked on every write that reaches the requester.
  virtual U8* dataMaskSelector(DeviceOffset offset, void* optArg, U16 size);

  // 0: the shadow served the read; -1: the hardware must be read.
  S32 readFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data, void* optArg);
  // 0: the hardware write is to be skipped; -1: it must go ahead.
  S32 writeToShadow(const TargetMask& targetMask, DeviceOffset offset, U16 size, const void* data,
                    void* optArg);
  // The bulk read or write of whole memory entries of one table (cmd is bulkReadCmd() or
  // bulkWriteCmd()).
  S32 doBulkOperation(const TargetMask& targetMask, DeviceOffset offset, void* data, U32 size,
                      void* optArg, Command cmd);

 protected:
  ~RequesterDal() override;

 private:
  Kel::Ptr<Requester> requester_;
  Kel::Ptr<DalReadySm> dalReadySm_;
};

// Keeps `dal->ready()` equal to: !dal->hwAccessAllowed() || requester->ready(). It watches
// the requester's ready and the DAL's hwAccessAllowed through two reactors, which never own
// what they watch: the DAL owns the machine, and dal() becomes null if the DAL goes first.
class KEL_EXPORT RequesterDal::DalReadySm : public Kel::Entity {
  KEL_ENTITY_TYPE(DalReadySm)

 public:
  // Connects both reactors and evaluates the rule once. Neither argument may be null.
  DalReadySm(const Kel::Ptr<const Requester>& requester, const Kel::Ptr<Dal>& dal);
  static Kel::Ptr<DalReadySm> DalReadySmIs(const Kel::Ptr<const Requester>& requester,
                                           const Kel::Ptr<Dal>& dal);

  Kel::Ptr<const Requester> requester() const;
  // Retargets the requester reactor and re-evaluates.
  void requesterIs(const Kel::Ptr<const Requester>& requester);
  void requesterDel();
  Kel::Ptr<Dal> dal() const;
  void dalIs(const Kel::Ptr<Dal>& dal);
  void dalDel();
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  void handleRequesterReady();
  // Makes the reactors ignore notifications (for a machine being torn down).
  void kelDoZombieReactors(bool zombie);

 protected:
  ~DalReadySm() override;

 private:
  class KelRequester;
  class KelDal;
  Kel::Ptr<KelRequester> kelRequester_;
  Kel::Ptr<KelDal> kelDal_;
  bool initialized_ = false;
};

KEL_EXPORT Kel::Ptr<RequesterDal> requesterDalFactory(Kel::Name name,
                                                      const Kel::Ptr<Requester>& requester);

}  // namespace Zorvek
