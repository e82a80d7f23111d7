// SimDalHelper: the DalHelper contract over the geometry (ids, replicated instances, sizes),
// the device shadow, the optArg layout and its checks, and the physical address of a bulk
// access (the bulk transfer itself runs in the randomized model test).
#include "sim/SimDalHelper.h"

#include <gmock/gmock.h>

#include <array>
#include <cstring>

#include "dal/DalDoubles.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr DeviceId kDev0{0}, kDev5{5}, kDev9{9};
constexpr PhysicalResourceId kUnknown{ResourceType::tableResource_, 0x77};

class SimDalHelperTest : public ::testing::Test {
 protected:
  SimDalHelperTest() {
    // Added first, yet device 0 is the default; device 5 has one hash table 0x10 of 2 x 4 bytes.
    helper->deviceIs(
        kDev5, Kel::allocate<Geometry>(Kel::Name("small"),
                                       std::vector<TableDef>{{"t", 0x10, 4, 4, 2, 1, false, true}},
                                       std::vector<RegisterDef>{}));
    helper->deviceIs(kDev0, testGeometry());
  }
  SimOptArg optArg(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset) const {
    SimOptArg a;
    helper->setOptArg(devId, rid, offset, &a);
    return a;
  }
  Kel::Ptr<SimDalHelper> helper = Kel::allocate<SimDalHelper>();
};

TEST_F(SimDalHelperTest, AnswersFromTheGeometryOfTheDevice) {
  // Instances normalise to the base and walk to the next: (id, normalised, next instance)
  for (const auto& [rid, normalized, next] : {std::tuple(kRoute0, kRoute0, kRoute1),
                                              {kRoute1, kRoute0, PhysicalResourceId()},
                                              {kCtrl, kCtrl, PhysicalResourceId()}}) {
    EXPECT_EQ(helper->normalizedResourceId(rid), normalized);
    EXPECT_EQ(helper->nextPridInstance(kDev0, rid), next);
  }
  EXPECT_EQ(helper->resourceId(kRoute1Base + 20, nullptr), kRoute1);
  EXPECT_EQ(helper->resourceType(kCtrlBase, nullptr), ResourceType::registerResource_);
  EXPECT_EQ(helper->resourceType(kSpaceBytes, nullptr), ResourceType::none_);
  EXPECT_TRUE(helper->resourceExists(kDev0, kStat));
  EXPECT_FALSE(helper->resourceExists(kDev5, kStat));
  EXPECT_FALSE(helper->resourceExists(kDev9, kRoute0));
  // The optArg names the device whose geometry answers.
  SimOptArg onDev5 = optArg(kDev5, kRoute0, 4);
  EXPECT_EQ(helper->resourceId(4, &onDev5), kRoute0);
  EXPECT_EQ(helper->resourceType(kCtrlBase, &onDev5), ResourceType::none_);
  // Entry size, memory-entry size and count differ in the geometry, and per device.
  EXPECT_EQ(helper->entrySizeBytes(kDev0, kRoute1), 8u);
  EXPECT_EQ(helper->memoryEntrySizeBytes(kDev0, kRoute1), 16u);
  EXPECT_EQ(helper->numEntriesPerMemoryEntry(kDev0, kRoute1), 2u);
  EXPECT_EQ(helper->numMemoryEntries(kDev0, Zorvek::PhysicalTableId(0x20)), 3u);
  EXPECT_EQ(helper->memoryEntrySizeBytes(kDev5, kRoute0), 4u);
  EXPECT_TRUE(helper->cacheable(kDev0, kRoute0));
  EXPECT_FALSE(helper->cacheable(kDev0, kHashed));
  EXPECT_TRUE(helper->isHashTable(kDev0, kHashed));
  EXPECT_FALSE(helper->isHashTable(kDev0, kRoute0));
  EXPECT_TRUE(helper->isHashTable(kDev5, kRoute0));
  EXPECT_THAT([&] { helper->cacheable(kDev0, kUnknown); },
              ::testing::ThrowsMessage<GeometryError>(
                  ::testing::StrEq("SimDalHelper: device 0 has no resource 0x77 of type 1")));
}

