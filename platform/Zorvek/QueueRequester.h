// Zorvek::QueueRequester: the requester of an agent towards a serializer agent that owns
// hardware tables. Commands travel through a Zorvek::RequesterQueue (Zorvek/RequesterQueue.h)
// that the requester publishes in the serializer's configuration directory under its own
// name; the serializer attaches a consumer to it and runs the commands.
//
//   auto r = Kel::allocate<Zorvek::QueueRequester>("a1-s0-Queue", agentId, 1024, dalId,
//       status, watchList, Zorvek::IoMemType::queueMemory_, configDir, statusDir,
//       "s0-kick", "Kick-a1-s0-Requester");
//   S64 i = r->write(targets, rid, offset, data, nullptr, size, false);   // enqueued
//   r->waitForCmdIndex(i);                                               // drained, run
//
// Readiness and restarts: the requester follows the Zorvek::SerializerStatus published in
// the status directory (under SerializerStatus::kEntryName, which may appear, change or go
// at any time): it is ready while that status serves its queue name, and its
// serializerRestartCount is the status's restart count (kept when the status goes).
//
// Commands: each command copies its data and mask into the queue (IoMemType queueMemory_)
// and gets the next command index. A full queue is first drained through the serializer's
// consumer, so no command is ever dropped; when no consumer is attached and the queue is
// full, the command fails: it returns a negative index, with a level 3 trace. read and
// blockingWrite need their result at once: they fail (negative index, level 3 trace)
// when no consumer is attached, and drain the queue up to their own command otherwise.
// The kick names are those of the serializer's wake-up fifo and of this requester's kick;
// in this in-process protocol the wake-up is the drain itself, so they are only carried
// and shown.
//
// Serializers in other processes: once the process names a ring prefix
// (commandRingPrefixIs), each QueueRequester made afterwards creates a shared-memory ring
// "<prefix>-<requester name>" (Zorvek/CommandRing.h) and registers its name and size with
// the queue in the configuration directory; the serializer's process opens it and runs the
// commands there, later. Commands then wait only for ring space; a wait (waitForCmdIndex,
// read, blockingWrite, bulkRead, which needs its entries back at once, and a full ring)
// ends when the command ran, and also when the serializer's process is gone or a new one
// started (the command failed or is lost: a level 3 trace). A command that finds the ring
// full and its serializer's process gone is dropped (a write, bulk write or free: the next
// process would discard it from the ring anyway) or fails (a read, blocking write or bulk
// read). A new serializer process starts
// a new generation of the ring, which the requester accepts when the serializer's status
// tells it that its queue is served or its restart count changed; the restart count then
// makes the remote DAL replay its shadow. A bulk write without data copies the entries
// from the memory at its physical address into the ring.
//
// Null directories: without a configuration directory there is no queue and every
// command fails with a negative index; without a status directory the requester is never
// ready (commands still queue). A configuration directory mounted read-only makes the
// constructor throw Skorra::MountError. The queue is withdrawn from the directory when the
// requester goes.
//
// Used from the agent's activity thread only.
#pragma once

#include <memory>
#include <string>
#include "Kel/Dir.h"
#include "Kel/String.h"
#include "Orv/WatchList.h"

#include "Zorvek/CommandRing.h"
#include "Zorvek/Requester.h"
#include "Zorvek/RequesterQueue.h"
#include "Zorvek/SerializerStatus.h"

namespace Zorvek {

// The ring prefix of this process's QueueRequesters (see above); empty, the default, keeps
// every queue in the process. Set it before the requesters are made, e.g. "/zorvek-<pid>".
KEL_EXPORT void commandRingPrefixIs(std::string prefix);
KEL_EXPORT const std::string& commandRingPrefix();

class KEL_EXPORT QueueRequester : public Requester {
  KEL_ENTITY_TYPE(QueueRequester)

 public:
  // Asserts "queueSize > 0" and "ioMemType == IoMemType::queueMemory_".
  QueueRequester(Kel::String name, AgentId agentId, unsigned int queueSize, DalId dalId,
                 const Kel::Ptr<DalProcessingStatus>& status,
                 const Kel::Ptr<Orv::WatchList>& watchList, IoMemType ioMemType,
                 const Kel::Ptr<Kel::Dir>& configDir, const Kel::Ptr<const Kel::Dir>& statusDir,
                 Kel::String kickFifoName, Kel::String kickName);

