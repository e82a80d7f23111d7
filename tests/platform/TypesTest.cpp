// Identifier types: the resource-id hash, ordering, stream texts, the device range and
// target masks.
#include "Zorvek/Types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

namespace Zorvek {
namespace {

using ::testing::HasSubstr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

auto assertionText(const std::string& text) {
  return HasSubstr("Assertion failed: " + text + ", file");
}

template <class T>
std::string text(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

struct HashCase {
  U32 type;
  U64 id;
  U32 hash;
};

// Computed outside this code base by a python3 one-off: Jenkins one-at-a-time over
// struct.pack('<IQ', type, id) (the 12 bytes, little-endian), h starting at 0, modulo 2^32.
constexpr HashCase kHashCases[] = {
    {0, 0x0ull, 0u},
    {1, 0x0ull, 3466383768u},
    {2, 0x0ull, 2040173435u},
    {1, 0x1ull, 4045746793u},
    {2, 0x1234ull, 420405715u},
    {1, 0x100000000ull, 1374127738u},
    {1, 0xffffffffffffffffull, 1883615989u},
    {2, 0xdeadbeefcafef00dull, 1015427829u},
    {7, 0x2aull, 2848594564u},
};

class ResourceIdHashTest : public ::testing::TestWithParam<HashCase> {};

TEST_P(ResourceIdHashTest, IsOneAtATimeOverTypeThenId) {
  const HashCase& c = GetParam();
  const PhysicalResourceId physical(static_cast<ResourceType>(c.type), c.id);
  EXPECT_EQ(physical.hash(), c.hash);
  EXPECT_EQ(std::hash<PhysicalResourceId>()(physical), c.hash);
  EXPECT_EQ(LogicalResourceId(static_cast<ResourceType>(c.type), c.id).hash(), c.hash);
}

INSTANTIATE_TEST_SUITE_P(Known, ResourceIdHashTest, ::testing::ValuesIn(kHashCases));

TEST(ResourceIdTest, FixedTypeIdsHashLikeTheFullId) {
  for (U64 id : {0ull, 1ull, 0x1234ull, 0x100000000ull, 0xdeadbeefcafef00dull, ~0ull}) {
    EXPECT_EQ(PhysicalTableId(id).hash(),
              PhysicalResourceId(ResourceType::tableResource_, id).hash());
    EXPECT_EQ(std::hash<PhysicalRegisterId>()(PhysicalRegisterId(id)),
              PhysicalResourceId(ResourceType::registerResource_, id).hash());
  }
}

TEST(ResourceIdTest, EveryHighWordBitChangesTheHash) {
  std::unordered_set<U32> hashes;
  for (int bit = 32; bit < 64; ++bit)
    hashes.insert(PhysicalResourceId(ResourceType::tableResource_, 5 | (1ull << bit)).hash());
  hashes.insert(PhysicalResourceId(ResourceType::tableResource_, 5).hash());
  EXPECT_EQ(hashes.size(), 33u);
}

TEST(ResourceIdTest, OrdersByTypeFirstThenId) {
  const PhysicalResourceId table9(ResourceType::tableResource_, 9);
  const PhysicalResourceId register1(ResourceType::registerResource_, 1);
  EXPECT_TRUE(table9 < register1);
  EXPECT_FALSE(register1 < table9);
  EXPECT_TRUE(PhysicalResourceId(ResourceType::tableResource_, 8) < table9);
  EXPECT_FALSE(table9 < table9);
  EXPECT_NE(table9, PhysicalResourceId(ResourceType::registerResource_, 9));
  EXPECT_TRUE(PhysicalTableId(3) < PhysicalTableId(4));
  EXPECT_TRUE(PhysicalResourceId().isNull());
}

TEST(ResourceIdTest, StreamTexts) {
  EXPECT_EQ(text(PhysicalResourceId(ResourceType::tableResource_, 0xab12)), " resource id 0xab12");
  std::ostringstream os;
  os << PhysicalResourceId(ResourceType::registerResource_, 255) << 10;
  EXPECT_EQ(os.str(), " resource id 0xff10");  // decimal again afterwards
  EXPECT_EQ(text(LogicalResourceId(ResourceType::tableResource_, 0x1f)), "tableResource 0x1f");
  EXPECT_EQ(text(static_cast<ResourceType>(9)), "resourceType(9)");
  EXPECT_EQ(text(bulkReadCmd()), "bulkRead");
  EXPECT_EQ(static_cast<U32>(bulkWriteCmd()), 2u);
  EXPECT_EQ(static_cast<U32>(bulkReadCmd()), 3u);
  EXPECT_EQ(text(DeviceId(7)), "7");
  EXPECT_EQ(text(CacheTableIndex(DeviceId(1), PhysicalResourceId(ResourceType::tableResource_, 2))),
            "(device 1, resource id 0x2)");
}

TEST(DeviceIdTest, NullDeviceIsTheLastAcceptedValue) {
  EXPECT_TRUE(DeviceId(128).isNull());
  EXPECT_FALSE(DeviceId(127).isNull());
  for (unsigned v : {129u, 255u, 256u})
    EXPECT_THAT([v] { (void)DeviceId(v); },
                ThrowsMessage<Corvane::FapIdRangeError>(
                    StrEq("FapId::value < FapId::min or > FapId::null not allowed")));
}

TEST(TargetMaskTest, CountsTargetsAndFindsTheFirstDevice) {
  TargetMask m;
  EXPECT_EQ(m.targets(), 0u);
  EXPECT_TRUE(m.firstDevice().isNull());
  for (U8 t : {96, 31, 32, 0, 124, 31}) m.targetIdIs(TargetId(t), true);
  EXPECT_EQ(m.targets(), 5u);
  EXPECT_EQ(m.firstDevice(), DeviceId(0));
  m.targetIdIs(TargetId(0), false);
  m.targetIdIs(TargetId(31), false);
  EXPECT_EQ(m.firstDevice(), DeviceId(32));
  EXPECT_EQ(m.fapmask().nextFapId(DeviceId(96)), DeviceId(124));
  EXPECT_EQ(oneDeviceMask(DeviceId(126)).firstDevice(), DeviceId(126));
}

TEST(TargetMaskTest, AliasIsSetInAnEmptyMaskAndClearedFromOneTarget) {
  TargetMask m;
  m.targetIdIs(TargetId(125), true);
  EXPECT_EQ(m.targets(), 1u);
  m.targetIdIs(TargetId(125), false);
  EXPECT_EQ(m.targets(), 0u);
}

TEST(TargetMaskDeathTest, TargetAboveTheLastDeviceAborts) {
  TargetMask m;
  EXPECT_DEATH(m.targetIdIs(TargetId(TargetId::max()), true),
               assertionText("target < TargetId::max()"));
  EXPECT_DEATH(oneDeviceMask(DeviceId(128)), assertionText("target < TargetId::max()"));
}

TEST(TargetMaskDeathTest, AliasInAMaskOfOtherTargetsAborts) {
  const auto text =
      assertionText("!target.alias() || (val && (targets() == 0)) || (!val && (targets() == 1))");
  TargetMask empty;
  TargetMask two;
  two.targetIdIs(TargetId(1), true);
  two.targetIdIs(TargetId(2), true);
  EXPECT_DEATH(oneDeviceMask(DeviceId(3)).targetIdIs(TargetId(125), true), text);
  EXPECT_DEATH(two.targetIdIs(TargetId(126), false), text);
  EXPECT_DEATH(empty.targetIdIs(TargetId(126), false), text);
}

}  // namespace
}  // namespace Zorvek
