#include "Zorvek/CommandRing.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <optional>
#include <type_traits>

#include "Duwisp/Duwisp.h"

namespace Zorvek {

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekCommandRing")

constexpr U64 kMagic = 0x474e49524b56525aull;  // "ZRVKRING" in memory order
constexpr U32 kVersion = 1;
constexpr U32 kMinCapacity = 256;
constexpr U32 kMaxCapacity = 1u << 30;
constexpr U32 kRecordAlign = 16;
constexpr U32 kCommandRecord = 1;
constexpr U32 kPaddingRecord = 2;
// A waiter checks its condition this many times before it sleeps, and sleeps at most this
// long before it looks whether the consumer is still there.
constexpr int kSpins = 4000;
constexpr auto kSleepSlice = std::chrono::milliseconds(5);

static_assert(std::atomic<U64>::is_always_lock_free, "the ring's indices must be lock-free");
static_assert(std::atomic<U32>::is_always_lock_free && sizeof(std::atomic<U32>) == 4,
              "the futex words must be plain 32-bit words");
static_assert(std::is_trivially_copyable_v<CommandHeader>,
              "a command header is copied into shared memory byte by byte");

struct RecordPrefix {
  U32 recordBytes;
  U32 kind;
  U32 dataBytes;
  U32 maskBytes;
};
static_assert(sizeof(RecordPrefix) == 16);
constexpr U32 kHeaderAt = sizeof(RecordPrefix);
constexpr U32 kPayloadAt = (kHeaderAt + sizeof(CommandHeader) + 7) / 8 * 8;

// Reads and bulk reads send their data back through the response area.
bool returnsData(Command command) {
  return command == Command::readCmd_ || command == Command::bulkReadCmd_;
}

U32 roundUp(U32 bytes, U32 align) { return (bytes + align - 1) / align * align; }
U32 recordSize(U32 payloadBytes) { return roundUp(kPayloadAt + payloadBytes, kRecordAlign); }
// The padding a record of `bytes` bytes at `at` needs first: the rest of the ring when the
// record does not fit before its end.
U32 paddingFor(U32 at, U32 capacity, U32 bytes) {
  return capacity - at < bytes ? capacity - at : 0;
}

void futexWait(std::atomic<U32>& word, U32 expected, std::chrono::nanoseconds limit) {
  const timespec ts{static_cast<time_t>(limit.count() / 1000000000),
                    static_cast<long>(limit.count() % 1000000000)};
  syscall(SYS_futex, reinterpret_cast<U32*>(&word), FUTEX_WAIT, expected, &ts, nullptr, 0);
}

void futexWakeAll(std::atomic<U32>& word) {
  syscall(SYS_futex, reinterpret_cast<U32*>(&word), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// The sleeper/waker handshake is Dekker's: the waker publishes, then looks at the sleeper's
// flag; the sleeper sets its flag, then looks at what is published; one of the two must see
// the other's store. A full fence on each side would cost the waker a fence per command,
// several times the rest of an enqueue across processes, so the fence is asymmetric: the
// waker only keeps the compiler from reordering, and the sleeper, which is about to sleep
// anyway, makes every thread of the processes registered here pass a full barrier
// (membarrier). A process that could not register fences on its own side.
bool registerAsymmetricBarriers() {
  static const bool registered =
      syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED, 0, 0) == 0;
  return registered;
}

// Without the system's barrier the sleeper fences its own side: it then sees a command
// published before its flag at the latest when its sleep slice ends.
void sleeperBarrier() {
  if (syscall(SYS_membarrier, MEMBARRIER_CMD_GLOBAL_EXPEDITED, 0, 0) != 0)
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

// The waker of the handshake: bumps `seq` and wakes the other side when `waiting`, its flag,
// says that it sleeps. It clears the flag as it wakes: one system call per sleep, not one
// per command until the sleeper runs again (a sleeper that goes on waiting sets the flag
// again before it sleeps).
void wakeIfWaiting(bool asymmetricBarriers, std::atomic<U32>& waiting, std::atomic<U32>& seq) {
  if (asymmetricBarriers)
    std::atomic_signal_fence(std::memory_order_seq_cst);
  else
    std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!waiting.load(std::memory_order_relaxed) || !waiting.exchange(0, std::memory_order_relaxed))
    return;
  seq.fetch_add(1, std::memory_order_release);
  futexWakeAll(seq);
}

void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

std::string segmentError(const std::string& name, const std::string& what) {
  return "CommandRing: segment \"" + name + "\": " + what;
}

std::string systemError(const std::string& name, const char* call) {
  return segmentError(name, std::string(call) + " failed: " + std::strerror(errno));
}

}  // namespace

// The words of the segment, as described in CommandRing.h.
struct CommandRingLayout {
  std::atomic<U64> magic;
  U32 version;
  U32 capacity;
  U32 responseCapacity;
  U32 reserved;
  alignas(64) std::atomic<U64> tail;
  alignas(64) std::atomic<U64> head;
  std::atomic<U64> lastExecutedIndex;
  std::atomic<U64> responseIndex;
  std::atomic<U64> lastFailedIndex;
  std::atomic<U64> failedCmds;
  std::atomic<U64> lastDiscardedIndex;
  std::atomic<U64> executedCmds;
  alignas(64) std::atomic<U32> commandSeq;
  std::atomic<U32> consumerWaiting;
  alignas(64) std::atomic<U32> progressSeq;
  std::atomic<U32> producerWaiting;
  alignas(64) std::atomic<U32> generation;
  std::atomic<S32> consumerPid;
  alignas(64) U8 ring[];
};
static_assert(offsetof(CommandRingLayout, tail) == 64);
static_assert(offsetof(CommandRingLayout, head) == 128);
static_assert(offsetof(CommandRingLayout, commandSeq) == 192);
static_assert(offsetof(CommandRingLayout, progressSeq) == 256);
static_assert(offsetof(CommandRingLayout, generation) == 320);
static_assert(offsetof(CommandRingLayout, ring) == 384);

const char* ringWaitName(RingWait wait) {
  switch (wait) {
    case RingWait::done_:
      return "done";
    case RingWait::generationChanged_:
      return "generationChanged";
    case RingWait::consumerDead_:
      return "consumerDead";
    case RingWait::stopped_:
      return "stopped";
    case RingWait::timedOut_:
      break;
  }
  return "timedOut";
}

CommandRing::CommandRing(std::string name, Mapping mapping)
    : name_(std::move(name)),
      layout_(static_cast<CommandRingLayout*>(mapping.base)),
      mappedBytes_(mapping.bytes),
      ring_(layout_->ring),
      capacity_(layout_->capacity),
      responseCapacity_(layout_->responseCapacity),
      // Before the first command: the other side's sleeper barriers reach this process from now.
      asymmetricBarriers_(registerAsymmetricBarriers()) {}

CommandRing::~CommandRing() { munmap(layout_, mappedBytes_); }

U32 CommandRing::generation() const { return layout_->generation.load(std::memory_order_acquire); }
pid_t CommandRing::consumerPid() const {
  return layout_->consumerPid.load(std::memory_order_acquire);
}
U64 CommandRing::lastExecutedIndex() const {
  return layout_->lastExecutedIndex.load(std::memory_order_acquire);
}
U64 CommandRing::lastFailedIndex() const {
  return layout_->lastFailedIndex.load(std::memory_order_acquire);
}
U64 CommandRing::executedCmds() const {
  return layout_->executedCmds.load(std::memory_order_acquire);
}
U64 CommandRing::failedCmds() const { return layout_->failedCmds.load(std::memory_order_acquire); }
bool CommandRing::producerWaiting() const {
  return layout_->producerWaiting.load(std::memory_order_acquire) != 0;
}
U32 CommandRing::recordBytes(U32 payloadBytes) { return recordSize(payloadBytes); }

namespace {

std::size_t segmentBytes(U32 capacity, U32 responseBytes) {
  return sizeof(CommandRingLayout) + capacity + responseBytes;
}

U32 ringCapacity(U32 requested) {
  KEL_ASSERT_TEXT(requested <= kMaxCapacity, "capacity <= 1 GiB");
  return std::bit_ceil(std::max(requested, kMinCapacity));
}

CommandRing::Mapping createSegment(const std::string& name, U32 capacity, U32 responseBytes) {
  // The name carries the owner's pid: a segment of that name is a leftover of a process
  // that had the same pid, and nobody else will ever unlink it.
  shm_unlink(name.c_str());
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0) throw CommandRingError(systemError(name, "shm_open"));
  const std::size_t bytes = segmentBytes(capacity, responseBytes);
  void* base = MAP_FAILED;
  if (ftruncate(fd, static_cast<off_t>(bytes)) == 0)
    base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int error = errno;
  close(fd);
  if (base == MAP_FAILED) {
    shm_unlink(name.c_str());
    errno = error;
    throw CommandRingError(systemError(name, "mapping"));
  }
  // The segment comes zeroed: every index, flag and the generation start at 0. The magic
  // goes last, so that a consumer never takes a half-made segment for a ring.
  auto* l = static_cast<CommandRingLayout*>(base);
  l->capacity = capacity;
  l->responseCapacity = responseBytes;
  l->version = kVersion;
  l->magic.store(kMagic, std::memory_order_release);
  return {base, bytes};
}

}  // namespace

