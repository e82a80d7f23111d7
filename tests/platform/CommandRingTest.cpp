// CommandRing between real processes: the test process is the producer and forks its
// consumers, which report what they saw through an anonymous shared mapping.
#include "Zorvek/CommandRing.h"

#include "platform/ForkTools.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Zorvek;
using namespace Zorvek::test;
using namespace ::testing;
using namespace std::chrono_literals;

std::string ringName(const char* what) {
  return "/zorvek-test-" + std::to_string(getpid()) + "-" + what;
}

// The command of index `index` that the tests enqueue: its bytes follow from the index, so
// that a consumer can check every byte of it on its own.
struct Made {
  CommandHeader header;
  std::vector<U8> data;
  std::vector<U8> mask;
};
Made makeCommand(U64 index) {
  Made m;
  m.data.resize(1 + index % 61);
  for (std::size_t j = 0; j < m.data.size(); ++j) m.data[j] = U8(index * 31 + j);
  if (index % 3 == 0)
    for (std::size_t j = 0; j < m.data.size(); ++j) m.mask.push_back(U8(~(index + j)));
  m.header = singleCommand(Command::writeCmd_, oneDeviceMask(DeviceId(0)),
                           PhysicalResourceId(ResourceType::tableResource_, 7), U32(index * 8),
                           U32(m.data.size()));
  m.header.cmdIndex = index;
  return m;
}
bool matches(const RingCommand& cmd) {
  const Made m = makeCommand(cmd.header.cmdIndex);
  return cmd.header.offset == m.header.offset && cmd.header.size == m.header.size &&
         std::equal(cmd.data.begin(), cmd.data.end(), m.data.begin(), m.data.end()) &&
         std::equal(cmd.dataMask.begin(), cmd.dataMask.end(), m.mask.begin(), m.mask.end());
}
U32 payload(const Made& m) { return U32(m.data.size() + m.mask.size()); }

// Enqueues the command of `index`, waiting for space while the ring is full.
RingWait enqueue(CommandRingProducer& ring, U64 index) {
  const Made m = makeCommand(index);
  while (!ring.tryEnqueue(m.header, m.data.data(), U32(m.data.size()),
                          m.mask.empty() ? nullptr : m.mask.data(), U32(m.mask.size()))) {
    const RingWait w = ring.waitForSpace(payload(m));
    if (w != RingWait::done_) return w;
  }
  return RingWait::done_;
}

// Starts the generation of a consumer that opened the ring and returns once the producer
// accepted it.
void acceptConsumer(CommandRingProducer& ring, U32 generation) {
  spinUntil([&] { return ring.generation() == generation; });
  ring.acceptGeneration();
}

// What a consumer saw, command by command, as far as kMaxLogged commands.
struct Log {
  static constexpr int kMaxLogged = 1024;
  struct Entry {
    U64 index;
    U32 dataBytes;
    U32 maskBytes;
    U8 data[64];
    U8 mask[64];
  };
  std::atomic<int> count{0};
  std::atomic<bool> go{false};
  Entry entries[kMaxLogged];

  void add(const RingCommand& cmd) {
    Entry& e = entries[count.load()];
    e.index = cmd.header.cmdIndex;
    e.dataBytes = U32(cmd.data.size());
    e.maskBytes = U32(cmd.dataMask.size());
    std::memcpy(e.data, cmd.data.data(), std::min<std::size_t>(64, cmd.data.size()));
    std::memcpy(e.mask, cmd.dataMask.data(), std::min<std::size_t>(64, cmd.dataMask.size()));
    count.store(count.load() + 1, std::memory_order_release);
  }
  std::vector<U64> indexes() const {
    std::vector<U64> out;
    for (int i = 0; i < count; ++i) out.push_back(entries[i].index);
    return out;
  }
  std::vector<std::vector<U8>> data() const {
    std::vector<std::vector<U8>> out;
    for (int i = 0; i < count; ++i)
      out.emplace_back(entries[i].data, entries[i].data + entries[i].dataBytes);
    return out;
  }
  std::vector<std::vector<U8>> masks() const {
    std::vector<std::vector<U8>> out;
    for (int i = 0; i < count; ++i)
      out.emplace_back(entries[i].mask, entries[i].mask + entries[i].maskBytes);
    return out;
  }
};

// A consumer that opens `name`, waits for `log.go`, then logs `commands` commands.
int loggingConsumer(const std::string& name, Log& log, int commands) {
  CommandRingConsumer ring(name);
  spinUntil([&] { return log.go.load(); });
  RingCommand cmd;
  for (int idle = 0; log.count < commands && idle < 100;) {
    if (ring.waitForCommand(100ms) != RingWait::done_ || !ring.front(cmd)) {
      ++idle;
      continue;
    }
    log.add(cmd);
    ring.commandExecuted(true);
  }
  return log.count == commands ? 0 : 1;
}

