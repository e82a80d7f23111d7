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
using ::testing::IsEmpty;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

struct LookupCase {
  DeviceOffset offset;
  PhysicalResourceId id;
  U32 entry;
  U32 byte;
};

constexpr LookupCase kLookups[] = {
    {0, kRoute0, 0, 0},           {17, kRoute0, 1, 1},          {63, kRoute0, 3, 15},
    {kRoute1Base, kRoute1, 0, 0}, {136, kHashed, 1, 0},         {151, kHashed, 2, 7},
    {kCtrlBase, kCtrl, 0, 0},     {kStatBase + 7, kStat, 0, 7},
};

class GeometryLookupTest : public ::testing::TestWithParam<LookupCase> {
 protected:
  Kel::Ptr<Geometry> geometry = testGeometry();
};

TEST_P(GeometryLookupTest, OffsetResolvesToResourceEntryAndByte) {
  const LookupCase& c = GetParam();
  const Location at = geometry->locate(c.offset);
  EXPECT_EQ(at.layout->id, c.id);
  EXPECT_EQ(at.entry, c.entry);
  EXPECT_EQ(at.byte, c.byte);
  EXPECT_EQ(geometry->find(c.offset), at.layout);
  EXPECT_EQ(geometry->layout(c.id), at.layout);
}

INSTANTIATE_TEST_SUITE_P(TestGeometry, GeometryLookupTest, ::testing::ValuesIn(kLookups));

class GeometryTest : public ::testing::Test {
 protected:
  Kel::Ptr<Geometry> geometry = testGeometry();
};

TEST_F(GeometryTest, LaysOutTablesThenRegistersWithoutGapsOrOverlaps) {
  EXPECT_EQ(geometry->sizeBytes(), kSpaceBytes);
  EXPECT_EQ(geometry->tableEntrySlots(), 11u);
  DeviceOffset next = 0;
  for (const ResourceLayout& r : geometry->resources()) {
    EXPECT_EQ(r.base, next) << r.name;
    next = r.end();
  }
  EXPECT_EQ(next, kSpaceBytes);
  EXPECT_EQ(geometry->layout(kHashed)->firstEntrySlot, 8u);
  EXPECT_EQ(geometry->layout(kRoute1)->entryOffset(3), kRoute1Base + 3 * 16);
}

TEST_F(GeometryTest, ReplicatedInstancesShareTheBaseId) {
  EXPECT_THAT(geometry->instances(kRoute1), ElementsAre(Field(&ResourceLayout::id, kRoute0),
                                                        Field(&ResourceLayout::id, kRoute1)));
  for (const ResourceLayout& r : geometry->instances(kRoute0)) EXPECT_EQ(r.baseId, kRoute0);
  EXPECT_EQ(geometry->layout(kRoute1)->instance, 1u);
  EXPECT_THAT(geometry->instances(kCtrl), ElementsAre(Field(&ResourceLayout::id, kCtrl)));
  EXPECT_THAT(geometry->instances({ResourceType::tableResource_, 0x12}), IsEmpty());
}

TEST_F(GeometryTest, OffsetOfNothingIsAClearError) {
  for (DeviceOffset bad : {kSpaceBytes, 0xFFFFFFFFu}) EXPECT_EQ(geometry->find(bad), nullptr);
  EXPECT_THAT(
      [&] { geometry->locate(kSpaceBytes); },
      ThrowsMessage<GeometryError>(StrEq("geometry 'chip': offset 0xa4 belongs to no resource")));
  EXPECT_EQ(geometry->layout({ResourceType::registerResource_, 0x10}), nullptr);
}

struct BadCase {
  const char* what;
  std::vector<TableSpec> tables;
  std::vector<RegisterSpec> registers;
  const char* message;
};
void PrintTo(const BadCase& c, std::ostream* os) { *os << c.what; }

class GeometryBadDescriptionTest : public ::testing::TestWithParam<BadCase> {};

TEST_P(GeometryBadDescriptionTest, IsRefusedWithTheReason) {
  const BadCase& c = GetParam();
  EXPECT_THAT([&] { Kel::allocate<Geometry>(Kel::Name("g"), c.tables, c.registers); },
              ThrowsMessage<GeometryError>(StrEq(c.message)));
}

INSTANTIATE_TEST_SUITE_P(
    Descriptions, GeometryBadDescriptionTest,
    ::testing::Values(
        BadCase{"ZeroEntrySize",
                {{"t", 1, 0, 8, 4}},
                {},
                "table 't': entrySize, memoryEntrySize and entryCount must not be 0"},
        BadCase{
            "ZeroInstances", {{"t", 1, 8, 8, 4, 0}}, {}, "table 't': instances must be at least 1"},
        BadCase{"InstanceIdsOverflow",
                {{"t", ~0ull, 8, 8, 4, 2}},
                {},
                "table 't': instance ids overflow the 64-bit id"},
        BadCase{"InstanceIdReused",
                {{"a", 1, 8, 8, 4, 2}, {"b", 2, 8, 8, 4}},
                {},
                "geometry 'g': 'b' reuses id 0x2 of 'a'"},
        BadCase{"ZeroRegisterSize", {}, {{"r", 1, 0}}, "register 'r': size must not be 0"},
        BadCase{"BeyondTheOffsetSpace",
                {{"t", 1, 8, 0x10000, 0x10000}},
                {},
                "geometry 'g': 't' does not fit the 32-bit offset space"}),
    [](const auto& info) { return std::string(info.param.what); });

}  // namespace
}  // namespace sim
