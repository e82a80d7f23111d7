#include "Zorvek/QueueRequester.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "Duwisp/Duwisp.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(QueueRequester, "Zorvek::QueueRequester")

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekQueueRequester")

std::string& ringPrefix() {
  static std::string prefix;
  return prefix;
}

}  // namespace

void commandRingPrefixIs(std::string prefix) { ringPrefix() = std::move(prefix); }
const std::string& commandRingPrefix() { return ringPrefix(); }

// Follows the status directory: the serializer's status may appear, be replaced or go.
class QueueRequester::KelStatusDir : public Kel::Dir::NotifieeConst {
 public:
  explicit KelStatusDir(QueueRequester* requester) : requester_(requester) {}
  void onEntity(const Kel::String& name) override {
    if (name == SerializerStatus::kEntryName) requester_->handleSerializerStatus();
  }

 private:
  QueueRequester* requester_;  // the owner; never owning
};

// Follows the serializer's status: the queues it serves and its restart count.
class QueueRequester::KelSerializerStatus : public SerializerStatus::NotifieeConst {
 public:
  explicit KelSerializerStatus(QueueRequester* requester) : requester_(requester) {}
  void onServedQueue(const Kel::String& name) override {
    if (name == requester_->name()) requester_->handleServedQueue();
  }
  void onRestartCount() override { requester_->handleRestartCount(); }

 private:
  QueueRequester* requester_;  // the owner; never owning
};

QueueRequester::QueueRequester(Kel::String name, AgentId agentId, unsigned int queueSize,
                               DalId dalId, const Kel::Ptr<DalProcessingStatus>& status,
                               const Kel::Ptr<Orv::WatchList>& watchList, IoMemType ioMemType,
                               const Kel::Ptr<Kel::Dir>& configDir,
                               const Kel::Ptr<const Kel::Dir>& statusDir, Kel::String kickFifoName,
                               Kel::String kickName)
    : Requester(std::move(name), agentId, dalId, status),
      queueSize_(queueSize),
      ioMemType_(ioMemType),
      configDir_(configDir),
      statusDir_(statusDir),
      kickFifoName_(std::move(kickFifoName)),
      kickName_(std::move(kickName)),
      watchLog_(watchList) {
  KEL_ASSERT(queueSize > 0);
  KEL_ASSERT(ioMemType == IoMemType::queueMemory_);
  DUWISP_TRACE(th(), 1, "QueueRequester %s dalId %s queueSize %s configDir %s statusDir %s",
               this->name(), dalId, queueSize, bool(configDir_), bool(statusDir_));
  if (configDir_) {
    if (!commandRingPrefix().empty()) {
      // Room for the queue's commands, and for the largest command twice over.
      const U32 bytes = std::max(queueSize * kRingBytesPerCommand,
                                 2 * CommandRing::recordBytes(2 * kResponseBytes));
      ring_ = std::make_unique<CommandRingProducer>(commandRingPrefix() + "-" + this->name(), bytes,
                                                    kResponseBytes);
    }
    queue_ = Kel::allocate<RequesterQueue>(this->name(), agentId, dalId, queueSize, ioMemType,
                                           ring_ ? ring_->name() : std::string(),
                                           ring_ ? ring_->capacity() : 0);
    configDir_->entityIs(this->name(), queue_);
  }
  if (!statusDir_) return;
  kelSerializerStatus_ = Kel::allocate<KelSerializerStatus>(this);
  kelStatusDir_ = Kel::allocate<KelStatusDir>(this);
  kelStatusDir_->notifierIs(statusDir_);
  handleSerializerStatus();
}

QueueRequester::~QueueRequester() {
  if (kelStatusDir_) kelStatusDir_->notifierIs(nullptr);
  if (kelSerializerStatus_) kelSerializerStatus_->notifierIs(nullptr);
  // Withdraw the queue, unless another requester of the same name has replaced it.
  if (queue_ && configDir_->entity(name()) == queue_) configDir_->entityDel(name());
}

void QueueRequester::handleSerializerStatus() {
  auto status = Kel::dynamicPtrCast<const SerializerStatus>(
      statusDir_->entity(Kel::String(SerializerStatus::kEntryName)));
  if (status != serializerStatus_) {
    DUWISP_TRACE(th(), 6, "handleSerializerStatus %s serializer status %s", name(),
                 status ? status->name() : Kel::Name("none"));
    serializerStatus_ = status;
    kelSerializerStatus_->notifierIs(status);
  }
  handleServedQueue();
  handleRestartCount();
}

void QueueRequester::handleServedQueue() {
  const bool served = serializerStatus_ && serializerStatus_->servedQueue(name());
  DUWISP_TRACE(th(), 6, "handleServedQueue %s served %s", name(), served);
  // The serializer opened the ring before it said so: its generation is the one to work with.
  if (served && ring_) ring_->acceptGeneration();
  readyIs(served);
}