TEST(CommandRingTest, RecordsOfVaryingSizesWrapAroundIntactAndInOrder) {
  constexpr int kCommands = 1000;
  CommandRingProducer ring(ringName("wrap"), 512, 8);
  Shared<Log> log;
  log->go = true;
  Child consumer([&] { return loggingConsumer(ring.name(), *log, kCommands); });
  acceptConsumer(ring, 1);
  std::vector<U64> indexes;
  std::vector<std::vector<U8>> data, masks;
  for (U64 i = 1; i <= kCommands; ++i) {
    ASSERT_EQ(enqueue(ring, i), RingWait::done_) << "command " << i;
    const Made m = makeCommand(i);
    indexes.push_back(i);
    data.push_back(m.data);
    masks.push_back(m.mask);
  }
  EXPECT_EQ(ring.waitForIndex(kCommands), RingWait::done_);
  EXPECT_EQ(consumer.exitStatus(), 0);
  EXPECT_THAT(log->indexes(), ElementsAreArray(indexes));
  EXPECT_THAT(log->data(), ElementsAreArray(data));
  EXPECT_THAT(log->masks(), ElementsAreArray(masks));
}

TEST(CommandRingTest, AFullRingMakesTheProducerWaitUntilTheConsumerTakesCommands) {
  CommandRingProducer ring(ringName("full"), 256, 8);
  Shared<Log> log;
  // The consumer takes nothing until the producer sleeps in its wait for space.
  Child consumer([&] {
    CommandRingConsumer watcher(ring.name());
    spinUntil([&] { return watcher.producerWaiting(); });
    log->go = true;
    RingCommand cmd;
    while (watcher.waitForCommand(10s) == RingWait::done_ && watcher.front(cmd)) {
      log->add(cmd);
      watcher.commandExecuted(true);
    }
    return 0;
  });
  acceptConsumer(ring, 1);
  const Made m = makeCommand(1);
  U64 queued = 0;
  while (ring.tryEnqueue(m.header, m.data.data(), U32(m.data.size()), nullptr, 0)) ++queued;
  ASSERT_GT(queued, 0u);
  EXPECT_EQ(ring.waitForSpace(payload(m)), RingWait::done_);
  EXPECT_TRUE(log->go);
  EXPECT_TRUE(ring.tryEnqueue(m.header, m.data.data(), U32(m.data.size()), nullptr, 0));
}

TEST(CommandRingTest, TheConsumerSeesTheBytesOfTheEnqueueNotTheCallersReusedBuffer) {
  CommandRingProducer ring(ringName("inline"), 1024, 8);
  Shared<Log> log;
  Child consumer([&] { return loggingConsumer(ring.name(), *log, 3); });
  acceptConsumer(ring, 1);
  std::vector<U8> buffer(16), mask(16);
  CommandHeader h = makeCommand(1).header;
  for (U8 i = 1; i <= 3; ++i) {
    std::fill(buffer.begin(), buffer.end(), i);
    std::fill(mask.begin(), mask.end(), U8(0xf0 | i));
    h.cmdIndex = i;
    ASSERT_TRUE(ring.tryEnqueue(h, buffer.data(), 16, mask.data(), 16));
  }
  std::fill(buffer.begin(), buffer.end(), 0xee);
  std::fill(mask.begin(), mask.end(), 0xee);
  log->go = true;
  EXPECT_EQ(ring.waitForIndex(3), RingWait::done_);
  EXPECT_EQ(consumer.exitStatus(), 0);
  EXPECT_THAT(log->data(),
              ElementsAre(std::vector<U8>(16, 1), std::vector<U8>(16, 2), std::vector<U8>(16, 3)));
  EXPECT_THAT(log->masks(), ElementsAre(std::vector<U8>(16, 0xf1), std::vector<U8>(16, 0xf2),
                                        std::vector<U8>(16, 0xf3)));
}

