// SimSerializer end to end: real QueueRequesters and the serializer meet in a Skorra
// database through mounts of opposite modes; commands reach the simulated chip, commands for
// resources the serializer does not own are rejected, a restart wipes its tables and
// requesters follow the restart count, and a free clears an agent's entries.
#include "sim/SimSerializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "Kel/Trace.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/RequesterDalRemote.h"
#include "sim/SimDalHelper.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Pair;
using Zorvek::QueueRequester;
using Zorvek::S64;

constexpr DeviceId kDev0{0};
constexpr AgentId kAgent = 7;
constexpr AgentId kOtherAgent = 8;
using Entry = std::array<U8, 16>;

Entry filled(U8 v) {
  Entry e;
  e.fill(v);
  return e;
}

class SimSerializerTest : public ::testing::Test {
 protected:
  SimSerializerTest() {
    requesterMounts->doMount(Skorra::Mount("s1/config", "Kel::Dir", "wi"));
    requesterMounts->doMount(Skorra::Mount("s1/status", "Kel::Dir", "ri"));
    serializerMounts->doMount(Skorra::Mount("s1/config", "Kel::Dir", "ri"));
    serializerMounts->doMount(Skorra::Mount("s1/status", "Kel::Dir", "wi"));
    requesterMounts->completeMounts();
    serializerMounts->completeMounts();
    chips->chipIs(chip);
  }

  Kel::Ptr<QueueRequester> makeRequester(AgentId agentId, unsigned queueSize = 8) {
    const Skorra::EntityManager* em = requesterMounts->entityManager();
    const std::string name = "a" + std::to_string(agentId) + "-s1-Queue";
    return Kel::allocate<QueueRequester>(
        name, agentId, queueSize, Zorvek::DalId(1),
        Kel::allocate<Zorvek::DalProcessingStatus>(Zorvek::DalId(1)), nullptr,
        Zorvek::IoMemType::queueMemory_, Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s1/config")),
        Kel::dynamicPtrCast<const Kel::Dir>(em->getEntity("s1/status")), "s1-kick", "Kick-" + name);
  }
  Kel::Ptr<SimSerializer> startSerializer() {
    const Skorra::EntityManager* em = serializerMounts->entityManager();
    auto s = Kel::allocate<SimSerializer>(
        Zorvek::SerializerId(1), AgentId(20), Kel::Name("s1"), chips,
        Kel::dynamicPtrCast<const Kel::Dir>(em->getEntity("s1/config")),
        Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s1/status")));
    s->ownedTableIs(kRoute0);  // both instances
    return s;
  }
  static S64 write(QueueRequester& r, const PhysicalResourceId& rid, DeviceOffset offset,
                   Entry data, const void* mask = nullptr) {
    return r.write(Zorvek::oneDeviceMask(kDev0), rid, offset, data.data(), mask, 16, false);
  }

  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> requesterMounts = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Skorra::MountGroup> serializerMounts = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<SimChip> chip = Kel::allocate<SimChip>(kDev0, testGeometry());
  Kel::Ptr<SimChipSet> chips = Kel::allocate<SimChipSet>();
};

TEST_F(SimSerializerTest, RequesterIsReadyWhileItsQueueIsServed) {
  auto early = makeRequester(kAgent);
  EXPECT_FALSE(early->ready());
  auto serializer = startSerializer();
  EXPECT_TRUE(early->ready());
  auto late = makeRequester(kOtherAgent);
  EXPECT_TRUE(late->ready());
  EXPECT_THAT(serializer->status()->servedQueues(), ElementsAre("a7-s1-Queue", "a8-s1-Queue"));
  EXPECT_EQ(db->entity("s1/status/serializerStatus"), serializer->status());

  serializer = nullptr;
  EXPECT_FALSE(early->ready());
  EXPECT_EQ(Kel::TypeRegistry::type("sim::SimSerializer")->liveCount(), 0);
  EXPECT_EQ(Kel::TypeRegistry::type("Zorvek::QueueAttacher")->liveCount(), 0);
  EXPECT_EQ(db->entity("s1/status/serializerStatus"), nullptr);
}

TEST_F(SimSerializerTest, CommandsRunOnTheChipOnceWaitedFor) {
  auto serializer = startSerializer();
  auto requester = makeRequester(kAgent);
  const S64 index = write(*requester, kRoute1, kRoute1Base + 16, filled(0x3C));
  ASSERT_GT(index, 0);
  EXPECT_THAT(chip->entry(kRoute1, 1), Each(0));  // queued, not yet run
  requester->waitForCmdIndex(static_cast<U64>(index));
  EXPECT_THAT(chip->entry(kRoute1, 1), Each(0x3C));
  EXPECT_EQ(chip->owner(kRoute1, 1), kAgent);

  Entry mask{};
  mask[0] = 0xF0;
  ASSERT_GT(requester->blockingWrite(Zorvek::oneDeviceMask(kDev0), kRoute1, kRoute1Base + 16,
                                     filled(0xA5).data(), mask.data(), 16, false),
            0);
  EXPECT_EQ(chip->entry(kRoute1, 1)[0], 0xAC);  // ran at once, through the mask
  EXPECT_EQ(chip->entry(kRoute1, 1)[1], 0x3C);

  Entry back{};
  ASSERT_GT(requester->read(kDev0, kRoute1, kRoute1Base + 16, back.data(), 16), 0);
  EXPECT_EQ(back[0], 0xAC);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, 3u);
}