void QueueRequester::handleRestartCount() {
  // A status that goes leaves the count as it was: the next one continues from it.
  if (!serializerStatus_) return;
  DUWISP_TRACE(th(), 6, "handleRestartCount %s restartCount %s", name(),
               serializerStatus_->restartCount());
  // A restarted serializer opened the ring (a new generation) before it counted the restart;
  // the replay that the count sets off goes to that generation.
  if (ring_) ring_->acceptGeneration();
  serializerRestartCountIs(serializerStatus_->restartCount());
}

bool QueueRequester::consumerAttached(const char* what) const {
  if (queue_ && (ring_ || queue_->consumer())) return true;
  DUWISP_TRACE(th(), 3, "QueueRequester::%s %s no serializer drains the queue", what, name());
  return false;
}

S64 QueueRequester::enqueue(CommandHeader header, const void* data, U32 dataBytes, const void* mask,
                            U32 maskBytes) {
  if (!queue_) {
    DUWISP_TRACE(th(), 3, "QueueRequester::enqueue %s %s no queue: no configuration directory",
                 name(), commandName(header.command));
    return -1;
  }
  header.cmdIndex = cmdIndex();
  if (ring_) {
    if (!ringEnqueue(header, data, dataBytes, mask, maskBytes)) {
      // The serializer's process is gone with the ring full. Its next process discards what
      // the ring holds, so a command that needs no answer is dropped as it would be; the
      // remote DAL's replay restores what its shadow keeps. One that needs an answer fails.
      const bool answered = header.command == Command::readCmd_ ||
                            header.command == Command::blockingWriteCmd_ ||
                            header.command == Command::bulkReadCmd_;
      DUWISP_TRACE(th(), 3, "QueueRequester::enqueue %s %s cmdIndex %s %s: the ring is full",
                   name(), commandName(header.command), header.cmdIndex,
                   answered ? "failed" : "dropped");
      if (answered) return -1;
      droppedThrough_ = header.cmdIndex;
    }
  } else {
    if (queue_->full()) {
      DUWISP_TRACE(th(), 8, "QueueRequester::enqueue %s queue full, draining", name());
      queue_->drain();
      if (queue_->full()) {
        DUWISP_TRACE(th(), 3,
                     "QueueRequester::enqueue %s %s queue full and no serializer drains it", name(),
                     commandName(header.command));
        return -1;
      }
    }
    const bool queued = queue_->enqueue(header, data, dataBytes, mask, maskBytes);
    KEL_ASSERT(queued);
  }
  takeCmdIndex();
  watchLog_.commandIs(header.command, header.targets, header.resourceId, header.offset,
                      header.bytes(), header.cmdIndex);
  DUWISP_TRACE(th(), 9, "QueueRequester::enqueue %s %s cmdIndex %s offset 0x%x", name(),
               commandName(header.command), header.cmdIndex, header.offset);
  return static_cast<S64>(header.cmdIndex);
}

bool QueueRequester::ringEnqueue(const CommandHeader& header, const void* data, U32 dataBytes,
                                 const void* mask, U32 maskBytes) {
  const U32 payload = (data ? dataBytes : 0) + (mask ? maskBytes : 0);
  for (;;) {
    if (ring_->tryEnqueue(header, data, dataBytes, mask, maskBytes)) return true;
    const RingWait wait = ring_->waitForSpace(payload);
    if (wait == RingWait::done_) continue;
    // A new serializer process that lives empties the ring as it starts: room comes at once,
    // before this requester hears of the restart.
    if (wait == RingWait::generationChanged_ && ring_->consumerAlive()) continue;
    return false;
  }
}

bool QueueRequester::ringWait(const char* what, U64 index) {
  if (index <= droppedThrough_ && index > ring_->lastExecutedIndex()) {
    DUWISP_TRACE(th(), 3, "QueueRequester::%s %s cmdIndex %s has not run: dropped", what, name(),
                 index);
    return false;
  }
  const RingWait wait = ring_->waitForIndex(index);
  if (wait == RingWait::done_) return true;
  DUWISP_TRACE(th(), 3, "QueueRequester::%s %s cmdIndex %s has not run: %s", what, name(), index,
               ringWaitName(wait));
  return false;
}

S64 QueueRequester::ringRead(const char* what, S64 index, void* dest, U32 size) {
  if (index < 0) return index;
  const U64 i = static_cast<U64>(index);
  if (ringWait(what, i) && ring_->readData(i, dest, size)) return index;
  DUWISP_TRACE(th(), 3, "QueueRequester::%s %s cmdIndex %s failed", what, name(), index);
  return -1;
}

S64 QueueRequester::initFreeFromSerializer(DeviceId devId, const PhysicalResourceId& rid,
                                           const void* dataMask, U32 entrySizeBytes) {
  return enqueue(singleCommand(Command::freeCmd_, oneDeviceMask(devId), rid, 0, entrySizeBytes),
                 nullptr, 0, dataMask, dataMask ? entrySizeBytes : 0);
}

S64 QueueRequester::read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                         void* data, U32 size) {
  if (!consumerAttached("read")) return -1;
  const S64 index =
      enqueue(singleCommand(Command::readCmd_, oneDeviceMask(devId), rid, offset, size), nullptr, 0,
              nullptr, 0);
  if (ring_) return ringRead("read", index, data, size);
  if (index < 0 || queue_->drainRead(static_cast<U64>(index), data, size)) return index;
  DUWISP_TRACE(th(), 3, "QueueRequester::read %s cmdIndex %s failed", name(), index);
  return -1;
}