TEST(CommandRingTest, AReadsDataComesBackUntilTheNextReadRuns) {
  CommandRingProducer ring(ringName("read"), 1024, 8);
  // Reads at even offsets succeed with the bytes offset, offset+1, ...; odd offsets fail.
  Child consumer([&] {
    CommandRingConsumer served(ring.name());
    RingCommand cmd;
    while (served.waitForCommand(10s) == RingWait::done_ && served.front(cmd)) {
      std::vector<U8> bytes(cmd.header.size);
      for (std::size_t j = 0; j < bytes.size(); ++j) bytes[j] = U8(cmd.header.offset + j);
      if (cmd.header.offset % 2 == 0) served.readDataIs(bytes.data(), U32(bytes.size()));
      served.commandExecuted(true);
    }
    return 0;
  });
  acceptConsumer(ring, 1);
  const auto read = [&](U64 index, DeviceOffset offset) {
    CommandHeader h = singleCommand(Command::readCmd_, oneDeviceMask(DeviceId(0)),
                                    PhysicalResourceId(ResourceType::tableResource_, 7), offset, 4);
    h.cmdIndex = index;
    EXPECT_TRUE(ring.tryEnqueue(h, nullptr, 0, nullptr, 0));
    EXPECT_EQ(ring.waitForIndex(index), RingWait::done_);
  };
  std::vector<U8> first(4), failed(4, 0x55), stale(4, 0x55);
  read(1, 0x40);
  EXPECT_TRUE(ring.readData(1, first.data(), 4));
  EXPECT_THAT(first, ElementsAre(0x40, 0x41, 0x42, 0x43));
  read(2, 0x41);
  EXPECT_FALSE(ring.readData(2, failed.data(), 4));
  EXPECT_THAT(failed, Each(0x55));
  read(3, 0x80);
  EXPECT_FALSE(ring.readData(1, stale.data(), 4));
}

enum class WaitKind { index, space };
enum class Ending { newGeneration, consumerKilled };
struct EndingCase {
  WaitKind wait;
  Ending ending;
  RingWait expected;
};

class CommandRingEndingTest : public TestWithParam<EndingCase> {};

// The producer sleeps in its wait while the consumer takes nothing; then the consumer is
// killed, or a second consumer starts a new generation.
TEST_P(CommandRingEndingTest, EndsTheProducersWait) {
  const EndingCase& c = GetParam();
  CommandRingProducer ring(ringName("ending"), 256, 8);
  Shared<std::atomic<bool>> producerSleeps;
  Child stalled([&] {
    CommandRingConsumer stuck(ring.name());
    spinUntil([&] { return stuck.producerWaiting(); });
    if (c.ending == Ending::consumerKilled) raise(SIGKILL);
    *producerSleeps = true;
    pause();
    return 0;
  });
  Child next([&] {
    spinUntil([&] { return producerSleeps->load(); });
    CommandRingConsumer restarted(ring.name());
    pause();
    return 0;
  });
  acceptConsumer(ring, 1);
  const Made m = makeCommand(1);
  if (c.wait == WaitKind::index) {
    ASSERT_TRUE(ring.tryEnqueue(m.header, m.data.data(), U32(m.data.size()), nullptr, 0));
    EXPECT_EQ(ring.waitForIndex(1), c.expected);
  } else {
    while (ring.tryEnqueue(m.header, m.data.data(), U32(m.data.size()), nullptr, 0)) continue;
    EXPECT_EQ(ring.waitForSpace(payload(m)), c.expected);
  }
  // The status holds for every later wait, until the producer accepts the new generation.
  EXPECT_EQ(ring.waitForIndex(1), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandRingEndingTest,
    Values(EndingCase{WaitKind::index, Ending::newGeneration, RingWait::generationChanged_},
           EndingCase{WaitKind::space, Ending::newGeneration, RingWait::generationChanged_},
           EndingCase{WaitKind::index, Ending::consumerKilled, RingWait::consumerDead_},
           EndingCase{WaitKind::space, Ending::consumerKilled, RingWait::consumerDead_}),
    [](const TestParamInfo<EndingCase>& info) {
      return std::string(info.param.wait == WaitKind::index ? "WaitForIndex" : "WaitForSpace") +
             (info.param.ending == Ending::newGeneration ? "NewGeneration" : "ConsumerKilled");
    });

// What one consumer generation saw: the first and last command index, and the first command
// that was not the one expected (a gap, a repeat or a wrong byte).
struct Generation {
  std::atomic<U32> opened{0};
  std::atomic<U64> first{0};
  std::atomic<U64> last{0};
  std::atomic<U64> wrong{0};
};

// Checks every command it takes: each follows the previous one and has the bytes of its index.
int checkingConsumer(const std::string& name, Generation& seen) {
  CommandRingConsumer ring(name);
  seen.opened = ring.generation();
  RingCommand cmd;
  for (;;) {
    if (ring.waitForCommand(10s) != RingWait::done_ || !ring.front(cmd)) return 1;
    const U64 index = cmd.header.cmdIndex;
    const U64 last = seen.last.load();
    if (!seen.wrong && ((last && index != last + 1) || !matches(cmd))) seen.wrong = index;
    if (!last) seen.first = index;
    seen.last = index;
    ring.commandExecuted(true);
  }
}

// A consumer killed at a random step (seeded) while it consumes; the next generation must
// start with the first command enqueued after it opened, and read each one intact and in
// order, whatever the dead one left in the ring.
TEST(CommandRingTest, AConsumerKilledAtAnyStepLeavesARingTheNextGenerationReads) {
  constexpr int kIterations = 200;
  std::mt19937_64 random(20240611);
  CommandRingProducer ring(ringName("kill"), 1024, 8);
  Shared<Generation> seen;
  std::vector<std::string> problems;
  U64 next = 1;
  for (U32 generation = 1; generation <= kIterations + 1; ++generation) {
    new (&*seen) Generation();
    Child consumer([&] { return checkingConsumer(ring.name(), *seen); });
    spinUntil([&] { return seen->opened == generation; });
    ring.acceptGeneration();
    const U64 first = next;
    const bool last = generation == kIterations + 1;
    const U64 killAfter = last ? 300 : random() % 300;
    for (U64 n = 0; n < killAfter; ++n) ASSERT_EQ(enqueue(ring, next++), RingWait::done_);
    if (last) {
      EXPECT_EQ(ring.waitForIndex(next - 1), RingWait::done_);
    } else {
      for (U64 spin = random() % 20000; spin; --spin)
        std::atomic_signal_fence(std::memory_order_seq_cst);
      consumer.kill(SIGKILL);
      // Commands the dead consumer left: the next generation discards them.
      for (U64 n = random() % 8;
           n && ring.tryEnqueue(makeCommand(next).header, nullptr, 0, nullptr, 0); --n)
        ++next;
    }
    const std::string at = "generation " + std::to_string(generation) + ": ";
    if (seen->wrong) problems.push_back(at + "command " + std::to_string(seen->wrong.load()));
    if (seen->last && seen->first != first)
      problems.push_back(at + "first command " + std::to_string(seen->first.load()) +
                         ", expected " + std::to_string(first));
  }
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_EQ(seen->last, next - 1);
}

struct BadSegment {
  const char* name;
  // Makes the segment `name` (or not).
  void (*make)(const std::string& name);
  const char* error;
};

// A segment of `bytes` bytes that starts with the 8 bytes of `magic` and a 32-bit `version`.
void writeSegment(const std::string& name, std::size_t bytes, const char* magic, U32 version) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, off_t(bytes)), 0);
  ASSERT_EQ(pwrite(fd, magic, 8, 0), 8);
  ASSERT_EQ(pwrite(fd, &version, sizeof version, 8), ssize_t(sizeof version));
  close(fd);
}

