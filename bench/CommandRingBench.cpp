// Commands per second from a producer process to a consumer process through a CommandRing
// (16-byte write commands with their data), against a bare single-producer, single-consumer
// ring carrying the same bytes between the same two processes: each of its records takes the
// ring bytes a CommandRing record of the command takes and holds the same command header and
// data, and its only shared words are a tail and a head (no framing, no generation, no futex,
// no executed index). Both consumers read the header and the data of every command. The two
// sides take turns, round after round, in the same run; each side's figure is its fastest
// round, the one least disturbed by the rest of the machine. A round ends when the consumer
// took the round's last command.
//
// Prints commands per second of each side and the ratio of their times per command
// (goal <= 1.30) in the form bench/run reads.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "Zorvek/CommandRing.h"

namespace {

using namespace Zorvek;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 9;
constexpr U64 kPerRound = 200000;
constexpr U32 kRingBytes = 64 * 1024;
constexpr U32 kData = 16;
constexpr double kGoal = 1.30;

void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The bare ring: a tail the producer publishes, a head the consumer publishes (both counted
// in commands), each on its own cache line, and fixed-size records, each a command header
// followed by its data, laid out as many to a ring as a CommandRing's records. Each side
// keeps a copy of the other's index and reads it again only when the copy says full (or
// empty).
const U32 kSlotBytes = CommandRing::recordBytes(kData);
const U32 kSlots = kRingBytes / kSlotBytes;

struct BareRing {
  alignas(64) std::atomic<U64> tail{0};
  alignas(64) std::atomic<U64> head{0};
  alignas(64) U8 records[kRingBytes];
};

// What the consumer reports: the sum of the indices and data it took, per side.
struct Report {
  std::atomic<U64> bareSum{0};
  std::atomic<U64> ringSum{0};
};

// Command n: a 16-byte write of n, twice, at an offset that moves with n.
void makeCommand(CommandHeader& h, U8* data, U64 n) {
  h.cmdIndex = n;
  h.offset = U32(n * kData);
  std::memcpy(data, &n, 8);
  std::memcpy(data + 8, &n, 8);
}

// What a consumer adds up for a command: its index and its data, 3n for command n.
U64 sumOf(const CommandHeader& h, const U8* data) {
  U64 a = 0, b = 0;
  std::memcpy(&a, data, 8);
  std::memcpy(&b, data + 8, 8);
  return h.cmdIndex + a + b;
}

CommandHeader firstHeader() {
  return singleCommand(Command::writeCmd_, oneDeviceMask(DeviceId(0)),
                       PhysicalResourceId(ResourceType::tableResource_, 7), 0, kData);
}

void bareProduce(BareRing& bare, U64 first, U64 count) {
  CommandHeader h = firstHeader();
  U8 data[kData];
  U64 tail = bare.tail.load(std::memory_order_relaxed);
  U64 head = bare.head.load(std::memory_order_acquire);
  U32 at = U32(tail % kSlots) * kSlotBytes;
  for (U64 n = first; n < first + count; ++n) {
    makeCommand(h, data, n);
    while (tail - head == kSlots) {
      cpuRelax();
      head = bare.head.load(std::memory_order_acquire);
    }
    std::memcpy(bare.records + at, &h, sizeof h);
    std::memcpy(bare.records + at + sizeof h, data, kData);
    at = at + kSlotBytes == kSlots * kSlotBytes ? 0 : at + kSlotBytes;
    bare.tail.store(++tail, std::memory_order_release);
  }
  while (bare.head.load(std::memory_order_acquire) != tail) cpuRelax();
}

U64 bareConsume(BareRing& bare, U64 count) {
  U64 head = bare.head.load(std::memory_order_relaxed);
  U64 tail = head;
  U32 at = U32(head % kSlots) * kSlotBytes;
  U64 sum = 0;
  CommandHeader h;
  for (U64 n = 0; n < count; ++n) {
    while (tail == head) {
      cpuRelax();
      tail = bare.tail.load(std::memory_order_acquire);
    }
    std::memcpy(&h, bare.records + at, sizeof h);
    sum += sumOf(h, bare.records + at + sizeof h);
    at = at + kSlotBytes == kSlots * kSlotBytes ? 0 : at + kSlotBytes;
    bare.head.store(++head, std::memory_order_release);
  }
  return sum;
}

bool ringProduce(CommandRingProducer& ring, U64 first, U64 count) {
  CommandHeader h = firstHeader();
  U8 data[kData];
  for (U64 n = first; n < first + count; ++n) {
    makeCommand(h, data, n);
    while (!ring.tryEnqueue(h, data, kData, nullptr, 0))
      if (ring.waitForSpace(kData) != RingWait::done_) return false;
  }
  return ring.waitForIndex(first + count - 1) == RingWait::done_;
}

U64 ringConsume(CommandRingConsumer& ring, U64 count) {
  U64 sum = 0;
  RingCommand cmd;
  for (U64 n = 0; n < count;) {
    if (ring.waitForCommand(std::chrono::seconds(10)) != RingWait::done_) return 0;
    while (n < count && ring.front(cmd)) {
      sum += sumOf(cmd.header, cmd.data.data());
      ring.commandExecuted(true);
      ++n;
    }
  }
  return sum;
}

int consumer(const std::string& ringName, BareRing& bare, Report& report) {
  CommandRingConsumer ring(ringName);
  for (int round = 0; round < kRounds; ++round) {
    report.bareSum.fetch_add(bareConsume(bare, kPerRound));
    report.ringSum.fetch_add(ringConsume(ring, kPerRound));
  }
  return 0;
}

double nsPerCommand(Clock::duration d) {
  return double(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count()) / kPerRound;
}

// The sum of 3n over the commands first..first+count-1: what the consumer adds up.
U64 expectedSum(U64 first, U64 count) { return 3 * count * (2 * first + count - 1) / 2; }

}  // namespace

int main() {
  const std::string ringName = "/zorvek-bench-" + std::to_string(getpid()) + "-ring";
  const std::string bareName = "/zorvek-bench-" + std::to_string(getpid()) + "-bare";
  CommandRingProducer ring(ringName, kRingBytes, 8);
  const int fd = shm_open(bareName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(BareRing)) != 0) {
    std::perror("CommandRingBench: the bare ring's segment");
    return 1;
  }
  void* mapped = mmap(nullptr, sizeof(BareRing), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  shm_unlink(bareName.c_str());
  auto* bare = new (mapped) BareRing();
  auto* report =
      new (mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Report();

  const pid_t child = fork();
  if (child == 0) _exit(consumer(ringName, *bare, *report));
  while (ring.generation() == 0) sched_yield();
  ring.acceptGeneration();

  double bareBest = 1e30, ringBest = 1e30;
  U64 bareNext = 0, ringNext = 1;
  for (int round = 0; round < kRounds; ++round) {
    auto start = Clock::now();
    bareProduce(*bare, bareNext, kPerRound);
    bareBest = std::min(bareBest, nsPerCommand(Clock::now() - start));
    bareNext += kPerRound;
    start = Clock::now();
    if (!ringProduce(ring, ringNext, kPerRound)) {
      std::fprintf(stderr, "CommandRingBench: the consumer stopped in round %d\n", round);
      return 1;
    }
    ringBest = std::min(ringBest, nsPerCommand(Clock::now() - start));
    ringNext += kPerRound;
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0 || report->bareSum != expectedSum(0, bareNext) ||
      report->ringSum != expectedSum(1, ringNext - 1)) {
    std::fprintf(stderr, "CommandRingBench: the consumer exited with %d or took other bytes\n",
                 status);
    return 1;
  }
  const double ratio = ringBest / bareBest;
  std::printf("commands per second: CommandRing %.0f, bare ring %.0f\n", 1e9 / ringBest,
              1e9 / bareBest);
  std::printf(
      "ratio CommandRing/write16 / BareRing/write16 = %.2f (goal <= %.2f: %s); ns per access "
      "%.1f / %.1f\n",
      ratio, kGoal, ratio <= kGoal ? "met" : "MISSED", ringBest, bareBest);
  return 0;
}
