#include "Zorvek/CacheTable.h"

#include <gmock/gmock.h>

#include <array>
#include <tuple>
#include <vector>

namespace Zorvek {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

constexpr U32 kEntrySize = 8;
using Bytes = std::array<unsigned char, kEntrySize>;

Kel::Ptr<CacheTable> makeTable(U32 numEntries, U32 entrySize = kEntrySize) {
  return Kel::allocate<CacheTable>(AgentId(7),
                                   CacheTableIndex(DeviceId(1), {ResourceType::tableResource_, 5}),
                                   numEntries, entrySize);
}

Bytes pattern(unsigned char first) {
  Bytes b;
  for (U32 i = 0; i < kEntrySize; ++i) b[i] = static_cast<unsigned char>(first + i);
  return b;
}

Bytes entry(const CacheTable& t, DeviceOffset offset) {
  Bytes b;
  t.readEntryData(offset, b.data(), kEntrySize);
  return b;
}

TEST(CacheTableTest, EntriesAreAllocatedLazilyInOrderOfFirstUseAndReadBackWhole) {
  auto table = makeTable(4);
  EXPECT_TRUE(!table->entryDataPtr(0x100) && table->entryIndex(0x100) == CacheTable::kNoEntry);
  EXPECT_THAT(std::vector(table->initialEntryData(), table->initialEntryData() + kEntrySize),
              Each(0));
  table->entryIs(0x100, table->initialEntryData(), true);
  const Bytes p = pattern(0x20);
  table->entryIs(0x40, p.data(), true);
  table->entryIs(0x100, p.data(), true);  // already in use: refilled, not renumbered
  EXPECT_EQ(std::tuple(table->entries(), table->entryIndex(0x100), table->entryIndex(0x40),
                       table->entryOffset(1)),
            std::tuple(2u, 0u, 1u, DeviceOffset(0x40)));

  // A read copies the size asked for, and never more than one entry.
  std::array<unsigned char, kEntrySize + 1> out;
  out.fill(0xEE);
  table->readEntryData(0x100, out.data(), 3);
  EXPECT_THAT(out, ElementsAre(0x20, 0x21, 0x22, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE));
  table->readEntryData(0x100, out.data(), out.size());
  EXPECT_THAT(out, ElementsAre(0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0xEE));
}

// An entry allocated with a hardware-access flag, then written with theirs, is eligible once
// written with hardware access; allocation alone never makes it eligible.
TEST(CacheTableTest, EligibleOnceWrittenWithHwAccess) {
  for (const auto& [allocatedWithHwAccess, writesWithHwAccess, eligible] :
       std::vector<std::tuple<bool, std::vector<bool>, bool>>{{true, {}, false},
                                                              {true, {false}, false},
                                                              {false, {true}, true},
                                                              {false, {true, false}, true}}) {
    auto table = makeTable(4);
    table->entryIs(0x8, table->initialEntryData(), allocatedWithHwAccess);
    for (bool hw : writesWithHwAccess) table->writeEntryData(0x8, pattern(3).data(), hw);
    EXPECT_EQ(table->entryOffsetHwWriteEligible(0x8), eligible);
    EXPECT_FALSE(table->entryOffsetHwWriteEligible(0x10));  // never in use
  }
}

// A warm restart keeps entries and their eligibility; a cold one forgets them, returns their
// memory and numbers entries from 0 again.
TEST(CacheTableTest, ColdRestartForgetsEntriesWarmKeepsThem) {
  for (const bool cold : {false, true}) {
    auto table = makeTable(100);
    const std::size_t emptyBytes = table->memoryBytes();
    table->entryIs(0x30, pattern(9).data(), true);
    table->writeEntryData(0x30, pattern(9).data(), true);
    table->doRestart(cold);
    EXPECT_EQ(
        std::tuple(table->restarts(), table->coldStart(), table->entries(),
                   table->entryOffsetHwWriteEligible(0x30), table->memoryBytes() == emptyBytes),
        std::tuple(1u, cold, cold ? 0u : 1u, !cold, cold));
    table->entryIs(0x50, pattern(1).data(), true);
    EXPECT_EQ(std::pair(table->entryIndex(0x50), entry(*table, 0x30 + (cold ? 0x20 : 0))),
              std::pair(cold ? 0u : 1u, cold ? pattern(1) : pattern(9)));
  }
}

// Entries keep their data where it is as the table grows, and cost at most 32 bytes each
// beyond their data, also just after the offset index doubled (12289 entries: the index is
// least full there).
class CacheTableGrowthTest : public ::testing::TestWithParam<U32> {};

TEST_P(CacheTableGrowthTest, DataStaysPutAndOverheadPerEntryWithin32Bytes) {
  const U32 used = GetParam();
  auto table = makeTable(20000);
  const std::size_t emptyBytes = table->memoryBytes();
  table->entryIs(0, pattern(0).data(), true);
  const unsigned char* firstData = table->entryDataPtr(0);
  for (U32 i = 1; i < used; ++i) table->entryIs(i * 4, pattern(U8(i)).data(), false);
  EXPECT_EQ(table->entryDataPtr(0), firstData);
  for (U32 i = 0; i < used; ++i) {
    ASSERT_EQ(table->entryIndex(i * 4), i);
    ASSERT_EQ(entry(*table, i * 4), pattern(U8(i)));
  }
  const double perEntry =
      double(table->memoryBytes() - emptyBytes - std::size_t{used} * kEntrySize) / used;
  EXPECT_LE(perEntry, 32.0);
  EXPECT_GE(perEntry, 4.0);  // offsets are accounted for
}

INSTANTIATE_TEST_SUITE_P(FillLevels, CacheTableGrowthTest, ::testing::Values(1000, 12289, 20000));

TEST(CacheTableDeathTest, BrokenPreconditionsAbort) {
  auto table = makeTable(2);
  Bytes out;
  table->entryIs(0x0, table->initialEntryData(), true);
  table->entryIs(0x8, table->initialEntryData(), true);
  EXPECT_DEATH(table->entryIs(0x10, table->initialEntryData(), true),
               "Assertion failed: entries\\(\\) < numEntries\\(\\)");
  EXPECT_DEATH(table->writeEntryData(0x10, out.data(), true),
               "Assertion failed: entryIndex\\( offset \\) != kNoEntry");
  EXPECT_DEATH(table->readEntryData(0x10, out.data(), kEntrySize),
               "Assertion failed: entryIndex\\( offset \\) != kNoEntry");
  EXPECT_DEATH(table->entryOffset(2), "Assertion failed: entryIndex < entries\\(\\)");
  EXPECT_DEATH(makeTable(2, 0), "Assertion failed: entrySize > 0");
}

}  // namespace
}  // namespace Zorvek