CommandRingProducer::CommandRingProducer(std::string name, U32 capacity, U32 responseBytes)
    : CommandRing(name, createSegment(name, ringCapacity(capacity), roundUp(responseBytes, 8))) {
  DUWISP_TRACE(th(), 1, "CommandRingProducer %s capacity %s responseCapacity %s", this->name(),
               this->capacity(), responseCapacity());
}
CommandRingProducer::~CommandRingProducer() {
  if (pidFd_ >= 0) close(pidFd_);
  unlink();
}

void CommandRingProducer::unlink() {
  if (!std::exchange(linked_, false)) return;
  shm_unlink(name().c_str());
}

bool CommandRingProducer::tryEnqueue(const CommandHeader& header, const void* data, U32 dataBytes,
                                     const void* mask, U32 maskBytes) {
  if (!data) dataBytes = 0;
  if (!mask) maskBytes = 0;
  const U32 bytes = recordSize(dataBytes + maskBytes);
  KEL_ASSERT_TEXT(bytes <= capacity() / 2, "a record takes at most half the ring");
  KEL_ASSERT_TEXT(!returnsData(header.command) || header.bytes() <= responseCapacity(),
                  "a read fits in the response area");
  const U32 at = ringOffset(tail_);
  const U32 padding = paddingFor(at, capacity(), bytes);
  if (freeBytes() < U64{padding} + bytes) {
    cachedHead_ = layout().head.load(std::memory_order_acquire);
    if (freeBytes() < U64{padding} + bytes) return false;
  }
  if (padding) {
    const RecordPrefix pad{padding, kPaddingRecord, 0, 0};
    std::memcpy(ring() + at, &pad, sizeof pad);
  }
  U8* record = ring() + (padding ? 0 : at);
  const RecordPrefix prefix{bytes, kCommandRecord, dataBytes, maskBytes};
  std::memcpy(record, &prefix, sizeof prefix);
  std::memcpy(record + kHeaderAt, &header, sizeof header);
  if (dataBytes) std::memcpy(record + kPayloadAt, data, dataBytes);
  if (maskBytes) std::memcpy(record + kPayloadAt + dataBytes, mask, maskBytes);
  tail_ += padding + bytes;
  layout().tail.store(tail_, std::memory_order_release);
  wakeIfWaiting(asymmetricBarriers(), layout().consumerWaiting, layout().commandSeq);
  return true;
}

