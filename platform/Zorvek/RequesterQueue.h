// The queue protocol between a QueueRequester and the serializer that executes its
// commands.
//
// A Zorvek::RequesterQueue is an entity that the requester publishes in the serializer's
// configuration directory (a Kel::Dir) under its own name. It holds at most queueSize
// commands, in command-index order, each with the queue's own copy of its data and data
// mask (IoMemType queueMemory_). A serializer implements Zorvek::QueueConsumer and attaches
// it to the queues it serves, usually through a Zorvek::QueueAttacher that observes the
// configuration directory; drain() then runs waiting commands through the consumer, in
// order. The serializer publishes which queues it serves in a Zorvek::SerializerStatus
// (Zorvek/SerializerStatus.h).
//
//   requester:  queue->enqueue(header, data, size, mask, mask ? size : 0);
//   serializer: struct Serializer : Zorvek::QueueConsumer { bool commandExecute(...) ... };
//               auto attacher = Kel::allocate<Zorvek::QueueAttacher>(configDir, &serializer);
//   either:     queue->drain(index);   // runs every waiting command up to `index`
//
// Draining is synchronous: the consumer runs inside drain(), on the caller's thread. A
// consumer may enqueue to or drain the same queue while it runs (a serializer restart that
// makes a DAL replay its shadow does): commands still run once each, in order.
//
// A queue whose serializer runs in another process carries the name and size of the
// shared-memory ring (Zorvek/CommandRing.h) that the requester created for it: its commands
// travel there, and this object only registers the queue.
//
// Used from the agents' activity thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

// Where the data of a queued command travels. The codes are shared with serializers.
enum class IoMemType : U8 {
  // The data and mask bytes are copied into the queue's own memory beside the command:
  // the serializer reads them from the queue, never from the requester's buffers, which
  // the caller may reuse as soon as the command call returns.
  queueMemory_ = 1,
};

// The fixed fields of one command.
struct CommandHeader {
  Command command = Command::writeCmd_;
  // The devices written; for a read, a bulk read and a free, the one device concerned.
  TargetMask targets;
  PhysicalResourceId resourceId;
  DeviceOffset offset = 0;
  // Bytes of data of a single access; bytes of one entry for a free.
  U32 size = 0;
  // Bulk commands: bytes per entry, entries moved, and the memory they come from (bulk
  // write with no data) or arrive at (bulk read).
  U32 entrySize = 0;
  U32 numEntries = 0;
  PhysicalAddr physAddr = 0;
  bool reclaimWhenProgrammed = false;
  // The requester's running index of this command.
  U64 cmdIndex = 0;

  DeviceId devId() const { return targets.firstDevice(); }
  // The bytes the command moves: the entries of a bulk command, else `size`.
  U32 bytes() const { return numEntries ? entrySize * numEntries : size; }
};

// The command's text ("write", "bulkRead", ...), for traces: a trace argument of an enum
// type would print its number.
KEL_EXPORT std::string commandName(Command command);

// The headers of each kind of command.
inline CommandHeader singleCommand(Command command, const TargetMask& targets,
                                   const PhysicalResourceId& rid, DeviceOffset offset, U32 size,
                                   bool reclaimWhenProgrammed = false) {
  CommandHeader h;
  h.command = command;
  h.targets = targets;
  h.resourceId = rid;
  h.offset = offset;
  h.size = size;
  h.reclaimWhenProgrammed = reclaimWhenProgrammed;
  return h;
}
inline CommandHeader bulkCommand(Command command, const TargetMask& targets,
                                 const PhysicalResourceId& rid, DeviceOffset offset,
                                 PhysicalAddr physAddr, U32 entrySize, U32 numEntries) {
  CommandHeader h = singleCommand(command, targets, rid, offset, 0);
  h.physAddr = physAddr;
  h.entrySize = entrySize;
  h.numEntries = numEntries;
  return h;
}

// A command as it sits in the queue: the header and the queue's copies of the bytes.
struct QueueCommand : CommandHeader {
  // write / blockingWrite: the `size` bytes written. bulkWrite: entrySize * numEntries
  // bytes, or empty when the entries are taken from physAddr. read: `size` bytes, zeroed
  // when the command is handed to the consumer, which fills them. Otherwise empty.
  std::vector<U8> data;
  // Empty: the whole entry. Otherwise one byte per data byte (per entry byte for a free):
  // a set bit is a bit that this agent writes (or, for a free, owns); the others are left
  // as they are.
  std::vector<U8> dataMask;
};

class RequesterQueue;

// The serializer's side of a queue.
class KEL_EXPORT QueueConsumer {
 public:
  // Executes one command taken from `queue`, whose agentId() owns what it writes. A read
  // fills cmd.data. Returns false when the command failed (counted by the queue).
  virtual bool commandExecute(const RequesterQueue& queue, QueueCommand& cmd) = 0;
  // Called when this consumer is attached to `queue`, and when it is detached from it.
  virtual void queueAttached(RequesterQueue& queue) { (void)queue; }
  virtual void queueDetached(RequesterQueue& queue) { (void)queue; }

 protected:
  ~QueueConsumer() = default;
};

