// SimChip: masked writes, entry ownership, bulk transfers through a memory address, frees by
// owner with and without a mask, refusals, and the chip set that routes by device.
#include "sim/SimChip.h"

#include <gmock/gmock.h>

#include <array>
#include <functional>

#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr AgentId kAgentA = 3, kAgentB = 4, kNobody = Zorvek::kInvalidAgentId;

PhysicalAddr addressOf(const void* p) { return reinterpret_cast<PhysicalAddr>(p); }

class SimChipTest : public ::testing::Test {
 protected:
  Kel::Ptr<SimChip> chip = Kel::allocate<SimChip>(DeviceId(2), testGeometry());
};

TEST_F(SimChipTest, MaskedWriteKeepsTheUnmaskedBits) {
  // (old, data, mask, expected); the second and fourth bytes are written with the masks 0x00
  // and 0xFF.
  for (const auto& [old, data, mask, expected] :
       {std::tuple<U8, U8, U8, U8>{0xFF, 0x00, 0xF0, 0x0F}, {0x81, 0x7E, 0x3C, 0xBD}}) {
    const std::array<U8, 4> olds{old, old, old, old}, datas{data, data, data, data};
    const std::array<U8, 4> masks{mask, 0x00, mask, 0xFF};
    ASSERT_EQ(chip->writeAt(kCtrlBase, olds.data(), nullptr, 4, kAgentA), 0);
    ASSERT_EQ(chip->writeAt(kCtrlBase, datas.data(), masks.data(), 4, kAgentA), 0);
    EXPECT_THAT(chip->entry(kCtrl, 0), ElementsAre(expected, old, expected, data));
  }
}

TEST_F(SimChipTest, WriteOwnsEveryEntryItTouchesAndReadsBack) {
  std::array<U8, 20> data, back{};
  for (U8 i = 0; i < data.size(); ++i) data[i] = U8(i + 1);
  ASSERT_EQ(chip->writeAt(kRoute1Base + 8, data.data(), nullptr, 20, kAgentA), 0);
  ASSERT_EQ(chip->readAt(kRoute1Base + 8, back.data(), 20), 0);
  EXPECT_EQ(back, data);
  EXPECT_EQ(chip->owner(kRoute1, 1), kAgentA);  // entries 0 and 1 are touched
  EXPECT_EQ(chip->owner(kRoute1, 2), kNobody);
  EXPECT_EQ(chip->counters().writes, 1u);
  // Inspecting what the chip does not have is an error.
  for (const auto& [rid, entry] : {std::pair(kRoute0, 4u), {kCtrl, 1u}, {kHashed, 3u}})
    EXPECT_THROW(chip->entry(rid, entry), GeometryError);
  EXPECT_THROW(chip->owner(kCtrl, 0), GeometryError);
}

TEST_F(SimChipTest, BulkMovesWholeEntriesThroughAMemoryAddress) {
  std::array<Entry, 3> out{filled(0xA1), filled(0xA2), filled(0xA3)};
  ASSERT_EQ(chip->bulkWrite(DeviceId(2), kRoute0, 16, addressOf(&out), nullptr, 16, 3, kAgentB), 0);
  EXPECT_EQ(chip->owner(kRoute0, 1), kAgentB);
  EXPECT_EQ(chip->owner(kRoute0, 0), kNobody);
  std::array<Entry, 4> in{};
  ASSERT_EQ(chip->bulkRead(DeviceId(2), kRoute0, 0, addressOf(&in), 16, 4), 0);
  EXPECT_THAT(in, ElementsAre(filled(0), filled(0xA1), filled(0xA2), filled(0xA3)));
  // Data handed over directly wins over the address.
  const Entry direct = filled(0xD0);
  ASSERT_EQ(chip->bulkWrite(DeviceId(2), kRoute1, kRoute1Base, 0, &direct, 16, 1, kAgentA), 0);
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0xD0));
}

TEST_F(SimChipTest, FreeClearsOnlyTheAgentsEntriesOfThatInstance) {
  // Route #0 entries 0..3 hold 0xF0..0xF3, of agents A, B, A, B; route #1 entry 0 is A's.
  for (U32 e = 0; e < 4; ++e)
    chip->writeAt(16 * e, filled(U8(0xF0 + e)).data(), nullptr, 16, e % 2 ? kAgentB : kAgentA);
  chip->writeAt(kRoute1Base, filled(0x77).data(), nullptr, 16, kAgentA);
  EXPECT_EQ(chip->freeOwned(kRoute0, kAgentA, nullptr, 0), 2);
  EXPECT_THAT(chip->entry(kRoute0, 2), Each(0));
  EXPECT_THAT(chip->entry(kRoute0, 1), Each(0xF1));
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0x77));
  EXPECT_EQ(chip->owner(kRoute0, 0), kNobody);
  EXPECT_EQ(chip->owner(kRoute0, 3), kAgentB);
  EXPECT_EQ(chip->freeOwned(kRoute0, kAgentA, nullptr, 0), 0);

  const std::array<U8, 3> mask{0xFF, 0x0F, 0x00};  // only the bits of the mask are cleared
  EXPECT_EQ(chip->freeOwned(kRoute0, kAgentB, mask.data(), 3), 2);
  EXPECT_THAT(chip->entry(kRoute0, 1).first(4), ElementsAre(0x00, 0xF0, 0xF1, 0xF1));
  EXPECT_EQ(chip->owner(kRoute0, 1), kNobody);
  EXPECT_EQ(chip->freeOwned(kCtrl, kAgentA, nullptr, 0), -1);  // a register has no owners
}

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

TEST(SimChipSetTest, HandsEachAccessToTheChipOfItsDevice) {
  auto set = Kel::allocate<SimChipSet>();
  auto chip0 = Kel::allocate<SimChip>(DeviceId(0), testGeometry());
  auto chip1 = Kel::allocate<SimChip>(DeviceId(1), testGeometry());
  set->chipIs(chip0);
  set->chipIs(chip1);
  EXPECT_EQ(set->write(DeviceId(1), kRoute0, 0, filled(0x31).data(), nullptr, 16, kAgentA), 0);
  EXPECT_THAT(chip1->entry(kRoute0, 0), Each(0x31));
  EXPECT_THAT(chip0->entry(kRoute0, 0), Each(0));
  EXPECT_EQ(set->read(DeviceId(5), kRoute0, 0, nullptr, 16), -1);
}

}  // namespace
}  // namespace sim
