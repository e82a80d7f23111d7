// Geometry: the layout of tables, replicated instances and registers in one offset space,
// the lookups in both directions, and the errors of a bad description or a bad offset.
#include "sim/Geometry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

// (offset, resource, entry, byte)
using Lookup = std::tuple<DeviceOffset, PhysicalResourceId, U32, U32>;
class GeometryLookupTest : public ::testing::TestWithParam<Lookup> {};

TEST_P(GeometryLookupTest, OffsetResolvesToResourceEntryAndByte) {
  const auto& [offset, id, entry, byte] = GetParam();
  const Kel::Ptr<Geometry> geometry = testGeometry();
  const Location at = geometry->locate(offset);
  EXPECT_EQ(std::tuple(at.layout->id, at.entry, at.byte), std::tuple(id, entry, byte));
  EXPECT_EQ(geometry->find(offset), at.layout);
  EXPECT_EQ(geometry->layout(id), at.layout);
}

INSTANTIATE_TEST_SUITE_P(TestGeometry, GeometryLookupTest,
                         ::testing::Values(Lookup{0, kRoute0, 0, 0}, Lookup{17, kRoute0, 1, 1},
                                           Lookup{63, kRoute0, 3, 15},
                                           Lookup{kRoute1Base, kRoute1, 0, 0},
                                           Lookup{136, kHashed, 1, 0}, Lookup{151, kHashed, 2, 7},
                                           Lookup{kCtrlBase, kCtrl, 0, 0},
                                           Lookup{kStatBase + 7, kStat, 0, 7}));

TEST(GeometryTest, LaysOutTablesThenRegistersWithoutGapsAndInstancesShareTheBaseId) {
  const Kel::Ptr<Geometry> geometry = testGeometry();
  EXPECT_EQ(geometry->tableEntrySlots(), 11u);
  DeviceOffset next = 0;
  for (const ResourceLayout& r : geometry->resources()) {
    EXPECT_EQ(r.base, next) << r.name;
    next = r.end();
  }
  EXPECT_EQ(next, kSpaceBytes);
  EXPECT_EQ(geometry->sizeBytes(), kSpaceBytes);
  EXPECT_EQ(geometry->layout(kHashed)->firstEntrySlot, 8u);
  EXPECT_EQ(geometry->layout(kRoute1)->entryOffset(3), kRoute1Base + 3 * 16);

  EXPECT_THAT(geometry->instances(kRoute1), ElementsAre(Field(&ResourceLayout::baseId, kRoute0),
                                                        Field(&ResourceLayout::baseId, kRoute0)));
  EXPECT_EQ(geometry->instances(kRoute0)[1].id, kRoute1);
  EXPECT_EQ(geometry->layout(kRoute1)->instance, 1u);
  EXPECT_THAT(geometry->instances(kCtrl), ElementsAre(Field(&ResourceLayout::id, kCtrl)));
  EXPECT_TRUE(geometry->instances({ResourceType::tableResource_, 0x12}).empty());
}

TEST(GeometryTest, OffsetOfNothingIsAClearError) {
  const Kel::Ptr<Geometry> geometry = testGeometry();
  EXPECT_EQ(geometry->find(kSpaceBytes), nullptr);
  EXPECT_EQ(geometry->find(0xFFFFFFFFu), nullptr);
  EXPECT_THAT(
      [&] { geometry->locate(kSpaceBytes); },
      ThrowsMessage<GeometryError>(StrEq("geometry 'chip': offset 0xa4 belongs to no resource")));
  EXPECT_EQ(geometry->layout({ResourceType::registerResource_, 0x10}), nullptr);
}

using BadCase = std::tuple<std::vector<TableSpec>, std::vector<RegisterSpec>, const char*>;
class GeometryBadDescriptionTest : public ::testing::TestWithParam<BadCase> {};

TEST_P(GeometryBadDescriptionTest, IsRefusedWithTheReason) {
  const auto& [tables, registers, message] = GetParam();
  EXPECT_THAT([&] { Kel::allocate<Geometry>(Kel::Name("g"), tables, registers); },
              ThrowsMessage<GeometryError>(StrEq(message)));
}

INSTANTIATE_TEST_SUITE_P(
    Descriptions, GeometryBadDescriptionTest,
    ::testing::Values(
        BadCase{{{"t", 1, 0, 8, 4}},
                {},
                "table 't': entrySize, memoryEntrySize and entryCount must not be 0"},
        BadCase{{{"t", 1, 8, 8, 4, 0}}, {}, "table 't': instances must be at least 1"},
        BadCase{{{"t", ~0ull, 8, 8, 4, 2}}, {}, "table 't': instance ids overflow the 64-bit id"},
        BadCase{{{"a", 1, 8, 8, 4, 2}, {"b", 2, 8, 8, 4}},
                {},
                "geometry 'g': 'b' reuses id 0x2 of 'a'"},
        BadCase{{}, {{"r", 1, 0}}, "register 'r': size must not be 0"},
        BadCase{{{"t", 1, 8, 0x10000, 0x10000}},
                {},
                "geometry 'g': 't' does not fit the 32-bit offset space"}));

}  // namespace
}  // namespace sim
