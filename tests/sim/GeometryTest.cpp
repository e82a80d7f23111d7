// Geometry: the errors of a bad description (a topology file reports them) or a bad offset.
#include "sim/Geometry.h"

#include <gmock/gmock.h>

#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using namespace ::testing;

// Where offsets land is what every access of the model test relies on, on two topologies (an
// offset at a resource's base found in the one before it, or an entry counted in logical
// instead of memory entries, fails both); here, an offset past the last resource.
TEST(GeometryTest, OffsetOfNothingIsAClearError) {
  const Kel::Ptr<Geometry> geometry = testGeometry();
  EXPECT_EQ(geometry->find(kSpaceBytes), nullptr);
  EXPECT_EQ(geometry->layout({ResourceType::registerResource_, 0x10}), nullptr);
  EXPECT_THAT(
      [&] { geometry->locate(kSpaceBytes); },
      ThrowsMessage<GeometryError>(StrEq("geometry 'chip': offset 0xa4 belongs to no resource")));
}

TEST(GeometryTest, BadDescriptionIsRefusedWithTheReason) {
  using Tables = std::vector<TableDef>;
  for (const auto& [tables, registers, message] :
       std::vector<std::tuple<Tables, std::vector<RegisterDef>, const char*>>{
           {{{"t", 1, 0, 8, 4}},
            {},
            "table 't': entrySize, memoryEntrySize and entryCount must not be 0"},
           {{{"t", 1, 8, 8, 4, 0}}, {}, "table 't': instances must be at least 1"},
           {{{"t", ~0ull, 8, 8, 4, 2}}, {}, "table 't': instance ids overflow the 64-bit id"},
           {{{"a", 1, 8, 8, 4, 2}, {"b", 2, 8, 8, 4}},
            {},
            "geometry 'g': 'b' reuses id 0x2 of 'a'"},
           {{}, {{"r", 1, 0}}, "register 'r': size must not be 0"},
           {{{"t", 1, 8, 0x10000, 0x10000}},
            {},
            "geometry 'g': 't' does not fit the 32-bit offset space"}})
    EXPECT_THAT([&] { Kel::allocate<Geometry>(Kel::Name("g"), tables, registers); },
                ThrowsMessage<GeometryError>(StrEq(message)));
}

}  // namespace
}  // namespace sim