class KEL_EXPORT RequesterQueue : public Kel::Entity {
  KEL_ENTITY_TYPE(RequesterQueue)

 public:
  static constexpr U64 kAllCommands = UINT64_MAX;

  // A queue of `queueSize` commands (at least 1) for the requester `name` of agent
  // `agentId`; its commands travel through the ring `ringName` of `ringBytes` bytes when one
  // is named. Asserts "ioMemType == IoMemType::queueMemory_".
  RequesterQueue(Kel::String name, AgentId agentId, DalId dalId, unsigned queueSize,
                 IoMemType ioMemType, std::string ringName = {}, U32 ringBytes = 0);
  const Kel::String& name() const { return name_; }
  AgentId agentId() const { return agentId_; }
  DalId dalId() const { return dalId_; }
  unsigned queueSize() const { return static_cast<unsigned>(slots_.size()); }
  IoMemType ioMemType() const { return ioMemType_; }
  // The shared-memory ring of the queue (empty: the commands are held here) and its bytes.
  const std::string& ringName() const { return ringName_; }
  U32 ringBytes() const { return ringBytes_; }

  // The consumer that drain() runs commands through, or null. Not owned: a consumer
  // detaches (consumerIs(nullptr)) before it goes away. Changing it calls queueDetached on
  // the old consumer, then queueAttached on the new one.
  QueueConsumer* consumer() const { return consumer_; }
  void consumerIs(QueueConsumer* consumer);

  // Commands waiting to run.
  unsigned depth() const { return count_; }
  bool full() const { return count_ == slots_.size(); }
  // The next command to run, or null.
  const QueueCommand* front() const { return count_ ? &slots_[head_] : nullptr; }

  // Appends a command with copies of `dataBytes` bytes of `data` and `maskBytes` bytes of
  // `mask` (either may be null with 0 bytes). Returns false, changing nothing, when full.
  bool enqueue(const CommandHeader& header, const void* data, U32 dataBytes, const void* mask,
               U32 maskBytes);
  // Runs waiting commands through the consumer, in order, up to and including the one of
  // index `throughIndex`. Stops early when there is no consumer. Returns the number run.
  unsigned drain(U64 throughIndex = kAllCommands);
  // drain(index) for the read of that index; copies its data to `dest` (`size` bytes) and
  // returns true when it ran and succeeded during this call.
  bool drainRead(U64 index, void* dest, U32 size);

  // The index of the last command that ran (0 before the first), of the last one that
  // failed, and the number of failed commands.
  U64 lastCompletedCmdIndex() const { return lastCompletedCmdIndex_; }
  U64 lastFailedCmdIndex() const { return lastFailedCmdIndex_; }
  U64 failedCmds() const { return failedCmds_; }

  // Writes the queue's state as the inside of a dictionary literal: "'name':'...',
  // 'size':N,'depth':N,'consumer':True,'lastCompletedCmdIndex':N,'lastFailedCmdIndex':N,
  // 'failedCmds':N,".
  void show(int fd) const;

 protected:
  ~RequesterQueue() override;

 private:
  struct ReadWait {
    U64 index;
    void* dest;
    U32 size;
    bool done;
  };
  void runFront();
  void copyInto(std::vector<U8>& to, const void* from, U32 bytes);
  void recycle(std::vector<U8>&& buffer);

  Kel::String name_;
  AgentId agentId_;
  DalId dalId_;
  IoMemType ioMemType_;
  std::string ringName_;
  U32 ringBytes_;
  QueueConsumer* consumer_ = nullptr;
  // A ring of count_ waiting commands from head_. A command is moved out of its slot to
  // run, so the slot is free at once, also for commands enqueued while it runs; its
  // buffers then go to spare_ for later commands, so a warmed-up queue copies commands
  // without allocating.
  std::vector<QueueCommand> slots_;
  unsigned head_ = 0;
  unsigned count_ = 0;
  std::vector<std::vector<U8>> spare_;
  std::vector<ReadWait*> readWaits_;
  U64 lastCompletedCmdIndex_ = 0;
  U64 lastFailedCmdIndex_ = 0;
  U64 failedCmds_ = 0;
};

// Attaches `consumer` to every RequesterQueue of a serializer's configuration directory:
// those present at construction and those published later. A queue replaced under its
// name, removed, or replaced by another kind of entity is detached. Destruction detaches
// every queue still attached to the consumer, so release the attacher before the consumer.
class KEL_EXPORT QueueAttacher : public Kel::Dir::NotifieeConst {
  KEL_ENTITY_TYPE(QueueAttacher)

 public:
  using Queues = std::map<Kel::String, Kel::Ptr<RequesterQueue>>;

  QueueAttacher(const Kel::Ptr<const Kel::Dir>& configDir, QueueConsumer* consumer);
  // The attached queues by name.
  const Queues& queues() const { return queues_; }

  void onEntity(const Kel::String& name) override;

 protected:
  ~QueueAttacher() override;

 private:
  void detach(Queues::iterator it);
  QueueConsumer* consumer_;
  Queues queues_;
};

}  // namespace Zorvek