TEST_F(SimSerializerTest, BulkCommandsMoveEntriesThroughTheirPhysicalAddress) {
  auto serializer = startSerializer();
  auto requester = makeRequester(kAgent);
  std::array<Entry, 2> out{filled(0x11), filled(0x22)};
  requester->bulkWrite(Zorvek::oneDeviceMask(kDev0), kRoute0, 32,
                       reinterpret_cast<PhysicalAddr>(out.data()), nullptr, 16, 2);
  std::array<Entry, 3> in{};
  const S64 index =
      requester->bulkRead(kDev0, kRoute0, 16, reinterpret_cast<PhysicalAddr>(in.data()), 16, 3);
  requester->waitForCmdIndex(static_cast<U64>(index));
  EXPECT_THAT(in, ElementsAre(filled(0), filled(0x11), filled(0x22)));
  EXPECT_EQ(chip->owner(kRoute0, 3), kAgent);
}

TEST_F(SimSerializerTest, FullQueueDrainsInsteadOfDropping) {
  auto serializer = startSerializer();
  auto requester = makeRequester(kAgent, 2);
  S64 last = 0;
  for (U8 e = 0; e < 4; ++e) {
    last = write(*requester, kRoute0, 16u * e, filled(static_cast<U8>(0x40 + e)));
    ASSERT_GT(last, 0);
  }
  last = write(*requester, kRoute1, kRoute1Base, filled(0x44));
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, 4u);  // drained twice to make room
  requester->waitForCmdIndex(static_cast<U64>(last));
  for (U32 e = 0; e < 4; ++e) EXPECT_THAT(chip->entry(kRoute0, e), Each(0x40 + e));
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0x44));
  EXPECT_EQ(requester->queue()->failedCmds(), 0u);
}

TEST_F(SimSerializerTest, ServeRunsWhatWaitsInEveryQueue) {
  auto serializer = startSerializer();
  auto a = makeRequester(kAgent);
  auto b = makeRequester(kOtherAgent);
  write(*a, kRoute0, 0, filled(1));
  write(*b, kRoute0, 16, filled(2));
  write(*b, kRoute0, 32, filled(3));
  EXPECT_EQ(serializer->serve(), 3u);
  EXPECT_EQ(chip->owner(kRoute0, 2), kOtherAgent);
  EXPECT_EQ(serializer->serve(), 0u);
}

TEST_F(SimSerializerTest, CommandForAResourceNotOwnedIsRejected) {
  auto serializer = startSerializer();
  auto requester = makeRequester(kAgent);
  Kel::TraceHandle* handle = Kel::traceHandle("SimSerializer");
  ASSERT_NE(handle, nullptr);
  const std::uint32_t levels = handle->levels();
  handle->levelsIs(1u << 3);
  Kel::TraceCapture capture;
  const S64 index = write(*requester, kHashed, kHashedBase, filled(0x99));
  requester->waitForCmdIndex(static_cast<U64>(index));
  handle->levelsIs(levels);

  EXPECT_THAT(chip->entry(kHashed, 0), Each(0));
  EXPECT_EQ(chip->counters().writes, 0u);
  EXPECT_EQ(serializer->rejectedCmds(), 1u);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").rejected, 1u);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, 0u);
  EXPECT_EQ(requester->queue()->lastFailedCmdIndex(), static_cast<U64>(index));
  EXPECT_TRUE(
      capture.contains("rejected write cmdIndex 1 of queue a7-s1-Queue: device 0 "
                       "resource type 1 id 0x20 is not owned"));
}

