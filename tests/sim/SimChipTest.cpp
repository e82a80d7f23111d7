// SimChip: masked writes, entry ownership, bulk transfers through a memory address, frees by
// owner with and without a mask, refusals, and the S-channel backend path.
#include "sim/SimChip.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>

#include "Zorvek/SchanRequester.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr AgentId kAgentA = 3;
constexpr AgentId kAgentB = 4;
constexpr AgentId kNobody = Zorvek::kInvalidAgentId;
using Entry = std::array<U8, 16>;

Entry filled(U8 v) {
  Entry e;
  e.fill(v);
  return e;
}

PhysicalAddr addressOf(const void* p) { return reinterpret_cast<PhysicalAddr>(p); }

class SimChipTest : public ::testing::Test {
 protected:
  Kel::Ptr<SimChip> chip = Kel::allocate<SimChip>(DeviceId(2), testGeometry());
};

struct MaskCase {
  U8 old;
  U8 data;
  U8 mask;
  U8 expected;
};

class SimChipMaskTest : public SimChipTest, public ::testing::WithParamInterface<MaskCase> {};

TEST_P(SimChipMaskTest, MaskedWriteKeepsTheUnmaskedBits) {
  const MaskCase& c = GetParam();
  const std::array<U8, 4> old{c.old, c.old, c.old, c.old};
  const std::array<U8, 4> data{c.data, c.data, c.data, c.data};
  const std::array<U8, 4> mask{c.mask, 0x00, c.mask, 0xFF};
  ASSERT_EQ(chip->writeAt(kCtrlBase, old.data(), nullptr, 4, kAgentA), 0);
  ASSERT_EQ(chip->writeAt(kCtrlBase, data.data(), mask.data(), 4, kAgentA), 0);
  EXPECT_THAT(chip->entry(kCtrl, 0), ElementsAre(c.expected, c.old, c.expected, c.data));
}

INSTANTIATE_TEST_SUITE_P(Bits, SimChipMaskTest,
                         ::testing::Values(MaskCase{0x00, 0xFF, 0x0F, 0x0F},
                                           MaskCase{0xFF, 0x00, 0xF0, 0x0F},
                                           MaskCase{0xA5, 0x5A, 0x00, 0xA5},
                                           MaskCase{0xA5, 0x5A, 0xFF, 0x5A},
                                           MaskCase{0x81, 0x7E, 0x3C, 0xBD}));

TEST_F(SimChipTest, WriteOwnsEveryEntryItTouchesAndReadsBack) {
  const std::array<U8, 20> data = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                                   11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
  ASSERT_EQ(chip->writeAt(kRoute1Base + 8, data.data(), nullptr, 20, kAgentA), 0);
  EXPECT_EQ(chip->owner(kRoute1, 0), kAgentA);
  EXPECT_EQ(chip->owner(kRoute1, 1), kAgentA);
  EXPECT_EQ(chip->owner(kRoute1, 2), kNobody);
  EXPECT_EQ(chip->owner(kRoute0, 0), kNobody);
  std::array<U8, 20> back{};
  ASSERT_EQ(chip->readAt(kRoute1Base + 8, back.data(), 20), 0);
  EXPECT_EQ(back, data);
  EXPECT_EQ(chip->counters().reads, 1u);
  EXPECT_EQ(chip->counters().writes, 1u);
}

TEST_F(SimChipTest, BulkMovesWholeEntriesThroughAMemoryAddress) {
  std::array<Entry, 3> out{filled(0xA1), filled(0xA2), filled(0xA3)};
  ASSERT_EQ(
      chip->bulkWrite(DeviceId(2), kRoute0, 16, addressOf(out.data()), nullptr, 16, 3, kAgentB), 0);
  EXPECT_THAT(chip->entry(kRoute0, 0), Each(0));
  EXPECT_THAT(chip->entry(kRoute0, 3), Each(0xA3));
  EXPECT_EQ(chip->owner(kRoute0, 1), kAgentB);
  EXPECT_EQ(chip->owner(kRoute0, 0), kNobody);

  std::array<Entry, 2> in{};
  ASSERT_EQ(chip->bulkRead(DeviceId(2), kRoute0, 32, addressOf(in.data()), 16, 2), 0);
  EXPECT_THAT(in, ElementsAre(filled(0xA2), filled(0xA3)));

  const Entry direct = filled(0xD0);
  ASSERT_EQ(chip->bulkWrite(DeviceId(2), kRoute1, kRoute1Base, 0, direct.data(), 16, 1, kAgentA),
            0);
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0xD0));
  EXPECT_EQ(chip->counters().bulkWrites, 2u);
  EXPECT_EQ(chip->counters().bulkReads, 1u);
}