  unsigned queueSize() const { return queueSize_; }
  IoMemType ioMemType() const { return ioMemType_; }
  const Kel::Ptr<Kel::Dir>& configDir() const { return configDir_; }
  const Kel::Ptr<const Kel::Dir>& statusDir() const { return statusDir_; }
  const Kel::String& kickFifoName() const { return kickFifoName_; }
  const Kel::String& kickName() const { return kickName_; }
  // The queue in the configuration directory (null without one).
  const Kel::Ptr<RequesterQueue>& queue() const { return queue_; }
  // The status followed (null while the status directory holds none).
  const Kel::Ptr<const SerializerStatus>& serializerStatus() const { return serializerStatus_; }
  const Orv::WatchLog& watchLog() const { return watchLog_; }
  // The ring to a serializer in another process; null when the queue is in the process.
  const CommandRingProducer* ring() const { return ring_.get(); }

  // Ring bytes per command of the queue size, and the largest read's bytes.
  static constexpr U32 kRingBytesPerCommand = 256;
  static constexpr U32 kResponseBytes = 64 * 1024;

  // Asks the serializer to free every entry of `rid` on `devId` that this agent owns, in
  // entries of entrySizeBytes bytes; a non-null `dataMask` (entrySizeBytes bytes, copied)
  // names the bytes of an entry that the agent owns. Returns the command index.
  S64 initFreeFromSerializer(DeviceId devId, const PhysicalResourceId& rid, const void* dataMask,
                             U32 entrySizeBytes);

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
  // Drains the queue through the consumer until command `index` has run. Without a
  // consumer it cannot wait: it returns at once, with a level 3 trace.
  void waitForCmdIndex(U64 index) override;

  // The base fields, then 'queueSize', 'ioMemType', 'queue' (see RequesterQueue::show;
  // None without a queue), 'serializerStatus' (whether one is followed),
  // 'serializerRestartCount', 'kickFifoName', 'kickName', with a ring 'ring' (its name,
  // capacity, generation, consumer's pid, last executed and failed index, executed and failed
  // commands),
  // and the watch log.
  void showRequesterState(U32 fd) const override;

 protected:
  ~QueueRequester() override;

 private:
  class KelStatusDir;
  class KelSerializerStatus;
  // Finds the status in the status directory again and follows it.
  void handleSerializerStatus();
  void handleServedQueue();
  void handleRestartCount();
  // Enqueues one command (draining a full queue first); returns its index or -1.
  S64 enqueue(CommandHeader header, const void* data, U32 dataBytes, const void* mask,
              U32 maskBytes);
  // Puts a command into the ring, waiting for space; false (traced) when it cannot.
  bool ringEnqueue(const CommandHeader& header, const void* data, U32 dataBytes, const void* mask,
                   U32 maskBytes);
  // Waits in the ring until command `index` ran; false (traced as `what`) when it did not.
  bool ringWait(const char* what, U64 index);
  // Runs command `index` (a read or bulk read) and copies its data to `dest`.
  S64 ringRead(const char* what, S64 index, void* dest, U32 size);
  // True when a consumer can run a command now; traces the refusal of `what` otherwise.
  bool consumerAttached(const char* what) const;

  unsigned queueSize_;
  IoMemType ioMemType_;
  Kel::Ptr<Kel::Dir> configDir_;
  Kel::Ptr<const Kel::Dir> statusDir_;
  Kel::String kickFifoName_;
  Kel::String kickName_;
  Kel::Ptr<RequesterQueue> queue_;
  std::unique_ptr<CommandRingProducer> ring_;
  // The last command dropped for a full ring whose serializer was gone (0: none).
  U64 droppedThrough_ = 0;
  Kel::Ptr<const SerializerStatus> serializerStatus_;
  Kel::Ptr<KelStatusDir> kelStatusDir_;
  Kel::Ptr<KelSerializerStatus> kelSerializerStatus_;
  Orv::WatchLog watchLog_;
};

}  // namespace Zorvek
