#include "Zorvek/RequesterQueue.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(RequesterQueue, "Zorvek::RequesterQueue")
KEL_DEFINE_ENTITY_TYPE(QueueAttacher, "Zorvek::QueueAttacher")

std::string commandName(Command command) {
  std::ostringstream os;
  os << command;
  return os.str();
}

RequesterQueue::RequesterQueue(Kel::String name, AgentId agentId, DalId dalId, unsigned queueSize,
                               IoMemType ioMemType, std::string ringName, U32 ringBytes)
    : name_(std::move(name)),
      agentId_(agentId),
      dalId_(dalId),
      ioMemType_(ioMemType),
      ringName_(std::move(ringName)),
      ringBytes_(ringBytes) {
  KEL_ASSERT(queueSize > 0);
  KEL_ASSERT(ioMemType == IoMemType::queueMemory_);
  slots_.resize(queueSize);
  spare_.reserve(2 * std::size_t(queueSize));
}

RequesterQueue::~RequesterQueue() = default;

void RequesterQueue::consumerIs(QueueConsumer* consumer) {
  if (consumer == consumer_) return;
  QueueConsumer* old = std::exchange(consumer_, consumer);
  if (old) old->queueDetached(*this);
  if (consumer) consumer->queueAttached(*this);
}

bool RequesterQueue::enqueue(const CommandHeader& header, const void* data, U32 dataBytes,
                             const void* mask, U32 maskBytes) {
  if (full()) return false;
  QueueCommand& slot = slots_[(head_ + count_) % slots_.size()];
  static_cast<CommandHeader&>(slot) = header;
  copyInto(slot.data, data, dataBytes);
  copyInto(slot.dataMask, mask, maskBytes);
  ++count_;
  return true;
}

unsigned RequesterQueue::drain(U64 throughIndex) {
  // A consumer may drop the last reference held elsewhere (a requester that goes).
  const Kel::Ptr<RequesterQueue> self(this);
  unsigned ran = 0;
  while (consumer_ && count_ && slots_[head_].cmdIndex <= throughIndex) {
    runFront();
    ++ran;
  }
  return ran;
}

bool RequesterQueue::drainRead(U64 index, void* dest, U32 size) {
  ReadWait wait{index, dest, size, false};
  readWaits_.push_back(&wait);
  struct Unregister {
    std::vector<ReadWait*>& waits;
    ReadWait* wait;
    ~Unregister() { std::erase(waits, wait); }
  } unregister{readWaits_, &wait};
  drain(index);
  return wait.done;
}

void RequesterQueue::runFront() {
  QueueCommand cmd = std::move(slots_[head_]);
  head_ = (head_ + 1) % static_cast<unsigned>(slots_.size());
  --count_;
  if (cmd.command == Command::readCmd_) cmd.data.assign(cmd.size, 0);
  const bool ok = consumer_->commandExecute(*this, cmd);
  lastCompletedCmdIndex_ = std::max(lastCompletedCmdIndex_, cmd.cmdIndex);
  if (!ok) {
    lastFailedCmdIndex_ = cmd.cmdIndex;
    ++failedCmds_;
  } else if (cmd.command == Command::readCmd_) {
    for (ReadWait* w : readWaits_) {
      if (w->index != cmd.cmdIndex) continue;
      std::memcpy(w->dest, cmd.data.data(), std::min<std::size_t>(w->size, cmd.data.size()));
      w->done = true;
    }
  }
  recycle(std::move(cmd.data));
  recycle(std::move(cmd.dataMask));
}

void RequesterQueue::copyInto(std::vector<U8>& to, const void* from, U32 bytes) {
  if (!from) bytes = 0;
  if (to.capacity() == 0 && bytes && !spare_.empty()) {
    to.swap(spare_.back());
    spare_.pop_back();
  }
  const auto* p = static_cast<const U8*>(from);
  to.assign(p, p + bytes);
}

void RequesterQueue::recycle(std::vector<U8>&& buffer) {
  if (buffer.capacity() == 0 || spare_.size() == spare_.capacity()) return;
  buffer.clear();
  spare_.push_back(std::move(buffer));
}

void RequesterQueue::show(int fd) const {
  dprintf(fd,
          "'name':'%s','size':%u,'depth':%u,'consumer':%s,'lastCompletedCmdIndex':%llu,"
          "'lastFailedCmdIndex':%llu,'failedCmds':%llu,",
          name_.c_str(), queueSize(), count_, consumer_ ? "True" : "False",
          static_cast<unsigned long long>(lastCompletedCmdIndex_),
          static_cast<unsigned long long>(lastFailedCmdIndex_),
          static_cast<unsigned long long>(failedCmds_));
}

QueueAttacher::QueueAttacher(const Kel::Ptr<const Kel::Dir>& configDir, QueueConsumer* consumer)
    : consumer_(consumer) {
  notifierIs(configDir);
  if (!configDir) return;
  // Names first: attaching runs the consumer's code, which may change the directory.
  std::vector<Kel::String> names;
  for (const auto& entry : *configDir) names.push_back(entry.first);
  for (const Kel::String& name : names) onEntity(name);
}

QueueAttacher::~QueueAttacher() {
  while (!queues_.empty()) detach(queues_.begin());
}

void QueueAttacher::onEntity(const Kel::String& name) {
  const Kel::Ptr<const Kel::Dir> dir = notifier();
  auto queue = Kel::dynamicPtrCast<RequesterQueue>(dir ? dir->entity(name) : nullptr);
  auto it = queues_.find(name);
  if (it != queues_.end()) {
    if (it->second == queue) return;
    detach(it);
  }
  if (!queue) return;
  queues_.emplace(name, queue);
  queue->consumerIs(consumer_);
}

void QueueAttacher::detach(Queues::iterator it) {
  const Kel::Ptr<RequesterQueue> queue = it->second;
  queues_.erase(it);
  if (queue->consumer() == consumer_) queue->consumerIs(nullptr);
}

}  // namespace Zorvek
