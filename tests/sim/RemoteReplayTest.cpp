// The replay of a remote DAL's local shadow, end to end on the simulation: an agent writes
// entries of a serializer's tables through a RequesterDalRemote on a real QueueRequester,
// some under a data mask; the serializer restarts and loses them; the restart count that
// the requester follows makes the DAL replay its shadow, and the chip then holds exactly
// what the agent wrote, masks applied.
#include <gmock/gmock.h>

#include <map>
#include <vector>

#include "Zorvek/RequesterDalRemote.h"
#include "sim/SimDalHelper.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAreArray;

constexpr DeviceId kDev0{0};
constexpr AgentId kAgent = 7;
using Bytes = std::vector<U8>;

class RemoteReplayTest : public ::testing::Test, public SerializerBench {
 protected:
  void SetUp() override {
    startSerializer();
    serializer->ownedTableIs(kHashed);
    // The agent owns the first byte and some bits of two others of every route entry.
    Zorvek::RequesterDataMask routeMask(true);
    for (auto [index, byte] : {std::pair<U32, U8>{0, 0xFF}, {1, 0x0F}, {9, 0xF0}})
      routeMask.maskByteIs(index, byte);
    masks->dataMaskIs(kRoute0, routeMask);
    helper->deviceIs(kDev0, chip->geometry());
    dal = Zorvek::requesterDalRemoteFactory("a7-s1-Queue", queue, masks);
    dal->helperIs(helper);
    for (const PhysicalResourceId& table : {kRoute0, kHashed}) dal->remoteResourceIs(table, true);
    dal->initLocalCache(kDev0, true);
  }

  // Writes one whole memory entry through the DAL and records what the chip should hold
  // afterwards: the data, cut to the mask of its table when there is one.
  void write(const PhysicalResourceId& table, U32 index, U8 value) {
    const ResourceLayout& layout = *chip->geometry()->layout(table);
    const Bytes data(layout.memoryEntrySize, value);
    SimOptArg optArg;
    helper->setOptArg(kDev0, table, layout.entryOffset(index), &optArg);
    ASSERT_EQ(dal->dalWrite(Zorvek::oneDeviceMask(kDev0), layout.entryOffset(index),
                            U16(data.size()), data.data(), &optArg),
              0);
    const Zorvek::RequesterDataMask& mask = masks->dataMask(layout.baseId);
    Bytes& expected = written[{table.id(), index}] = data;
    for (U32 i = 0; mask.flag() && i < expected.size(); ++i) expected[i] &= mask.maskByte(i);
  }

  Kel::Ptr<Zorvek::QueueRequester> queue = requester(kAgent);
  Kel::Ptr<SimDalHelper> helper = Kel::allocate<SimDalHelper>();
  Kel::Ptr<Zorvek::ResourceIdToDataMaskMap> masks =
      Kel::allocate<Zorvek::ResourceIdToDataMaskMap>();
  Kel::Ptr<Zorvek::RequesterDalRemote> dal;
  std::map<std::pair<U64, U32>, Bytes> written;  // (table id, entry index) -> chip bytes
};

TEST_F(RemoteReplayTest, RestartCountChangeReplaysWhatTheAgentWrote) {
  // Another agent's bytes under the entries the agent writes with a mask.
  const Bytes other(16, 0xAA);
  for (const auto& [table, index] : {std::pair(kRoute0, 1u), std::pair(kRoute1, 3u)})
    ASSERT_EQ(chip->writeAt(chip->geometry()->layout(table)->entryOffset(index), other.data(),
                            nullptr, 16, kAgent + 1),
              0);
  write(kRoute0, 1, 0x5C);
  write(kRoute1, 3, 0x20);
  write(kRoute1, 3, 0x3E);  // the replay restores the latest data
  write(kHashed, 1, 0x44);  // no mask for this table
  serializer->serve();
  EXPECT_EQ(chip->entry(kRoute0, 1)[1], (0xAA & ~0x0F) | (0x5C & 0x0F));
  EXPECT_EQ(chip->entry(kRoute0, 1)[2], 0xAA);

  serializer->restart();
  EXPECT_EQ(queue->serializerRestartCount(), 1u);
  EXPECT_THAT(chip->entry(kRoute1, 3), Each(0));  // lost until the queued replay runs
  const U64 executed = serializer->counters("a7-s1-Queue").executed;
  serializer->serve();
  EXPECT_EQ(serializer->counters("a7-s1-Queue").executed, executed + 3);  // one write per entry
  EXPECT_EQ(serializer->rejectedCmds(), 0u);
  // Every entry of the agent's tables: what it wrote there, zeros elsewhere.
  for (const PhysicalResourceId& table : {kRoute0, kRoute1, kHashed}) {
    const ResourceLayout& layout = *chip->geometry()->layout(table);
    for (U32 index = 0; index < layout.entryCount; ++index) {
      const auto it = written.find({table.id(), index});
      const bool mine = it != written.end();
      EXPECT_THAT(chip->entry(table, index),
                  ElementsAreArray(mine ? it->second : Bytes(layout.memoryEntrySize)))
          << "table 0x" << std::hex << table.id() << " entry " << index;
      EXPECT_EQ(chip->owner(table, index), mine ? kAgent : Zorvek::kInvalidAgentId);
    }
  }
}

}  // namespace
}  // namespace sim