class SimChipFreeTest : public SimChipTest {
 protected:
  void SetUp() override {
    for (U32 e = 0; e < 4; ++e) {
      const Entry data = filled(static_cast<U8>(0xF0 + e));
      chip->writeAt(16 * e, data.data(), nullptr, 16, e % 2 ? kAgentB : kAgentA);
    }
    chip->writeAt(kRoute1Base, filled(0x77).data(), nullptr, 16, kAgentA);
  }
};

TEST_F(SimChipFreeTest, FreeClearsOnlyTheAgentsEntriesOfThatInstance) {
  EXPECT_EQ(chip->freeOwned(kRoute0, kAgentA, nullptr, 0), 2);
  EXPECT_THAT(chip->entry(kRoute0, 0), Each(0));
  EXPECT_THAT(chip->entry(kRoute0, 2), Each(0));
  EXPECT_EQ(chip->owner(kRoute0, 0), kNobody);
  EXPECT_THAT(chip->entry(kRoute0, 1), Each(0xF1));
  EXPECT_EQ(chip->owner(kRoute0, 3), kAgentB);
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0x77));
  EXPECT_EQ(chip->freeOwned(kRoute0, kAgentA, nullptr, 0), 0);
}

TEST_F(SimChipFreeTest, MaskedFreeClearsOnlyTheMaskedBits) {
  const std::array<U8, 3> mask{0xFF, 0x0F, 0x00};
  EXPECT_EQ(chip->freeOwned(kRoute0, kAgentB, mask.data(), 3), 2);
  Entry expected = filled(0xF1);
  expected[0] = 0x00;
  expected[1] = 0xF0;
  EXPECT_THAT(chip->entry(kRoute0, 1), ElementsAreArray(expected));
  EXPECT_EQ(chip->owner(kRoute0, 1), kNobody);
  EXPECT_THAT(chip->entry(kRoute0, 0), Each(0xF0));
}

TEST_F(SimChipFreeTest, WipeClearsTheWholeInstance) {
  ASSERT_EQ(chip->tableWipe(kRoute0), 0);
  for (U32 e = 0; e < 4; ++e) {
    EXPECT_THAT(chip->entry(kRoute0, e), Each(0));
    EXPECT_EQ(chip->owner(kRoute0, e), kNobody);
  }
  EXPECT_EQ(chip->owner(kRoute1, 0), kAgentA);
  EXPECT_EQ(chip->tableWipe(kCtrl), -1);
  EXPECT_EQ(chip->freeOwned(kCtrl, kAgentA, nullptr, 0), -1);
}

struct RefusalCase {
  const char* what;
  std::function<S32(SimChip&, U8*)> access;
};
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.what; }

class SimChipRefusalTest : public SimChipTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(SimChipRefusalTest, IsRefusedAndChangesNothing) {
  std::array<Entry, 2> buffer{filled(0xEE), filled(0xEE)};
  EXPECT_EQ(GetParam().access(*chip, buffer[0].data()), -1);
  EXPECT_EQ(chip->counters().refused, 1u);
  for (const ResourceLayout& r : chip->geometry()->resources())
    for (U32 e = 0; e < r.entryCount; ++e) EXPECT_THAT(chip->entry(r.id, e), Each(0)) << r.name;
  EXPECT_THAT(buffer, Each(filled(0xEE)));
}

