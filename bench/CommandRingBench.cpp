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

#include "BareRing.h"
#include "Zorvek/CommandRing.h"

namespace {

using namespace Zorvek;
using Clock = std::chrono::steady_clock;

using namespace Zorvek::bench;

constexpr int kRounds = 9;
constexpr U64 kPerRound = 200000;
constexpr double kGoal = 1.30;

// What the consumer reports: the sum of the indices and data it took, per side.
struct Report {
  std::atomic<U64> bareSum{0};
  std::atomic<U64> ringSum{0};
};

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
