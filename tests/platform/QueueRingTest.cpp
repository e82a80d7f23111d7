// QueueRequester over a command ring to a serializer in another process (a forked consumer):
// what becomes of each kind of command in flight when the serializer's process dies holding
// it, and when the next process starts a new generation of the ring.
#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <vector>

#include "Zorvek/QueueRequester.h"
#include "dal/DalDoubles.h"
#include "platform/ForkTools.h"

namespace {

using namespace Zorvek;
using namespace Zorvek::test;
using namespace ::testing;

const PhysicalResourceId kTable(ResourceType::tableResource_, 7);
const Kel::String kQueue("a1-s0-Queue");
constexpr U32 kEntry = 16;

// What a serving consumer saw: the indices of the commands it ran.
struct Served {
  std::atomic<bool> stop{false};
  std::atomic<int> count{0};
  U64 indices[64];
};

// A consumer that takes the first command and dies holding it, before it ran.
int dyingConsumer(const std::string& ring) {
  CommandRingConsumer consumer(ring);
  RingCommand cmd;
  while (consumer.waitForCommand(std::chrono::milliseconds(100)) != RingWait::done_ ||
         !consumer.front(cmd)) {
  }
  raise(SIGKILL);
  return 1;
}

// A consumer that runs every command until told to stop; a command at a nonzero offset fails.
int servingConsumer(const std::string& ring, Served& served) {
  CommandRingConsumer consumer(ring);
  RingCommand cmd;
  while (!served.stop) {
    if (consumer.waitForCommand(std::chrono::milliseconds(10)) != RingWait::done_ ||
        !consumer.front(cmd))
      continue;
    served.indices[served.count++] = cmd.header.cmdIndex;
    consumer.commandExecuted(cmd.header.offset == 0);
  }
  return 0;
}

struct InFlightCase {
  const char* name;
  // Issues the command; returns what the requester returned.
  S64 (*issue)(QueueRequester& r, U8* memory);
  bool failsAtOnce;  // the call itself waits for the command, and fails
};

U8 gData[2 * kEntry] = {1, 2, 3};

const InFlightCase kCases[] = {
    {"write",
     [](QueueRequester& r, U8*) {
       return r.write(oneDeviceMask(DeviceId(0)), kTable, 0, gData, nullptr, kEntry, false);
     },
     false},
    {"blockingWrite",
     [](QueueRequester& r, U8*) {
       return r.blockingWrite(oneDeviceMask(DeviceId(0)), kTable, 0, gData, nullptr, kEntry, false);
     },
     true},
    {"read",
     [](QueueRequester& r, U8* memory) { return r.read(DeviceId(0), kTable, 0, memory, kEntry); },
     true},
    {"bulkRead",
     [](QueueRequester& r, U8* memory) {
       return r.bulkRead(DeviceId(0), kTable, 0, reinterpret_cast<PhysicalAddr>(memory), kEntry, 2);
     },
     true},
    {"bulkWrite",
     [](QueueRequester& r, U8*) {
       return r.bulkWrite(oneDeviceMask(DeviceId(0)), kTable, 0, 0, gData, kEntry, 2);
     },
     false},
    {"free",
     [](QueueRequester& r, U8*) {
       return r.initFreeFromSerializer(DeviceId(0), kTable, nullptr, kEntry);
     },
     false},
};

class QueueRingTest : public Test {
 protected:
  QueueRingTest() {
    commandRingPrefixIs("/zorvek-test-" + std::to_string(getpid()));
    requester = Kel::allocate<QueueRequester>(kQueue, AgentId(1), 8, DalId(3), processingStatus,
                                              watchList, IoMemType::queueMemory_, config, status,
                                              "s0-kick", "Kick-a1-s0-Requester");
    commandRingPrefixIs("");
    status->entityIs(Kel::String(SerializerStatus::kEntryName), serializerStatus);
  }
  // A consumer of `generation` opened the ring; the serializer says so as it does.
  void consumerStarted(U32 generation, bool restarted) {
    spinUntil([&] { return requester->ring()->generation() == generation; });
    if (restarted)
      serializerStatus->restartCountInc(1);
    else
      serializerStatus->servedQueueIs(kQueue);
  }

