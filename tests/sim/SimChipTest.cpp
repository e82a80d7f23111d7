// SimChip: the refusals that catch a DAL reaching past a resource. Masked writes, ownership,
// frees and bulk transfers are checked through the serializer, assembled-tree and model
// tests.
#include "sim/SimChip.h"

#include <gmock/gmock.h>

#include <array>
#include <functional>

#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;

constexpr AgentId kAgentA = 3;

class SimChipTest : public ::testing::Test {
 protected:
  Kel::Ptr<SimChip> chip = Kel::allocate<SimChip>(DeviceId(2), testGeometry());
};

using Refusal = std::function<S32(SimChip&, U8*)>;
class SimChipRefusalTest : public SimChipTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SimChipRefusalTest, IsRefusedAndChangesNothing) {
  std::array<Entry, 2> buffer{filled(0xEE), filled(0xEE)};
  EXPECT_EQ(GetParam()(*chip, buffer[0].data()), -1);
  EXPECT_EQ(chip->counters().refused, 1u);
  for (const ResourceLayout& r : chip->geometry()->resources())
    for (U32 e = 0; e < r.entryCount; ++e) EXPECT_THAT(chip->entry(r.id, e), Each(0)) << r.name;
  EXPECT_THAT(buffer, Each(filled(0xEE)));
}

INSTANTIATE_TEST_SUITE_P(
    Accesses, SimChipRefusalTest,
    ::testing::Values(
        // Across two resources, beyond the space, to another device, with the wrong id.
        [](SimChip& c, U8* b) { return c.writeAt(56, b, nullptr, 16, kAgentA); },
        [](SimChip& c, U8* b) { return c.readAt(kSpaceBytes, b, 1); },
        [](SimChip& c, U8* b) { return c.write(DeviceId(1), kRoute0, 0, b, nullptr, 16, kAgentA); },
        [](SimChip& c, U8* b) {
          return c.write(DeviceId(2), kRoute0, kRoute1Base, b, nullptr, 16, kAgentA);
        },
        // Bulk: not at an entry start, another entry size, beyond the table, a register.
        [](SimChip& c, U8* b) { return c.bulkReadAt(kRoute1Base + 4, 16, 1, b); },
        [](SimChip& c, U8* b) { return c.bulkWriteAt(kRoute1Base, 8, 2, b, kAgentA); },
        [](SimChip& c, U8* b) { return c.bulkWriteAt(48, 16, 2, b, kAgentA); },
        [](SimChip& c, U8* b) { return c.bulkReadAt(kStatBase, 8, 1, b); },
        // Bulk from address zero.
        [](SimChip& c, U8*) { return c.bulkRead(DeviceId(2), kRoute0, 0, 0, 16, 1); }));

}  // namespace
}  // namespace sim
