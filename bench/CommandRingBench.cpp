// Commands per second from a producer process to a consumer process through a CommandRing
// (16-byte write commands with their data), against a bare single-producer, single-consumer
// ring of 16-byte records in a shared-memory segment of the same size (indices only: no
// command header, no generation, no futex) between the same two processes. The two sides
// take turns, round after round, in the same run; each side's figure is its fastest round,
// the one least disturbed by the rest of the machine. A round ends when the consumer took
// the round's last command.
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
constexpr U32 kRecord = 16;
constexpr double kGoal = 1.30;

void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The bare ring: a tail the producer publishes, a head the consumer publishes, each on its
// own cache line, and records of 16 bytes. Each side keeps a copy of the other's index and
// reads it again only when the copy says full (or empty).
struct BareRing {
  alignas(64) std::atomic<U64> tail{0};
  alignas(64) std::atomic<U64> head{0};
  alignas(64) U8 records[kRingBytes];
};

// What the consumer reports: the sum of the bytes it took, per side.
struct Report {
  std::atomic<U64> bareSum{0};
  std::atomic<U64> ringSum{0};
};

U64 sumOf(const U8* bytes) {
  U64 a = 0, b = 0;
  std::memcpy(&a, bytes, 8);
  std::memcpy(&b, bytes + 8, 8);
  return a + b;
}

void fill(U8* bytes, U64 n) {
  std::memcpy(bytes, &n, 8);
  std::memcpy(bytes + 8, &n, 8);
}

void bareProduce(BareRing& bare, U64 first, U64 count) {
  U64 tail = bare.tail.load(std::memory_order_relaxed);
  U64 head = bare.head.load(std::memory_order_acquire);
  for (U64 n = first; n < first + count; ++n) {
    while (tail - head == kRingBytes) {
      cpuRelax();
      head = bare.head.load(std::memory_order_acquire);
    }
    fill(bare.records + tail % kRingBytes, n);
    tail += kRecord;
    bare.tail.store(tail, std::memory_order_release);
  }
  while (bare.head.load(std::memory_order_acquire) != tail) cpuRelax();
}

U64 bareConsume(BareRing& bare, U64 count) {
  U64 head = bare.head.load(std::memory_order_relaxed);
  U64 tail = head;
  U64 sum = 0;
  for (U64 n = 0; n < count; ++n) {
    while (tail == head) {
      cpuRelax();
      tail = bare.tail.load(std::memory_order_acquire);
    }
    sum += sumOf(bare.records + head % kRingBytes);
    head += kRecord;
    bare.head.store(head, std::memory_order_release);
  }
  return sum;
}

bool ringProduce(CommandRingProducer& ring, U64 first, U64 count) {
  CommandHeader h = singleCommand(Command::writeCmd_, oneDeviceMask(DeviceId(0)),
                                  PhysicalResourceId(ResourceType::tableResource_, 7), 0, kRecord);
  U8 data[kRecord];
  for (U64 n = first; n < first + count; ++n) {
    fill(data, n);
    h.cmdIndex = n;
    h.offset = U32(n * kRecord);
    while (!ring.tryEnqueue(h, data, kRecord, nullptr, 0))
      if (ring.waitForSpace(kRecord) != RingWait::done_) return false;
  }
  return ring.waitForIndex(first + count - 1) == RingWait::done_;
}

U64 ringConsume(CommandRingConsumer& ring, U64 count) {
  U64 sum = 0;
  RingCommand cmd;
  for (U64 n = 0; n < count;) {
    if (ring.waitForCommand(std::chrono::seconds(10)) != RingWait::done_) return 0;
    while (n < count && ring.front(cmd)) {
      sum += sumOf(cmd.data.data());
      ring.commandExecuted();
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

// The sum of 2n over the commands first..first+count-1: what the consumer adds up.
U64 expectedSum(U64 first, U64 count) { return count * (2 * first + count - 1); }

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