template <class Ready>
RingWait CommandRingProducer::waitFor(Ready ready) {
  CommandRingLayout& l = layout();
  for (;;) {
    for (int spin = 0; spin < kSpins; ++spin) {
      if (generation() != acceptedGeneration_) return RingWait::generationChanged_;
      if (ready()) return RingWait::done_;
      cpuRelax();
    }
    if (!consumerAlive()) return RingWait::consumerDead_;
    const U32 seq = l.progressSeq.load(std::memory_order_acquire);
    l.producerWaiting.store(1, std::memory_order_relaxed);
    sleeperBarrier();
    if (generation() == acceptedGeneration_ && !ready()) futexWait(l.progressSeq, seq, kSleepSlice);
    l.producerWaiting.store(0, std::memory_order_relaxed);
  }
}

RingWait CommandRingProducer::waitForSpace(U32 payloadBytes) {
  const U32 bytes = recordSize(payloadBytes);
  return waitFor([&] {
    cachedHead_ = layout().head.load(std::memory_order_acquire);
    return freeBytes() >= U64{paddingFor(ringOffset(tail_), capacity(), bytes)} + bytes;
  });
}

RingWait CommandRingProducer::waitForIndex(U64 index) {
  bool discarded = false;
  const RingWait wait = waitFor([&] {
    if (lastExecutedIndex() >= index) return true;
    discarded = layout().lastDiscardedIndex.load(std::memory_order_acquire) >= index;
    return discarded;
  });
  // A command that a new generation discarded never runs: the wait ends as the generation's.
  return wait == RingWait::done_ && discarded ? RingWait::generationChanged_ : wait;
}