TEST_F(SimSerializerTest, RestartWipesTheOwnedTablesAndRequestersFollowTheCount) {
  auto serializer = startSerializer();
  auto requester = makeRequester(kAgent);
  write(*requester, kRoute0, 0, filled(0x10));
  const S64 index = write(*requester, kRoute1, kRoute1Base, filled(0x11));
  requester->waitForCmdIndex(static_cast<U64>(index));
  chip->writeAt(kHashedBase, filled(0x20).data(), nullptr, 8, kOtherAgent);  // not owned

  serializer->restart();
  EXPECT_THAT(chip->entry(kRoute0, 0), Each(0));
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0));
  EXPECT_EQ(chip->owner(kRoute1, 0), Zorvek::kInvalidAgentId);
  EXPECT_THAT(chip->entry(kHashed, 0), Each(0x20));
  EXPECT_EQ(requester->serializerRestartCount(), 1u);
  serializer->restart();
  EXPECT_EQ(requester->serializerRestartCount(), 2u);
  EXPECT_EQ(serializer->restartCount(), 2u);
}

TEST_F(SimSerializerTest, RemoteDalReplayRestoresTheChipAfterARestart) {
  auto serializer = startSerializer();
  auto requester = makeRequester(kAgent);
  auto helper = Kel::allocate<SimDalHelper>();
  helper->deviceIs(kDev0, chip->geometry());
  auto dal = Zorvek::requesterDalRemoteFactory("a7-s1-Queue", requester, nullptr);
  dal->helperIs(helper);
  dal->remoteResourceIs(kRoute0, true);
  dal->initLocalCache(kDev0, true);
  SimOptArg optArg;
  helper->setOptArg(kDev0, kRoute1, kRoute1Base + 16, &optArg);
  const Entry data = filled(0x6B);
  ASSERT_EQ(dal->dalWrite(Zorvek::oneDeviceMask(kDev0), kRoute1Base + 16, 16, data.data(), &optArg),
            0);
  serializer->serve();
  ASSERT_THAT(chip->entry(kRoute1, 1), Each(0x6B));

  serializer->restart();  // wipes the entry; the DAL's replay queues it again
  EXPECT_THAT(chip->entry(kRoute1, 1), Each(0));
  serializer->serve();
  EXPECT_THAT(chip->entry(kRoute1, 1), Each(0x6B));
  EXPECT_EQ(chip->owner(kRoute1, 1), kAgent);
}

struct FreeCase {
  const char* what;
  std::vector<U8> mask;  // empty: no mask
  Entry expected;        // the agent's entry afterwards
};
void PrintTo(const FreeCase& c, std::ostream* os) { *os << c.what; }

class SimSerializerFreeTest : public SimSerializerTest,
                              public ::testing::WithParamInterface<FreeCase> {};

TEST_P(SimSerializerFreeTest, InitFreeFromSerializerFreesTheAgentsEntries) {
  const FreeCase& c = GetParam();
  auto serializer = startSerializer();
  auto mine = makeRequester(kAgent);
  auto other = makeRequester(kOtherAgent);
  write(*mine, kRoute0, 0, filled(0xFF));
  write(*other, kRoute0, 16, filled(0xEE));
  write(*mine, kRoute1, kRoute1Base, filled(0xDD));
  const S64 index =
      mine->initFreeFromSerializer(kDev0, kRoute0, c.mask.empty() ? nullptr : c.mask.data(), 16);
  serializer->serve();
  mine->waitForCmdIndex(static_cast<U64>(index));
  EXPECT_THAT(chip->entry(kRoute0, 0), ::testing::ElementsAreArray(c.expected));
  EXPECT_EQ(chip->owner(kRoute0, 0), Zorvek::kInvalidAgentId);
  EXPECT_THAT(chip->entry(kRoute0, 1), Each(0xEE));
  EXPECT_EQ(chip->owner(kRoute0, 1), kOtherAgent);
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0xDD));  // another instance: not named by the free
}

Entry maskedFree() {
  Entry e = filled(0xFF);
  e[0] = 0x00;
  e[15] = 0x0F;
  return e;
}

INSTANTIATE_TEST_SUITE_P(Masks, SimSerializerFreeTest,
                         ::testing::Values(FreeCase{"WholeEntries", {}, filled(0)},
                                           FreeCase{"MaskedBytes",
                                                    {0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                     0xF0},
                                                    maskedFree()}),
                         [](const auto& info) { return std::string(info.param.what); });

}  // namespace
}  // namespace sim