  Kel::Ptr<Kel::Dir> config = Kel::allocate<Kel::Dir>(Kel::Name("config"));
  Kel::Ptr<Kel::Dir> status = Kel::allocate<Kel::Dir>(Kel::Name("status"));
  Kel::Ptr<DalProcessingStatus> processingStatus = Kel::allocate<DalProcessingStatus>(DalId(3));
  Kel::Ptr<Orv::WatchList> watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
  Kel::Ptr<SerializerStatus> serializerStatus = Kel::allocate<SerializerStatus>(Kel::Name("s0"));
  Kel::Ptr<QueueRequester> requester;
};

class InFlightTest : public QueueRingTest, public WithParamInterface<InFlightCase> {};

TEST_P(InFlightTest, ACommandInFlightWhenTheSerializerDiesNeverRunsAndNoWaitHangs) {
  const InFlightCase& c = GetParam();
  const doubles::DalTrace trace("ZorvekQueueRequester");
  const std::string ring = requester->ring()->name();
  Child dying([&] { return dyingConsumer(ring); });
  consumerStarted(1, false);
  ASSERT_TRUE(requester->ready());

  std::vector<U8> memory(2 * kEntry, 0xAB);
  const S64 index = c.issue(*requester, memory.data());
  if (c.failsAtOnce) {
    EXPECT_EQ(index, -1);
  } else {
    ASSERT_EQ(index, 1);
    requester->waitForCmdIndex(1);
  }
  EXPECT_EQ(WTERMSIG(dying.exitStatus()), SIGKILL);
  EXPECT_EQ(requester->ring()->lastExecutedIndex(), 0u);
  EXPECT_THAT(memory, Each(0xAB));  // a read that never came back wrote nothing
  EXPECT_TRUE(trace.contains("cmdIndex 1 has not run: consumerDead"));

  // The next process discards the command: a wait for it ends, and it never runs.
  Shared<Served> served;
  Child serving([&] { return servingConsumer(ring, *served); });
  consumerStarted(2, true);
  requester->waitForCmdIndex(1);
  const S64 next =
      requester->write(oneDeviceMask(DeviceId(0)), kTable, 0, gData, nullptr, kEntry, false);
  requester->waitForCmdIndex(U64(next));
  served->stop = true;
  EXPECT_EQ(serving.exitStatus(), 0);
  EXPECT_THAT(std::vector<U64>(served->indices, served->indices + served->count),
              ElementsAre(U64(next)));
  EXPECT_EQ(requester->ring()->lastExecutedIndex(), U64(next));
}

INSTANTIATE_TEST_SUITE_P(Kinds, InFlightTest, ValuesIn(kCases),
                         [](const TestParamInfo<InFlightCase>& info) { return info.param.name; });

// With the serializer's process gone and the ring full, writes go on (dropped: the next
// process would discard them, the replay restores them) and a read fails; no wait hangs.
TEST_F(QueueRingTest, AFullRingWhoseSerializerIsGoneDropsWritesAndFailsReads) {
  const doubles::DalTrace trace("ZorvekQueueRequester");
  Child gone([&] {
    CommandRingConsumer consumer(requester->ring()->name());
    return 0;
  });
  consumerStarted(1, false);
  EXPECT_EQ(gone.exitStatus(), 0);
  const U32 commands = requester->ring()->capacity() / CommandRing::recordBytes(kEntry) + 1;
  S64 last = 0;
  for (U32 i = 0; i < commands; ++i) {
    last = requester->write(oneDeviceMask(DeviceId(0)), kTable, 0, gData, nullptr, kEntry, false);
    ASSERT_GT(last, 0) << "write " << i;
  }
  EXPECT_TRUE(
      trace.contains("write cmdIndex " + std::to_string(last) + " dropped: the ring is full"));
  U8 data[kEntry];
  EXPECT_EQ(requester->read(DeviceId(0), kTable, 0, data, kEntry), -1);
  EXPECT_TRUE(
      trace.contains("read cmdIndex " + std::to_string(last + 1) + " failed: the ring is full"));
  requester->waitForCmdIndex(U64(last));
  EXPECT_TRUE(trace.contains("cmdIndex " + std::to_string(last) + " has not run: dropped"));
}

// The serializer process publishes failures: a blocking write learns of its own.
TEST_F(QueueRingTest, ABlockingWriteFailsWhenItsCommandFailed) {
  Shared<Served> served;
  Child serving([&] { return servingConsumer(requester->ring()->name(), *served); });
  consumerStarted(1, false);
  const auto blockingWrite = [&](DeviceOffset offset) {
    return requester->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, offset, gData, nullptr,
                                    kEntry, false);
  };
  EXPECT_EQ(blockingWrite(16), -1);
  EXPECT_EQ(blockingWrite(0), 2);
  EXPECT_EQ(requester->ring()->lastFailedIndex(), 1u);
  EXPECT_EQ(requester->ring()->failedCmds(), 1u);
  served->stop = true;
}

}  // namespace
