// CacheTable: entry numbering, read-back, restarts and the table's size. Which entries are
// eligible for a replay (written with hardware access, never merely allocated) is checked after
// every step of the model test against the model's own record.
#include "Zorvek/CacheTable.h"

#include <gmock/gmock.h>

#include <array>

namespace Zorvek {
namespace {

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

TEST(CacheTableTest, EntriesAreNumberedInOrderOfFirstUseAndReadBackAtMostWhole) {
  auto table = makeTable(4);
  EXPECT_EQ(table->entryDataPtr(0x100), nullptr);
  table->entryIs(0x100, table->initialEntryData(), true);
  const Bytes p = pattern(0x20);
  table->entryIs(0x40, p.data(), true);
  table->entryIs(0x100, p.data(), true);  // already in use: refilled, not renumbered
  EXPECT_EQ(table->entries(), 2u);
  EXPECT_EQ(table->entryIndex(0x100), 0u);
  EXPECT_EQ(table->entryOffset(1), DeviceOffset(0x40));
  std::array<unsigned char, kEntrySize + 1> out;
  out.fill(0xEE);
  table->readEntryData(0x100, out.data(), out.size());
  EXPECT_THAT(out, ElementsAre(0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0xEE));
}

// An entry is found by its position from the table's first offset in use, below that offset
// as well as above it, and through the hash index when its offset is off the stride.
TEST(CacheTableTest, EveryEntryReadsBackWhereverItLies) {
  auto table = makeTable(16);
  const DeviceOffset offsets[] = {0x200, 0x240, 0x1C0, 0x100, 0x203, 0x400, 0x0};
  for (U32 i = 0; i < std::size(offsets); ++i)
    table->entryIs(offsets[i], pattern(static_cast<unsigned char>(0x10 * i)).data(), true);
  for (U32 i = 0; i < std::size(offsets); ++i) {
    SCOPED_TRACE(offsets[i]);
    EXPECT_EQ(table->entryIndex(offsets[i]), i);
    EXPECT_EQ(entry(*table, offsets[i]), pattern(static_cast<unsigned char>(0x10 * i)));
  }
  EXPECT_EQ(table->entryDataPtr(0x208), nullptr);
  EXPECT_EQ(table->entryDataPtr(0x1F8), nullptr);
}

// A warm restart keeps entries and their eligibility; a cold one forgets them and numbers
// entries from 0 again.
TEST(CacheTableTest, ColdRestartForgetsEntriesWarmKeepsThem) {
  for (const bool cold : {false, true}) {
    SCOPED_TRACE(cold ? "cold" : "warm");
    auto table = makeTable(100);
    table->entryIs(0x30, pattern(9).data(), true);
    table->writeEntryData(0x30, pattern(9).data(), true);
    table->doRestart(cold);
    EXPECT_EQ(table->restarts(), 1u);
    EXPECT_EQ(table->entries(), cold ? 0u : 1u);
    EXPECT_EQ(table->entryOffsetHwWriteEligible(0x30), !cold);
    table->entryIs(0x50, pattern(1).data(), true);
    EXPECT_EQ(table->entryIndex(0x50), cold ? 0u : 1u);
    EXPECT_EQ(entry(*table, 0x30 + (cold ? 0x20 : 0)), cold ? pattern(1) : pattern(9));
  }
}

TEST(CacheTableDeathTest, AllocatingBeyondTheTableAborts) {
  auto table = makeTable(1);
  table->entryIs(0x0, table->initialEntryData(), true);
  EXPECT_DEATH(table->entryIs(0x10, table->initialEntryData(), true),
               "Assertion failed: entries\\(\\) < numEntries\\(\\)");
}

}  // namespace
}  // namespace Zorvek
