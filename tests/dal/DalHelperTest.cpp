// Zorvek::DalHelper: the default bodies, and the entry geometry of a memory entry.
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

TEST(DalHelperTest, DefaultsAnswerForADeviceWithNoSpecialNeeds) {
  const auto helper = Kel::allocate<DalHelper>();
  std::int16_t status = 0x5a5;
  EXPECT_TRUE(helper->deviceValid(DeviceId(3), &status));
  EXPECT_EQ(status, 0x5a5);
  EXPECT_EQ(helper->normalizedResourceId(kTable), kTable);
  EXPECT_TRUE(helper->nextPridInstance(kDev, kTable).isNull());
  // Only whole words count: trailing bytes of a size that is not a multiple of 4 are ignored.
  // Rows: size, the one byte set to 9 (-1: none), whether the entry is the default.
  const std::tuple<U32, int, bool> rows[] = {{0, -1, true}, {3, 0, true},  {6, 4, true},
                                             {8, -1, true}, {4, 3, false}, {9, 4, false}};
  for (auto [size, set, isDefault] : rows) {
    std::vector<unsigned char> bytes(size);
    if (set >= 0) bytes[set] = 9;
    EXPECT_EQ(helper->isDefaultEntry(kDev, bytes.data(), size, kTable), isDefault) << size;
  }
}

TEST(DalHelperTest, MemoryEntryPacksWholeEntries) {
  for (auto [m, t, entries] : std::vector<std::tuple<U32, U32, U32>>{
           {12, 16, 0}, {32, 8, 4}, {36, 8, 4}, {16, 16, 1}, {0, 4, 0}}) {
    const auto helper = Kel::allocate<GeometryHelper>(m, t);
    EXPECT_EQ(helper->numEntriesPerMemoryEntry(kDev, kTable), entries) << m << "/" << t;
    for (U32 n = 0; n < entries; ++n)
      EXPECT_EQ(helper->nthEntry(kDev, kTable, kMemoryEntry, n),
                static_cast<const void*>(kMemoryEntry + n * t));
  }
}

TEST(DalHelperDeathTest, GeometryOutsideTheContractAborts) {
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(24, 6)->numEntriesPerMemoryEntry(kDev, kTable),
               assertion("t % sizeof( U32 ) == 0"));
  const auto nth = assertion("n < numEntriesPerMemoryEntry( devId, rid )");
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(32, 8)->nthEntry(kDev, kTable, kMemoryEntry, 4), nth);
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(12, 16)->nthEntry(kDev, kTable, kMemoryEntry, 0), nth);
}

// Each body only the device family can supply.
TEST(DalHelperDeathTest, DefaultOnlyTheDeviceFamilyCanAnswerAborts) {
  const auto h = Kel::allocate<DalHelper>();
  const auto zero = assertion("0");
  EXPECT_DEATH(h->resourceType(0, nullptr), zero);
  EXPECT_DEATH(h->resourceExists(kDev, kTable), zero);
  EXPECT_DEATH(h->resourceId(0, nullptr), zero);
  EXPECT_DEATH(h->setOptArg(kDev, kTable, 0, nullptr), zero);
  EXPECT_DEATH(h->isHashTable(kDev, kTable), zero);
  EXPECT_DEATH(h->cacheable(kDev, kTable), zero);
  EXPECT_DEATH(h->shadowRead(kDev, 0, 4, nullptr, nullptr), zero);
  EXPECT_DEATH(h->shadowWrite(kDev, 0, 4, nullptr, nullptr), zero);
  EXPECT_DEATH(h->physicalAddr(kDev, nullptr), zero);
  EXPECT_DEATH(h->optArgSizeBytes(), zero);
  EXPECT_DEATH(h->entrySizeBytes(kDev, kTable), zero);
  EXPECT_DEATH(h->memoryEntrySizeBytes(kDev, kTable), zero);
  EXPECT_DEATH(h->numMemoryEntries(kDev, PhysicalTableId(1)), zero);
  EXPECT_DEATH(h->addHashTableEntry(nullptr), zero);
}

}  // namespace
}  // namespace Zorvek
