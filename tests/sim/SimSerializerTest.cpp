// SimSerializer end to end: real QueueRequesters and the serializer meet in a Skorra
// database through mounts of opposite modes; commands for resources the serializer does not
// own are rejected, and a free clears an agent's entries. (Serving queues, and restarts that
// wipe only the serializer's tables, run in the model and simulator tests.)
#include "sim/SimSerializer.h"

#include <gmock/gmock.h>

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

TEST_F(SimSerializerTest, CommandForAResourceNotOwnedIsRejected) {
  startSerializer();
  auto r = requester(kAgent);
  const Zorvek::doubles::DalTrace trace("SimSerializer");
  const S64 index = write(*r, kHashed, kHashedBase, filled(0x99));
  r->waitForCmdIndex(static_cast<U64>(index));
  EXPECT_THAT(chip->entry(kHashed, 0), Each(0));
  EXPECT_EQ(chip->counters().writes, 0u);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").rejected, 1u);
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, 0u);
  EXPECT_EQ(r->queue()->lastFailedCmdIndex(), U64(index));
  EXPECT_TRUE(
      trace.contains("rejected write cmdIndex 1 of queue a7-s1-Queue: device 0 "
                     "resource type 1 id 0x20 is not owned"));
}

// A free under a mask clears only the masked bits of the agent's own entries of one instance.
TEST_F(SimSerializerTest, InitFreeFromSerializerFreesTheAgentsEntries) {
  startSerializer();
  auto mine = requester(kAgent), other = requester(kOtherAgent);
  write(*mine, kRoute0, 0, filled(0xFF));
  write(*other, kRoute0, 16, filled(0xEE));
  write(*mine, kRoute1, kRoute1Base, filled(0xDD));
  EXPECT_EQ(serializer->serve(), 3u);  // every queue
  const Entry mask{0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF0};
  mine->waitForCmdIndex(U64(mine->initFreeFromSerializer(kDev0, kRoute0, mask.data(), 16)));
  EXPECT_THAT(chip->entry(kRoute0, 0), ElementsAre(0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                                   0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F));
  EXPECT_EQ(chip->owner(kRoute0, 0), Zorvek::kInvalidAgentId);
  EXPECT_EQ(chip->owner(kRoute0, 1), kOtherAgent);
  EXPECT_THAT(chip->entry(kRoute0, 1), Each(0xEE));
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0xDD));  // another instance: not named by the free
}

}  // namespace
}  // namespace sim