bool CommandRingProducer::readData(U64 index, void* dest, U32 size) const {
  if (layout().responseIndex.load(std::memory_order_acquire) != index) return false;
  std::memcpy(dest, responseArea(), std::min(size, responseCapacity()));
  return true;
}

U32 CommandRingProducer::acceptGeneration() {
  acceptedGeneration_ = generation();
  return acceptedGeneration_;
}

bool CommandRingProducer::consumerAlive() {
  const pid_t pid = consumerPid();
  if (pid <= 0) return false;
  if (pid != watchedPid_) {
    if (pidFd_ >= 0) close(pidFd_);
    watchedPid_ = pid;
    // Through syscall(): glibc 2.36's <sys/pidfd.h> declares pidfd_open without C linkage.
    pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  }
  // Without a descriptor (the process was already gone, or none to spare), ask kill().
  if (pidFd_ < 0) return kill(pid, 0) == 0 || errno != ESRCH;
  // The descriptor turns readable when the process has exited, reaped or not.
  pollfd p{pidFd_, POLLIN, 0};
  return poll(&p, 1, 0) == 0;
}

namespace {

CommandRing::Mapping openSegment(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDWR, 0);
  if (fd < 0) throw CommandRingError(systemError(name, "shm_open"));
  struct stat st {};
  CommandRing::Mapping m{MAP_FAILED, 0};
  if (fstat(fd, &st) == 0 && std::size_t(st.st_size) >= sizeof(CommandRingLayout)) {
    m.bytes = std::size_t(st.st_size);
    m.base = mmap(nullptr, m.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  close(fd);
  if (m.base == MAP_FAILED)
    throw CommandRingError(segmentError(name, "not a command ring (too small to hold one)"));
  const auto* l = static_cast<const CommandRingLayout*>(m.base);
  const U64 magic = l->magic.load(std::memory_order_acquire);
  const U32 version = l->version;
  const bool fits = segmentBytes(l->capacity, l->responseCapacity) <= m.bytes;
  if (magic == kMagic && version == kVersion && fits) return m;
  munmap(m.base, m.bytes);
  if (magic != kMagic) throw CommandRingError(segmentError(name, "not a command ring (bad magic)"));
  if (version != kVersion)
    throw CommandRingError(segmentError(name, "layout version " + std::to_string(version) +
                                                  ", expected " + std::to_string(kVersion)));
  throw CommandRingError(segmentError(name, "not a command ring (truncated)"));
}

}  // namespace

CommandRingConsumer::CommandRingConsumer(const std::string& name)
    : CommandRing(name, openSegment(name)) {
  CommandRingLayout& l = layout();
  // This process first, then the generation: a producer that sees the new generation sees
  // a consumer alive, never the pid of none (or of the dead one) that would end its wait.
  l.consumerPid.store(getpid(), std::memory_order_release);
  // The previous consumer may have died at any step: only the producer's tail is trusted.
  // Commands published from here on belong to this generation.
  const U32 generation = l.generation.fetch_add(1, std::memory_order_acq_rel) + 1;
  l.consumerWaiting.store(0, std::memory_order_relaxed);
  cachedTail_ = l.tail.load(std::memory_order_acquire);
  // The first generation runs what the producer published before any consumer started.
  head_ = generation == 1 ? l.head.load(std::memory_order_acquire) : cachedTail_;
  const U64 discarded = lastIndexBetween(l.head.load(std::memory_order_acquire), head_);
  if (discarded > l.lastDiscardedIndex.load(std::memory_order_relaxed))
    l.lastDiscardedIndex.store(discarded, std::memory_order_release);
  l.head.store(head_, std::memory_order_release);
  l.progressSeq.fetch_add(1, std::memory_order_release);
  futexWakeAll(l.progressSeq);
  DUWISP_TRACE(th(), 1, "CommandRingConsumer %s generation %s head %s", this->name(), generation,
               head_);
}

U64 CommandRingConsumer::lastIndexBetween(U64 from, U64 to) const {
  // The records between the previous generation's head and the tail are whole (the producer
  // publishes a record only once it is written), but a head that is not a record's start
  // would read garbage: the walk stops at the first record that is not well formed.
  U64 last = 0;
  while (from < to && to - from <= capacity()) {
    RecordPrefix prefix;
    std::memcpy(&prefix, ring() + ringOffset(from), sizeof prefix);
    if (prefix.recordBytes < sizeof prefix || prefix.recordBytes % kRecordAlign ||
        prefix.recordBytes > to - from)
      break;
    if (prefix.kind == kCommandRecord) {
      CommandHeader header;
      std::memcpy(&header, ring() + ringOffset(from) + kHeaderAt, sizeof header);
      last = std::max(last, header.cmdIndex);
    }
    from += prefix.recordBytes;
  }
  return last;
}

RingWait CommandRingConsumer::waitForCommand(std::chrono::milliseconds timeout) {
  CommandRingLayout& l = layout();
  // The clock is read once the first spin found nothing: a consumer that keeps up with its
  // producer calls this for about every command, and a clock read costs as much as the rest.
  std::optional<std::chrono::steady_clock::time_point> until;
  for (;;) {
    for (int spin = 0; spin < kSpins; ++spin) {
      if (stop_.load(std::memory_order_acquire)) return RingWait::stopped_;
      if (cachedTail_ != head_) return RingWait::done_;
      cachedTail_ = l.tail.load(std::memory_order_acquire);
      cpuRelax();
    }
    if (!until) until = std::chrono::steady_clock::now() + timeout;
    const auto left = *until - std::chrono::steady_clock::now();
    if (left <= left.zero()) return RingWait::timedOut_;
    const U32 seq = l.commandSeq.load(std::memory_order_acquire);
    l.consumerWaiting.store(1, std::memory_order_relaxed);
    sleeperBarrier();
    cachedTail_ = l.tail.load(std::memory_order_acquire);
    if (cachedTail_ == head_ && !stop_.load(std::memory_order_acquire))
      futexWait(l.commandSeq, seq, std::min<std::chrono::nanoseconds>(left, kSleepSlice));
    l.consumerWaiting.store(0, std::memory_order_relaxed);
  }
}

void CommandRingConsumer::stop() {
  stop_.store(true, std::memory_order_release);
  layout().commandSeq.fetch_add(1, std::memory_order_release);
  futexWakeAll(layout().commandSeq);
}

bool CommandRingConsumer::front(RingCommand& cmd) {
  for (;;) {
    if (head_ == cachedTail_) {
      cachedTail_ = layout().tail.load(std::memory_order_acquire);
      if (head_ == cachedTail_) return false;
    }
    const U8* record = ring() + ringOffset(head_);
    RecordPrefix prefix;
    std::memcpy(&prefix, record, sizeof prefix);
    if (prefix.kind != kPaddingRecord) {
      KEL_ASSERT_TEXT(prefix.kind == kCommandRecord && prefix.recordBytes <= capacity() / 2 &&
                          kPayloadAt + prefix.dataBytes + prefix.maskBytes <= prefix.recordBytes,
                      "a command record of the ring is well formed");
      std::memcpy(&cmd.header, record + kHeaderAt, sizeof cmd.header);
      cmd.data = {record + kPayloadAt, prefix.dataBytes};
      cmd.dataMask = {record + kPayloadAt + prefix.dataBytes, prefix.maskBytes};
      frontBytes_ = prefix.recordBytes;
      frontIndex_ = cmd.header.cmdIndex;
      return true;
    }
    head_ += prefix.recordBytes;
  }
}

void CommandRingConsumer::readDataIs(const void* data, U32 size) {
  KEL_ASSERT(size <= responseCapacity());
  std::memcpy(responseArea(), data, size);
  layout().responseIndex.store(frontIndex_, std::memory_order_release);
}

void CommandRingConsumer::commandExecuted(bool succeeded) {
  KEL_ASSERT_TEXT(frontBytes_ != 0, "commandExecuted() follows front()");
  CommandRingLayout& l = layout();
  head_ += std::exchange(frontBytes_, 0);
  l.head.store(head_, std::memory_order_release);
  // Only this side writes the failure words: a plain add is enough, and they are published
  // with the executed index below.
  l.executedCmds.store(l.executedCmds.load(std::memory_order_relaxed) + 1,
                       std::memory_order_relaxed);
  if (!succeeded) {
    l.lastFailedIndex.store(frontIndex_, std::memory_order_relaxed);
    l.failedCmds.store(l.failedCmds.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  l.lastExecutedIndex.store(frontIndex_, std::memory_order_release);
  wakeIfWaiting(asymmetricBarriers(), l.producerWaiting, l.progressSeq);
}

}  // namespace Zorvek
