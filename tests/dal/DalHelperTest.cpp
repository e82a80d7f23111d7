// Zorvek::DalHelper: the default entry check, and the entry geometry of a memory entry.
#include "Zorvek/DalHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using doubles::assertion;

const DeviceId kDev(0);
const PhysicalResourceId kTable(ResourceType::tableResource_, 0x42);
const unsigned char kMemoryEntry[64] = {};

// A helper of a device whose tables have memory entries of m bytes packing entries of t bytes.
struct GeometryHelper : DalHelper {
  GeometryHelper(U32 m, U32 t) : m(m), t(t) {}
  U32 memoryEntrySizeBytes(DeviceId, const PhysicalResourceId&) const override { return m; }
  U32 entrySizeBytes(DeviceId, const PhysicalResourceId&) const override { return t; }
  U32 m, t;
};

// Only whole words count: trailing bytes of a size that is not a multiple of 4 are ignored.
TEST(DalHelperTest, DefaultEntryIsAllZeroWholeWords) {
  const auto helper = Kel::allocate<DalHelper>();
  // Rows: size, the one byte set to 9 (-1: none), whether the entry is the default.
  for (auto [size, set, isDefault] : std::vector<std::tuple<U32, int, bool>>{
           {0, -1, true}, {6, 4, true}, {8, -1, true}, {4, 3, false}, {9, 4, false}}) {
    std::vector<unsigned char> bytes(size);
    if (set >= 0) bytes[set] = 9;
    EXPECT_EQ(helper->isDefaultEntry(kDev, bytes.data(), size, kTable), isDefault) << size;
  }
}

TEST(DalHelperTest, MemoryEntryPacksWholeEntries) {
  for (auto [m, t, entries] :
       std::vector<std::tuple<U32, U32, U32>>{{12, 16, 0}, {36, 8, 4}, {16, 16, 1}}) {
    const auto helper = Kel::allocate<GeometryHelper>(m, t);
    EXPECT_EQ(helper->numEntriesPerMemoryEntry(kDev, kTable), entries) << m;
    for (U32 n = 0; n < entries; ++n)
      EXPECT_EQ(helper->nthEntry(kDev, kTable, kMemoryEntry, n),
                static_cast<const void*>(kMemoryEntry + n * t));
  }
}

TEST(DalHelperDeathTest, GeometryOutsideTheContractAborts) {
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(24, 6)->numEntriesPerMemoryEntry(kDev, kTable),
               assertion("t % sizeof( U32 ) == 0"));
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(32, 8)->nthEntry(kDev, kTable, kMemoryEntry, 4),
               assertion("n < numEntriesPerMemoryEntry( devId, rid )"));
}

}  // namespace
}  // namespace Zorvek
