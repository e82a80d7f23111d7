// SimSerializer end to end: real QueueRequesters and the serializer meet in a Skorra
// database through mounts of opposite modes; commands reach the simulated chip, commands for
// resources the serializer does not own are rejected, a restart wipes its tables and
// requesters follow the restart count, and a free clears an agent's entries.
#include "sim/SimSerializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "dal/DalDoubles.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAre;
using Zorvek::QueueRequester;
using Zorvek::S64;

constexpr DeviceId kDev0{0};
constexpr AgentId kAgent = 7, kOtherAgent = 8;

class SimSerializerTest : public ::testing::Test, public SerializerBench {
 protected:
  static S64 write(QueueRequester& r, const PhysicalResourceId& rid, DeviceOffset offset,
                   Entry data) {
    return r.write(Zorvek::oneDeviceMask(kDev0), rid, offset, data.data(), nullptr, 16, false);
  }
};

TEST_F(SimSerializerTest, ServesTheQueuesOfItsDirectoryUntilItGoes) {
  auto early = requester(kAgent);
  EXPECT_FALSE(early->ready());
  startSerializer();
  auto late = requester(kOtherAgent);
  EXPECT_TRUE(early->ready() && late->ready());
  EXPECT_THAT(serializer->status()->servedQueues(), ElementsAre("a7-s1-Queue", "a8-s1-Queue"));
  EXPECT_EQ(db->entity("s1/status/serializerStatus"), serializer->status());

  serializer = nullptr;
  EXPECT_FALSE(early->ready());
  EXPECT_EQ(Kel::TypeRegistry::type("sim::SimSerializer")->liveCount(), 0);
  EXPECT_EQ(Kel::TypeRegistry::type("Zorvek::QueueAttacher")->liveCount(), 0);
  EXPECT_EQ(db->entity("s1/status/serializerStatus"), nullptr);
}

TEST_F(SimSerializerTest, CommandsRunOnTheChipWhenTheirQueueDrains) {
  startSerializer();
  auto r = requester(kAgent);
  const S64 index = write(*r, kRoute1, kRoute1Base + 16, filled(0x3C));
  EXPECT_THAT(chip->entry(kRoute1, 1), Each(0));  // queued, not yet run
  r->waitForCmdIndex(static_cast<U64>(index));
  EXPECT_THAT(chip->entry(kRoute1, 1), Each(0x3C));
  EXPECT_EQ(chip->owner(kRoute1, 1), kAgent);

  Entry mask{0xF0}, back{};
  ASSERT_GT(r->blockingWrite(Zorvek::oneDeviceMask(kDev0), kRoute1, kRoute1Base + 16,
                             filled(0xA5).data(), mask.data(), 16, false),
            0);
  ASSERT_GT(r->read(kDev0, kRoute1, kRoute1Base + 16, back.data(), 16), 0);
  EXPECT_THAT(std::vector(back.begin(), back.begin() + 2), ElementsAre(0xAC, 0x3C));  // masked

  // Bulk commands move whole entries through the memory at their physical address.
  std::array<Entry, 2> out{filled(0x11), filled(0x22)};
  std::array<Entry, 3> in{};
  r->bulkWrite(Zorvek::oneDeviceMask(kDev0), kRoute0, 32, reinterpret_cast<PhysicalAddr>(&out),
               nullptr, 16, 2);
  r->waitForCmdIndex(
      U64(r->bulkRead(kDev0, kRoute0, 16, reinterpret_cast<PhysicalAddr>(&in), 16, 3)));
  EXPECT_THAT(in, ElementsAre(filled(0), filled(0x11), filled(0x22)));
  EXPECT_EQ(chip->owner(kRoute0, 3), kAgent);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, 5u);
}

TEST_F(SimSerializerTest, CommandForAResourceNotOwnedIsRejected) {
  startSerializer();
  auto r = requester(kAgent);
  const Zorvek::doubles::DalTrace trace("SimSerializer");
  const S64 index = write(*r, kHashed, kHashedBase, filled(0x99));
  r->waitForCmdIndex(static_cast<U64>(index));
  EXPECT_THAT(chip->entry(kHashed, 0), Each(0));
  EXPECT_EQ(chip->counters().writes, 0u);
  EXPECT_EQ(serializer->rejectedCmds(), 1u);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").rejected, 1u);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, 0u);
  EXPECT_EQ(r->queue()->lastFailedCmdIndex(), static_cast<U64>(index));
  EXPECT_TRUE(
      trace.contains("rejected write cmdIndex 1 of queue a7-s1-Queue: device 0 "
                     "resource type 1 id 0x20 is not owned"));
}

TEST_F(SimSerializerTest, RestartWipesTheOwnedTablesAndRequestersFollowTheCount) {
  startSerializer();
  auto r = requester(kAgent);
  write(*r, kRoute0, 0, filled(0x10));
  r->waitForCmdIndex(U64(write(*r, kRoute1, kRoute1Base, filled(0x11))));
  chip->writeAt(kHashedBase, filled(0x20).data(), nullptr, 8, kOtherAgent);  // not owned

  serializer->restart();
  EXPECT_THAT(chip->entry(kRoute0, 0), Each(0));
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0));
  EXPECT_EQ(chip->owner(kRoute1, 0), Zorvek::kInvalidAgentId);
  EXPECT_THAT(chip->entry(kHashed, 0), Each(0x20));
  EXPECT_EQ(r->serializerRestartCount(), 1u);
  serializer->restart();
  EXPECT_EQ(r->serializerRestartCount(), 2u);
  EXPECT_EQ(serializer->restartCount(), 2u);
}

// The mask of a free (empty: none) and the agent's entry afterwards.
using FreeCase = std::tuple<std::vector<U8>, Entry>;
class SimSerializerFreeTest : public SimSerializerTest,
                              public ::testing::WithParamInterface<FreeCase> {};

TEST_P(SimSerializerFreeTest, InitFreeFromSerializerFreesTheAgentsEntries) {
  const auto& [mask, expected] = GetParam();
  startSerializer();
  auto mine = requester(kAgent), other = requester(kOtherAgent);
  write(*mine, kRoute0, 0, filled(0xFF));
  write(*other, kRoute0, 16, filled(0xEE));
  write(*mine, kRoute1, kRoute1Base, filled(0xDD));
  EXPECT_EQ(serializer->serve(), 3u);  // every queue
  mine->waitForCmdIndex(
      U64(mine->initFreeFromSerializer(kDev0, kRoute0, mask.empty() ? nullptr : mask.data(), 16)));
  EXPECT_THAT(chip->entry(kRoute0, 0), ::testing::ElementsAreArray(expected));
  EXPECT_EQ(chip->owner(kRoute0, 0), Zorvek::kInvalidAgentId);
  EXPECT_THAT(chip->entry(kRoute0, 1), Each(0xEE));
  EXPECT_EQ(chip->owner(kRoute0, 1), kOtherAgent);
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0xDD));  // another instance: not named by the free
}

INSTANTIATE_TEST_SUITE_P(
    Masks, SimSerializerFreeTest,
    ::testing::Values(FreeCase{std::vector<U8>{}, filled(0)},
                      FreeCase{{0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF0},
                               {0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                0xFF, 0xFF, 0xFF, 0x0F}}));

}  // namespace
}  // namespace sim