TEST_F(SimDalHelperTest, ShadowServesOnlyAccessesInsideOneResourceOfItsDevice) {
  using Access = std::tuple<DeviceId, DeviceOffset, U16, S32>;  // (device, offset, size, result)
  const Access accesses[] = {
      {kDev0, kRoute1Base, 16, 0}, {kDev0, kStatBase, 8, 0}, {kDev5, 4, 4, 0}, {kDev0, 56, 16, -1},
      {kDev0, kSpaceBytes, 1, -1}, {kDev5, 8, 4, -1},        {kDev9, 0, 4, -1}};
  for (const auto& [devId, offset, size, result] : accesses) {
    std::array<U8, 16> data, back{};
    data.fill(U8(offset + 1));
    EXPECT_EQ(helper->shadowWrite(devId, offset, size, data.data(), nullptr), result);
    EXPECT_EQ(helper->shadowRead(devId, offset, size, back.data(), nullptr), result);
    EXPECT_EQ(std::memcmp(back.data(), data.data(), size) == 0, result == 0) << offset;
  }
  std::array<U8, 4> dev0{9, 9, 9, 9};  // device 5 wrote at 4, device 0 did not
  ASSERT_EQ(helper->shadowRead(kDev0, 4, 4, dev0.data(), nullptr), 0);
  EXPECT_THAT(dev0, Each(0));
}

TEST_F(SimDalHelperTest, OptArgRoundTripsByteByByte) {
  std::vector<U8> raw(40, 0xEE);
  ASSERT_EQ(helper->optArgSizeBytes(), 32u);
  helper->setOptArg(kDev0, kRoute1, kRoute1Base + 2 * 16 + 3, raw.data() + 1);
  // Magic "SIMA", type 1, id 0x11, entry 2, device 0, no bulk buffer; nothing beyond 32 bytes.
  EXPECT_THAT(std::vector<U8>(raw.begin(), raw.begin() + 34),
              ElementsAre(0xEE, 'S', 'I', 'M', 'A', 1, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0,
                          0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xEE));
  helper->verifyOptArgMapping(kDev0, kRoute1, kRoute1Base + 2 * 16, raw.data() + 1);
  helper->verifyOptArgMapping(kDev0, kRoute1, kRoute1Base, nullptr);
}

TEST_F(SimDalHelperTest, PhysicalAddrIsTheNamedBulkBufferElseTheDmaBuffer) {
  std::array<U8, 64> entries{};
  SimOptArg a = optArg(kDev0, kRoute0, 0);
  EXPECT_EQ(helper->physicalAddr(kDev0, &a), PhysicalAddr(helper->dmaBuffer(kDev0)));
  EXPECT_EQ(helper->physicalAddr(kDev5, nullptr), PhysicalAddr(helper->dmaBuffer(kDev5)));
  EXPECT_NE(helper->dmaBuffer(kDev0), helper->dmaBuffer(kDev5));
  SimDalHelper::bulkBufferIs(&a, entries.data());
  EXPECT_EQ(helper->physicalAddr(kDev0, &a), PhysicalAddr(entries.data()));
  EXPECT_THROW(helper->physicalAddr(kDev9, nullptr), GeometryError);

  const HashTableEntry e1{kDev0, kHashed, 2, 0xABCD}, e2{kDev5, kRoute0, 1, 0x42};
  for (const HashTableEntry* e : {&e1, &e2}) helper->addHashTableEntry(e);
  EXPECT_THAT(helper->hashTableEntries(), ElementsAre(e1, e2));
}

using SimDalHelperDeathTest = SimDalHelperTest;

TEST_F(SimDalHelperDeathTest, AbortsWithTheBrokenRule) {
  using Zorvek::doubles::assertion;
  SimOptArg a = optArg(kDev0, kRoute1, kRoute1Base + 16);
  // Checks of an optArg filled for route #1 entry 1: (device, id, offset, assertion text)
  for (const auto& [devId, rid, offset, text] :
       {std::tuple(kDev5, kRoute0, DeviceOffset(4), "optArg->devId == devId"),
        {kDev0, kRoute0, 16, "optArg names rid"},
        {kDev0, kRoute1, 16, "rid is the resource at offset"},
        {kDev0, kRoute1, kRoute1Base + 32, "optArg->entryIndex is the entry at offset"}})
    EXPECT_DEATH(helper->verifyOptArgMapping(devId, rid, offset, &a), assertion(text));
  EXPECT_DEATH(helper->setOptArg(kDev5, kStat, 0, &a), assertion("resourceExists( devId, rid )"));
  EXPECT_DEATH(helper->setOptArg(kDev0, kRoute1, 0, &a), assertion("offset lies in rid"));
  const HashTableEntry direct{kDev0, kRoute0, 0, 1};
  EXPECT_DEATH(helper->addHashTableEntry(&direct),
               assertion("isHashTable( entry.devId, entry.table )"));
  a.magic = 0;
  EXPECT_DEATH(helper->verifyOptArgMapping(kDev0, kRoute1, kRoute1Base + 16, &a),
               assertion("optArg->magic == kSimOptArgMagic"));
}

}  // namespace
}  // namespace sim
