// Zorvek::Requester: a command queue of one agent towards the serializer that executes its
// hardware accesses. Every command gets the next value of a running command index; the
// index is also published as the channel's processing status (lastEnqueuedCmdIndex).
//
// Ownership of the buffers handed to the commands: the requester copies `data` and
// `dataMask` before the call returns and keeps no pointer to them; the caller keeps
// ownership (and releases a mask it allocated).
//
//   S64 index = requester->write(mask, rid, offset, data, nullptr, size, false);
//   requester->waitForCmdIndex(index);     // returns when that command has run
//
// Used from the agent's activity thread only.
#pragma once

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Zorvek/CoprocessorChecker.h"
#include "Zorvek/DalProcessingStatus.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT Requester : public Kel::Entity {
  KEL_ENTITY_TYPE(Requester)

 public:
  class NotifieeConst : public Kel::NotifieeConst<Requester> {
   public:
    virtual void onReady() {}
    virtual void onSerializerRestartCount() {}
  };

  const Kel::String& name() const { return name_; }
  AgentId agentId() const { return agentId_; }
  DalId dalId() const { return dalId_; }

  // True while the serializer serves this requester's queue. Notifies on change.
  bool ready() const { return ready_; }
  void readyIs(bool v);
  // Incremented each time the serializer restarts. Notifies on change.
  U64 serializerRestartCount() const { return serializerRestartCount_; }
  void serializerRestartCountIs(U64 v);

  // The running command index: the index the next command will get. Starts at 1.
  U64 cmdIndex() const { return cmdIndex_; }
  // Returns once the command of that index has completed (at once for an index not yet
  // handed out, or already done).
  virtual void waitForCmdIndex(U64 index) = 0;

  const Kel::Ptr<DalProcessingStatus>& processingStatus() const { return processingStatus_; }
  const Kel::Ptr<CoprocessorChecker>& coprocessorChecker() const { return coprocessorChecker_; }
  void coprocessorCheckerIs(const Kel::Ptr<CoprocessorChecker>& c) { coprocessorChecker_ = c; }

  // Each command returns its index, negative on failure.
  virtual S64 read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
                   U32 size) = 0;
  virtual S64 write(const TargetMask& targets, const PhysicalResourceId& rid, DeviceOffset offset,
                    void* data, const void* dataMask, U32 size, bool reclaimWhenProgrammed) = 0;
  // A write that returns only once the command has completed.
  virtual S64 blockingWrite(const TargetMask& targets, const PhysicalResourceId& rid,
                            DeviceOffset offset, void* data, const void* dataMask, U32 size,
                            bool reclaimWhenProgrammed) = 0;
  // Bulk commands move numEntries entries of entrySize bytes by physical address; a null
  // `data` means the entries are taken from the memory behind `physAddr`.
  virtual S64 bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                       const PhysicalAddr& physAddr, U32 entrySize, U32 numEntries) = 0;
  virtual S64 bulkWrite(const TargetMask& targets, const PhysicalResourceId& rid,
                        DeviceOffset offset, const PhysicalAddr& physAddr, const void* data,
                        U32 entrySize, U32 numEntries) = 0;

  // Writes the requester's own state to `fd` as the inside of a dictionary literal.
  virtual void showRequesterState(U32 fd) const;

  Kel::NotifieeList<Requester>& notifiees() const { return notifiees_; }

 protected:
  Requester(Kel::String name, AgentId agentId, DalId dalId,
            Kel::Ptr<DalProcessingStatus> processingStatus);
  ~Requester() override;
  // Hands out the next command index and publishes it as the last enqueued one.
  U64 takeCmdIndex();

 private:
  Kel::String name_;
  AgentId agentId_;
  DalId dalId_;
  bool ready_ = false;
  U64 serializerRestartCount_ = 0;
  U64 cmdIndex_ = 1;
  Kel::Ptr<DalProcessingStatus> processingStatus_;
  Kel::Ptr<CoprocessorChecker> coprocessorChecker_;
  mutable Kel::NotifieeList<Requester> notifiees_;
};

}  // namespace Zorvek