class CommandRingOpenTest : public TestWithParam<BadSegment> {};

TEST_P(CommandRingOpenTest, ABadSegmentIsAClearError) {
  const std::string name = ringName(GetParam().name);
  GetParam().make(name);
  try {
    CommandRingConsumer ring(name);
    ADD_FAILURE() << "opened " << name;
  } catch (const CommandRingError& e) {
    EXPECT_EQ(e.what(), "CommandRing: segment \"" + name + "\": " + GetParam().error);
  }
  shm_unlink(name.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandRingOpenTest,
    Values(BadSegment{"missing", [](const std::string&) {},
                      "shm_open failed: No such file or directory"},
           BadSegment{"small", [](const std::string& n) { writeSegment(n, 64, "ZRVKRING", 1); },
                      "not a command ring (too small to hold one)"},
           BadSegment{"magic", [](const std::string& n) { writeSegment(n, 4096, "ZRVKRINK", 1); },
                      "not a command ring (bad magic)"},
           BadSegment{"version",
                      [](const std::string& n) { writeSegment(n, 4096, "ZRVKRING", 99); },
                      "layout version 99, expected 1"}),
    [](const TestParamInfo<BadSegment>& info) { return std::string(info.param.name); });

TEST(CommandRingDeathTest, MisuseAborts) {
  CommandRingProducer ring(ringName("death"), 256, 8);
  const CommandHeader write = makeCommand(1).header;
  std::vector<U8> big(128);
  EXPECT_DEATH(ring.tryEnqueue(write, big.data(), U32(big.size()), nullptr, 0),
               "Assertion failed: a record takes at most half the ring");
  CommandHeader read = write;
  read.command = Command::readCmd_;
  read.size = 16;
  EXPECT_DEATH(ring.tryEnqueue(read, nullptr, 0, nullptr, 0),
               "Assertion failed: a read fits in the response area");
  CommandRingConsumer consumer(ring.name());
  EXPECT_DEATH(consumer.commandExecuted(true),
               "Assertion failed: commandExecuted\\(\\) follows front\\(\\)");
  EXPECT_DEATH(consumer.readDataIs(big.data(), 16),
               "Assertion failed: size <= responseCapacity\\(\\)");
}

}  // namespace
