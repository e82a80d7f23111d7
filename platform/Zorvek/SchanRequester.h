// Zorvek::SchanRequester: the requester of the local S-channel, which reaches the chip
// directly through the process's registered Zorvek::SchanBackend (Zorvek/SchanBackend.h).
// It is ready while a backend is registered.
//
//   auto r = Kel::allocate<Zorvek::SchanRequester>("a1-Schan-Queue", agentId, 1024, dalId,
//                                                  status, watchList, agentId);
//   S64 i = r->write(targets, rid, offset, data, nullptr, size, false);   // issued at once
//
// Commands are issued synchronously, in command-index order. A command that cannot be
// issued now (no backend, or a device that the coprocessor checker blocks) is held back,
// with a copy of its data, in a private queue of queueSize commands, and issued (in order)
// as soon as it can: when a backend registers, and before every later command and wait.
// Commands behind a held-back one are held back too, so the order never changes. read and
// blockingWrite cannot be held back: they fail with a negative index (level 3 trace) when
// they cannot be issued at once, as does any command when the private queue is full. A
// command that the backend refuses while it is issued from its own call returns a negative
// index; refusals of held-back commands are counted ('failedCmds' in the state).
//
// Writes are made on behalf of ownerAgentId, the agent that owns the entries written.
//
// Coprocessors: attachCoprocessor / detachCoprocessor keep the record of the packet-
// processing coprocessors that serve the S-channel, one per coprocessorId. An attach of a
// coprocessorId already attached replaces the recorded value; an invalid value is ignored
// (level 3 trace). Detach rule: a valid value detaches the coprocessor of its
// coprocessorId; an invalid value (the DAL hands one over deliberately when the published
// entry is gone) detaches the only coprocessor attached when there is exactly one. Any
// other detach (several or none attached, or a coprocessorId not attached) cannot tell
// which is meant: it is counted as an unidentified detach and nothing is detached.
//
// Used from the agent's activity thread only.
#pragma once

#include <vector>

#include "Corvane/Coprocessor.h"
#include "Kel/String.h"
#include "Orv/WatchList.h"
#include "Zorvek/Requester.h"
#include "Zorvek/RequesterQueue.h"
#include "Zorvek/SchanBackend.h"

namespace Zorvek {

class KEL_EXPORT SchanRequester : public Requester {
  KEL_ENTITY_TYPE(SchanRequester)

 public:
  // Asserts "queueSize > 0" and "ownerAgentId <= kInvalidAgentId".
  SchanRequester(Kel::String name, AgentId agentId, unsigned int queueSize, DalId dalId,
                 const Kel::Ptr<DalProcessingStatus>& status,
                 const Kel::Ptr<Orv::WatchList>& watchList, unsigned int ownerAgentId);

  unsigned queueSize() const { return heldBack_->queueSize(); }
  unsigned ownerAgentId() const { return ownerAgentId_; }
  // Commands held back, waiting to be issued.
  unsigned heldBackCmds() const { return heldBack_->depth(); }
  U64 lastCompletedCmdIndex() const { return heldBack_->lastCompletedCmdIndex(); }
  U64 failedCmds() const { return heldBack_->failedCmds(); }
  const Orv::WatchLog& watchLog() const { return watchLog_; }

  void attachCoprocessor(const Corvane::Coprocessor& coprocessor);
  void detachCoprocessor(const Corvane::Coprocessor& coprocessor);
  // The attached coprocessors, in attach order.
  const std::vector<Corvane::Coprocessor>& attachedCoprocessors() const { return attached_; }
  U64 unidentifiedDetaches() const { return unidentifiedDetaches_; }

  S64 read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
           U32 size) override;
  S64 write(const TargetMask& targets, const PhysicalResourceId& rid, DeviceOffset offset,
            void* data, const void* dataMask, U32 size, bool reclaimWhenProgrammed) override;
  S64 blockingWrite(const TargetMask& targets, const PhysicalResourceId& rid, DeviceOffset offset,
                    void* data, const void* dataMask, U32 size,
                    bool reclaimWhenProgrammed) override;
  S64 bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
               const PhysicalAddr& physAddr, U32 entrySize, U32 numEntries) override;
  S64 bulkWrite(const TargetMask& targets, const PhysicalResourceId& rid, DeviceOffset offset,
                const PhysicalAddr& physAddr, const void* data, U32 entrySize,
                U32 numEntries) override;
  // Issues what is held back; returns at once (level 3 trace) when command `index` is still
  // held back afterwards.
  void waitForCmdIndex(U64 index) override;

  // The base fields, then 'ownerAgentId', 'backend', 'heldBack' (the private queue, see
  // RequesterQueue::show), 'attachedCoprocessors' (a group keyed by coprocessorId),
  // 'unidentifiedDetaches' and the watch log.
  void showRequesterState(U32 fd) const override;

 protected:
  ~SchanRequester() override;

 private:
  class KelBackendRegistry;
  // Runs the private queue's commands on the registered backend.
  class BackendConsumer : public QueueConsumer {
   public:
    explicit BackendConsumer(AgentId owner) : owner_(owner) {}
    bool commandExecute(const RequesterQueue& queue, QueueCommand& cmd) override;

   private:
    AgentId owner_;
  };
  void handleBackend();
  // True when the backend is there and no device of `targets` is blocked.
  bool canIssue(const TargetMask& targets) const;
  // Issues held-back commands, in order, while they can be issued.
  void issueHeldBack();
  // Queues one command and issues what can be; `immediate` commands must run now.
  S64 submit(CommandHeader header, const void* data, U32 dataBytes, const void* mask, U32 maskBytes,
             bool immediate, void* readData);

  unsigned ownerAgentId_;
  BackendConsumer consumer_;
  Kel::Ptr<RequesterQueue> heldBack_;
  Kel::Ptr<KelBackendRegistry> kelBackendRegistry_;
  std::vector<Corvane::Coprocessor> attached_;
  U64 unidentifiedDetaches_ = 0;
  Orv::WatchLog watchLog_;
};

}  // namespace Zorvek
