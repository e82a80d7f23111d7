// Identifier types: the resource-id hash, ordering, stream texts, the device range and
// target masks.
#include "ZorvekTypes/Types.h"

#include <gmock/gmock.h>

#include <sstream>
#include <tuple>
#include <vector>

namespace Zorvek {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

// What a failed assertion prints, up to the source location.
auto assertionText(const std::string& text) {
  return ::testing::HasSubstr("Assertion failed: " + text + ", file");
}

TEST(ResourceIdTest, HashIsOneAtATimeOverTypeThenId) {
  // Computed outside this code base by a python3 one-off: Jenkins one-at-a-time over
  // struct.pack('<IQ', type, id) (the 12 bytes, little-endian), h starting at 0, modulo 2^32.
  for (auto [type, id, hash] : std::vector<std::tuple<U32, U64, U32>>{
           {1, 0x0ull, 3466383768u},
           {1, 0x1ull, 4045746793u},
           {1, 0x100000000ull, 1374127738u},  // differs from {1, 0} in the high word only
           {1, 0xffffffffffffffffull, 1883615989u},
           {2, 0xdeadbeefcafef00dull, 1015427829u},
           {7, 0x2aull, 2848594564u}}) {
    // Hashed collections use std::hash: it must be the same value.
    EXPECT_EQ(std::hash<PhysicalResourceId>()({static_cast<ResourceType>(type), id}), hash)
        << type << " " << id;
    EXPECT_EQ(LogicalResourceId(static_cast<ResourceType>(type), id).hash(), hash);
    // Fixed-type ids start from the state after their type bytes: same value as the generic.
    EXPECT_EQ(std::hash<PhysicalTableId>()(PhysicalTableId(id)),
              PhysicalResourceId(ResourceType::tableResource_, id).hash());
    EXPECT_EQ(PhysicalRegisterId(id).hash(),
              PhysicalResourceId(ResourceType::registerResource_, id).hash());
  }
}

TEST(ResourceIdTest, OrdersByTypeFirstThenIdAndStreamsItsText) {
  const PhysicalResourceId table8(ResourceType::tableResource_, 8), table9(table8.type(), 9),
      register1(ResourceType::registerResource_, 1), register9(register1.type(), 9);
  EXPECT_LT(table9, register1);
  EXPECT_LT(table8, table9);
  EXPECT_NE(table9, register9);
  EXPECT_TRUE(PhysicalResourceId().isNull());
  // Each text after "|"; a resource id leaves the stream in decimal.
  std::ostringstream os;
  os << PhysicalResourceId(ResourceType::tableResource_, 0xab12) << "|"
     << PhysicalResourceId(ResourceType::registerResource_, 255) << 10 << "|"
     << LogicalResourceId(ResourceType::tableResource_, 0x1f) << "|" << static_cast<ResourceType>(9)
     << "|" << bulkReadCmd() << "|"
     << CacheTableIndex(DeviceId(1), PhysicalResourceId(ResourceType::tableResource_, 2));
  EXPECT_EQ(os.str(),
            " resource id 0xab12| resource id 0xff10|tableResource 0x1f|resourceType(9)|bulkRead|"
            "(device 1, resource id 0x2)");
  EXPECT_EQ(U32(bulkReadCmd()), 3u);
}

TEST(TargetMaskTest, NullDeviceIsTheLastAcceptedValueAndMasksCountTargets) {
  EXPECT_TRUE(DeviceId(128).isNull());
  EXPECT_FALSE(DeviceId(127).isNull());
  for (unsigned v : {129u, 255u, 256u})
    EXPECT_THAT([v] { (void)DeviceId(v); },
                ThrowsMessage<Corvane::FapIdRangeError>(
                    StrEq("FapId::value < FapId::min or > FapId::null not allowed")));
  TargetMask m;
  EXPECT_TRUE(m.firstDevice().isNull());
  m.targetIdIs(TargetId(125), true);  // an alias: only into an empty mask, only out of one
  m.targetIdIs(TargetId(125), false);
  EXPECT_EQ(m.targets(), 0u);
  for (U8 t : {96, 31, 32, 0, 124, 31}) m.targetIdIs(TargetId(t), true);
  EXPECT_EQ(m.targets(), 5u);
  EXPECT_EQ(m.firstDevice(), DeviceId(0));
  for (U8 t : {0, 31}) m.targetIdIs(TargetId(t), false);
  EXPECT_EQ(m.firstDevice(), DeviceId(32));
  EXPECT_EQ(m.fapmask().nextFapId(DeviceId(96)), DeviceId(124));
  EXPECT_EQ(oneDeviceMask(DeviceId(126)).firstDevice(), DeviceId(126));
}

TEST(TargetMaskDeathTest, TargetAboveTheLastDeviceOrMisplacedAliasAborts) {
  const auto range = assertionText("target < TargetId::max()");
  EXPECT_DEATH(TargetMask().targetIdIs(TargetId(TargetId::max()), true), range);
  EXPECT_DEATH(oneDeviceMask(DeviceId(128)), range);
  // An alias may be set only in an empty mask and cleared only from a mask of one target.
  const auto alias =
      assertionText("!target.alias() || (val && (targets() == 0)) || (!val && (targets() == 1))");
  TargetMask two = oneDeviceMask(DeviceId(1));
  two.targetIdIs(TargetId(2), true);
  EXPECT_DEATH(oneDeviceMask(DeviceId(3)).targetIdIs(TargetId(125), true), alias);
  EXPECT_DEATH(two.targetIdIs(TargetId(126), false), alias);
  EXPECT_DEATH(TargetMask().targetIdIs(TargetId(126), false), alias);
}

}  // namespace
}  // namespace Zorvek