INSTANTIATE_TEST_SUITE_P(
    Accesses, SimChipRefusalTest,
    ::testing::Values(
        RefusalCase{"WriteAcrossTwoResources",
                    [](SimChip& c, U8* b) { return c.writeAt(56, b, nullptr, 16, kAgentA); }},
        RefusalCase{"ReadBeyondTheSpace",
                    [](SimChip& c, U8* b) { return c.readAt(kSpaceBytes, b, 1); }},
        RefusalCase{"AnotherDevice",
                    [](SimChip& c, U8* b) {
                      return c.write(DeviceId(1), kRoute0, 0, b, nullptr, 16, kAgentA);
                    }},
        RefusalCase{"IdNotAtTheOffset",
                    [](SimChip& c, U8* b) {
                      return c.write(DeviceId(2), kRoute0, kRoute1Base, b, nullptr, 16, kAgentA);
                    }},
        RefusalCase{"BulkNotAtAnEntryStart",
                    [](SimChip& c, U8* b) { return c.bulkReadAt(kRoute1Base + 4, 16, 1, b); }},
        RefusalCase{"BulkOfAnotherEntrySize",
                    [](SimChip& c, U8* b) { return c.bulkWriteAt(kRoute1Base, 8, 2, b, kAgentA); }},
        RefusalCase{"BulkBeyondTheTable",
                    [](SimChip& c, U8* b) { return c.bulkWriteAt(48, 16, 2, b, kAgentA); }},
        RefusalCase{"BulkOfARegister",
                    [](SimChip& c, U8* b) { return c.bulkReadAt(kStatBase, 8, 1, b); }},
        RefusalCase{"BulkReadToAddressZero",
                    [](SimChip& c, U8*) { return c.bulkRead(DeviceId(2), kRoute0, 0, 0, 16, 1); }},
        RefusalCase{"BulkWriteFromNothing",
                    [](SimChip& c, U8*) {
                      return c.bulkWrite(DeviceId(2), kRoute0, 0, 0, nullptr, 16, 1, kAgentA);
                    }}),
    [](const auto& info) { return std::string(info.param.what); });

TEST_F(SimChipTest, InspectionOfSomethingMissingThrows) {
  EXPECT_THROW(chip->entry(kRoute0, 4), GeometryError);
  EXPECT_THROW(chip->owner(kCtrl, 0), GeometryError);
  EXPECT_THROW(chip->entry({ResourceType::tableResource_, 0x99}, 0), GeometryError);
}

TEST(SimChipSetTest, HandsEachAccessToTheChipOfItsDevice) {
  auto set = Kel::allocate<SimChipSet>();
  const Kel::Ptr<Geometry> geometry = testGeometry();
  auto chip0 = Kel::allocate<SimChip>(DeviceId(0), geometry);
  auto chip1 = Kel::allocate<SimChip>(DeviceId(1), geometry);
  set->chipIs(chip0);
  set->chipIs(chip1);
  const Entry data = filled(0x31);
  EXPECT_EQ(set->write(DeviceId(1), kRoute0, 0, data.data(), nullptr, 16, kAgentA), 0);
  EXPECT_THAT(chip1->entry(kRoute0, 0), Each(0x31));
  EXPECT_THAT(chip0->entry(kRoute0, 0), Each(0));
  EXPECT_EQ(set->read(DeviceId(5), kRoute0, 0, nullptr, 16), -1);
  EXPECT_EQ(set->chip(DeviceId(5)), nullptr);
}

TEST_F(SimChipTest, SchanRequesterReachesTheRegisteredChip) {
  auto status = Kel::allocate<Zorvek::DalProcessingStatus>(Zorvek::DalId(0));
  auto requester = Kel::allocate<Zorvek::SchanRequester>(
      "a3-Schan-Queue", kAgentA, 4, Zorvek::DalId(0), status, nullptr, kAgentA);
  Zorvek::schanBackendIs(chip);
  EXPECT_TRUE(requester->ready());
  Entry data = filled(0x42);
  EXPECT_GE(requester->write(Zorvek::oneDeviceMask(DeviceId(2)), kRoute1, kRoute1Base, data.data(),
                             nullptr, 16, false),
            0);
  Zorvek::schanBackendIs(nullptr);
  EXPECT_THAT(chip->entry(kRoute1, 0), Each(0x42));
  EXPECT_EQ(chip->owner(kRoute1, 0), kAgentA);
}

}  // namespace
}  // namespace sim
