// Zorvek::DalHelper: the default bodies, and the entry geometry of a memory entry.
#include "Zorvek/DalHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace Zorvek {
namespace {

using ::testing::HasSubstr;

auto assertionText(const std::string& text) {
  return HasSubstr("Assertion failed: " + text + ", file");
}

const PhysicalResourceId kTable(ResourceType::tableResource_, 0x42);

// A helper of a device whose tables have memory entries of m bytes packing entries of t bytes.
class GeometryHelper : public DalHelper {
 public:
  GeometryHelper(U32 m, U32 t) : m_(m), t_(t) {}
  U32 memoryEntrySizeBytes(DeviceId, const PhysicalResourceId&) const override { return m_; }
  U32 entrySizeBytes(DeviceId, const PhysicalResourceId&) const override { return t_; }

 private:
  U32 m_, t_;
};

TEST(DalHelperTest, DefaultsAnswerForADeviceWithNoSpecialNeeds) {
  const auto helper = Kel::allocate<DalHelper>();
  std::int16_t status = 0x5a5;
  EXPECT_TRUE(helper->deviceValid(DeviceId(3), &status));
  EXPECT_EQ(status, 0x5a5);
  EXPECT_EQ(helper->normalizedResourceId(kTable), kTable);
  EXPECT_EQ(helper->nextPridInstance(DeviceId(0), kTable), PhysicalResourceId());
  EXPECT_TRUE(helper->nextPridInstance(DeviceId(0), kTable).isNull());
}

struct DefaultEntryCase {
  std::vector<unsigned char> bytes;
  bool isDefault;
};

class DalHelperDefaultEntryTest : public ::testing::TestWithParam<DefaultEntryCase> {};

TEST_P(DalHelperDefaultEntryTest, LooksOnlyAtWholeWords) {
  std::vector<unsigned char> bytes = GetParam().bytes;
  EXPECT_EQ(Kel::allocate<DalHelper>()->isDefaultEntry(DeviceId(0), bytes.data(),
                                                       static_cast<U32>(bytes.size()), kTable),
            GetParam().isDefault);
}

INSTANTIATE_TEST_SUITE_P(Entries, DalHelperDefaultEntryTest,
                         ::testing::Values(DefaultEntryCase{{}, true},
                                           DefaultEntryCase{{1, 2, 3}, true},
                                           DefaultEntryCase{{0, 0, 0, 0, 9, 9}, true},
                                           DefaultEntryCase{{0, 0, 0, 0, 0, 0, 0, 0}, true},
                                           DefaultEntryCase{{0, 0, 0, 1}, false},
                                           DefaultEntryCase{{0, 0, 0, 0, 1, 0, 0, 0, 0}, false}));

struct GeometryCase {
  U32 m, t, entries;
};

class DalHelperGeometryTest : public ::testing::TestWithParam<GeometryCase> {};

TEST_P(DalHelperGeometryTest, PacksWholeEntriesIntoAMemoryEntry) {
  const GeometryCase& c = GetParam();
  const auto helper = Kel::allocate<GeometryHelper>(c.m, c.t);
  EXPECT_EQ(helper->numEntriesPerMemoryEntry(DeviceId(0), kTable), c.entries);
  const unsigned char memoryEntry[64] = {};
  for (U32 n = 0; n < c.entries; ++n)
    EXPECT_EQ(helper->nthEntry(DeviceId(0), kTable, memoryEntry, n),
              static_cast<const void*>(memoryEntry + n * c.t));
}

INSTANTIATE_TEST_SUITE_P(Sizes, DalHelperGeometryTest,
                         ::testing::Values(GeometryCase{12, 16, 0}, GeometryCase{32, 8, 4},
                                           GeometryCase{36, 8, 4}, GeometryCase{16, 16, 1},
                                           GeometryCase{0, 4, 0}));

TEST(DalHelperDeathTest, GeometryOutsideTheContractAborts) {
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(24, 6)->numEntriesPerMemoryEntry(DeviceId(0), kTable),
               assertionText("t % sizeof( U32 ) == 0"));
  const unsigned char memoryEntry[32] = {};
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(32, 8)->nthEntry(DeviceId(0), kTable, memoryEntry, 4),
               assertionText("n < numEntriesPerMemoryEntry( devId, rid )"));
  EXPECT_DEATH(Kel::allocate<GeometryHelper>(12, 16)->nthEntry(DeviceId(0), kTable, memoryEntry, 0),
               assertionText("n < numEntriesPerMemoryEntry( devId, rid )"));
}

struct AbortCase {
  const char* name;
  void (*call)(DalHelper& h);
};

class DalHelperDefaultDeathTest : public ::testing::TestWithParam<AbortCase> {};

TEST_P(DalHelperDefaultDeathTest, DefaultOnlyTheDeviceFamilyCanAnswerAborts) {
  const auto helper = Kel::allocate<DalHelper>();
  EXPECT_DEATH(GetParam().call(*helper), assertionText("0"));
}

const DeviceId kDev(0);

INSTANTIATE_TEST_SUITE_P(
    Defaults, DalHelperDefaultDeathTest,
    ::testing::Values(
        AbortCase{"ResourceType", [](DalHelper& h) { h.resourceType(0, nullptr); }},
        AbortCase{"ResourceExists", [](DalHelper& h) { h.resourceExists(kDev, kTable); }},
        AbortCase{"ResourceId", [](DalHelper& h) { h.resourceId(0, nullptr); }},
        AbortCase{"SetOptArg", [](DalHelper& h) { h.setOptArg(kDev, kTable, 0, nullptr); }},
        AbortCase{"IsHashTable", [](DalHelper& h) { h.isHashTable(kDev, kTable); }},
        AbortCase{"Cacheable", [](DalHelper& h) { h.cacheable(kDev, kTable); }},
        AbortCase{"ShadowRead", [](DalHelper& h) { h.shadowRead(kDev, 0, 4, nullptr, nullptr); }},
        AbortCase{"ShadowWrite", [](DalHelper& h) { h.shadowWrite(kDev, 0, 4, nullptr, nullptr); }},
        AbortCase{"PhysicalAddr", [](DalHelper& h) { h.physicalAddr(kDev, nullptr); }},
        AbortCase{"OptArgSizeBytes", [](DalHelper& h) { h.optArgSizeBytes(); }},
        AbortCase{"EntrySizeBytes", [](DalHelper& h) { h.entrySizeBytes(kDev, kTable); }},
        AbortCase{"MemoryEntrySizeBytes",
                  [](DalHelper& h) { h.memoryEntrySizeBytes(kDev, kTable); }},
        AbortCase{"NumMemoryEntries",
                  [](DalHelper& h) { h.numMemoryEntries(kDev, PhysicalTableId(1)); }},
        AbortCase{"AddHashTableEntry", [](DalHelper& h) { h.addHashTableEntry(nullptr); }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Zorvek