S64 QueueRequester::write(const TargetMask& targets, const PhysicalResourceId& rid,
                          DeviceOffset offset, void* data, const void* dataMask, U32 size,
                          bool reclaimWhenProgrammed) {
  return enqueue(
      singleCommand(Command::writeCmd_, targets, rid, offset, size, reclaimWhenProgrammed), data,
      size, dataMask, dataMask ? size : 0);
}

S64 QueueRequester::blockingWrite(const TargetMask& targets, const PhysicalResourceId& rid,
                                  DeviceOffset offset, void* data, const void* dataMask, U32 size,
                                  bool reclaimWhenProgrammed) {
  if (!consumerAttached("blockingWrite")) return -1;
  const S64 index = enqueue(
      singleCommand(Command::blockingWriteCmd_, targets, rid, offset, size, reclaimWhenProgrammed),
      data, size, dataMask, dataMask ? size : 0);
  if (index < 0) return index;
  const U64 i = static_cast<U64>(index);
  if (ring_) return ringWait("blockingWrite", i) && ring_->lastFailedIndex() != i ? index : -1;
  waitForCmdIndex(i);
  return queue_->lastFailedCmdIndex() == i ? -1 : index;
}

S64 QueueRequester::bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                             const PhysicalAddr& physAddr, U32 entrySize, U32 numEntries) {
  const CommandHeader header = bulkCommand(Command::bulkReadCmd_, oneDeviceMask(devId), rid, offset,
                                           physAddr, entrySize, numEntries);
  if (!ring_) return enqueue(header, nullptr, 0, nullptr, 0);
  // The entries come back through the ring's response area, one bulk read at a time.
  if (U64{entrySize} * numEntries > ring_->responseCapacity()) {
    DUWISP_TRACE(th(), 3, "QueueRequester::bulkRead %s %s bytes do not fit the ring's %s", name(),
                 U64{entrySize} * numEntries, ring_->responseCapacity());
    return -1;
  }
  return ringRead("bulkRead", enqueue(header, nullptr, 0, nullptr, 0),
                  reinterpret_cast<void*>(physAddr), header.bytes());
}

S64 QueueRequester::bulkWrite(const TargetMask& targets, const PhysicalResourceId& rid,
                              DeviceOffset offset, const PhysicalAddr& physAddr, const void* data,
                              U32 entrySize, U32 numEntries) {
  // Another process cannot read this one's memory: the ring carries the entries themselves.
  if (!data && ring_) data = reinterpret_cast<const void*>(physAddr);
  return enqueue(
      bulkCommand(Command::bulkWriteCmd_, targets, rid, offset, physAddr, entrySize, numEntries),
      data, data ? entrySize * numEntries : 0, nullptr, 0);
}

void QueueRequester::waitForCmdIndex(U64 index) {
  if (!queue_ || index >= cmdIndex()) return;
  if (ring_) {
    if (index > ring_->lastExecutedIndex()) ringWait("waitForCmdIndex", index);
    return;
  }
  if (index <= queue_->lastCompletedCmdIndex()) return;
  queue_->drain(index);
  if (queue_->lastCompletedCmdIndex() >= index) return;
  DUWISP_TRACE(th(), 3,
               "QueueRequester::waitForCmdIndex %s cmdIndex %s has not run: no serializer drains "
               "the queue",
               name(), index);
}

void QueueRequester::showRequesterState(U32 fd) const {
  const int out = static_cast<int>(fd);
  Requester::showRequesterState(fd);
  dprintf(out, "'queueSize':%u,'ioMemType':%u,", queueSize_, static_cast<unsigned>(ioMemType_));
  if (queue_) {
    dprintf(out, "'queue':{");
    queue_->show(out);
    dprintf(out, "},");
  } else {
    dprintf(out, "'queue':None,");
  }
  dprintf(out,
          "'serializerStatus':%s,'serializerRestartCount':%llu,'kickFifoName':'%s',"
          "'kickName':'%s',",
          serializerStatus_ ? "True" : "False",
          static_cast<unsigned long long>(serializerRestartCount()), kickFifoName_.c_str(),
          kickName_.c_str());
  if (ring_)
    dprintf(out,
            "'ring':{'name':'%s','capacity':%u,'generation':%u,'consumerPid':%d,"
            "'lastExecutedIndex':%llu,'lastFailedIndex':%llu,'executedCmds':%llu,"
            "'failedCmds':%llu},",
            ring_->name().c_str(), ring_->capacity(), ring_->generation(),
            static_cast<int>(ring_->consumerPid()),
            static_cast<unsigned long long>(ring_->lastExecutedIndex()),
            static_cast<unsigned long long>(ring_->lastFailedIndex()),
            static_cast<unsigned long long>(ring_->executedCmds()),
            static_cast<unsigned long long>(ring_->failedCmds()));
  watchLog_.show(out);
}

}  // namespace Zorvek
