// SimDalHelper: the DalHelper contract over the geometry (ids, replicated instances, sizes),
// the device shadow, the optArg layout and its checks, and the physical address of a bulk
// access, which a DAL bulk command carries from the caller's buffer to the chip and back.
#include "sim/SimDalHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>

#include "Zorvek/RequesterDal.h"
#include "Zorvek/SchanRequester.h"
#include "sim/SimChip.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr DeviceId kDev0{0};
constexpr DeviceId kDev5{5};
// Device 5 has a geometry of its own: one table 0x10 of 2 entries of 4 bytes.
Kel::Ptr<Geometry> smallGeometry() {
  return Kel::allocate<Geometry>(Kel::Name("small"),
                                 std::vector<TableSpec>{{"t", 0x10, 4, 4, 2, 1, false, true}},
                                 std::vector<RegisterSpec>{});
}

class SimDalHelperTest : public ::testing::Test {
 protected:
  SimDalHelperTest() {
    helper->deviceIs(kDev5, smallGeometry());  // added first, yet device 0 is the default
    helper->deviceIs(kDev0, testGeometry());
  }
  SimOptArg optArg(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset) const {
    SimOptArg a;
    helper->setOptArg(devId, rid, offset, &a);
    return a;
  }
  Kel::Ptr<SimDalHelper> helper = Kel::allocate<SimDalHelper>();
};

struct InstanceCase {
  PhysicalResourceId rid;
  PhysicalResourceId normalized;
  PhysicalResourceId next;
};

class SimDalHelperInstanceTest : public SimDalHelperTest,
                                 public ::testing::WithParamInterface<InstanceCase> {};

TEST_P(SimDalHelperInstanceTest, NormalisesToTheBaseAndWalksToTheNextInstance) {
  const InstanceCase& c = GetParam();
  EXPECT_EQ(helper->normalizedResourceId(c.rid), c.normalized);
  EXPECT_EQ(helper->nextPridInstance(kDev0, c.rid), c.next);
}

INSTANTIATE_TEST_SUITE_P(Resources, SimDalHelperInstanceTest,
                         ::testing::Values(InstanceCase{kRoute0, kRoute0, kRoute1},
                                           InstanceCase{kRoute1, kRoute0, {}},
                                           InstanceCase{kHashed, kHashed, {}},
                                           InstanceCase{kCtrl, kCtrl, {}}));

TEST_F(SimDalHelperTest, UnknownIdNormalisesToItselfAndHasNoNextInstance) {
  const PhysicalResourceId unknown{ResourceType::tableResource_, 0x77};
  EXPECT_EQ(helper->normalizedResourceId(unknown), unknown);
  EXPECT_FALSE(helper->resourceExists(kDev0, unknown));
  EXPECT_THROW(helper->nextPridInstance(kDev0, unknown), GeometryError);
}

TEST_F(SimDalHelperTest, AnswersResourcesFromTheGeometryOfTheDevice) {
  EXPECT_EQ(helper->resourceId(kRoute1Base + 20, nullptr), kRoute1);
  EXPECT_EQ(helper->resourceType(kCtrlBase, nullptr), ResourceType::registerResource_);
  EXPECT_EQ(helper->resourceType(kSpaceBytes, nullptr), ResourceType::none_);
  EXPECT_THROW(helper->resourceId(kSpaceBytes, nullptr), GeometryError);
  EXPECT_TRUE(helper->resourceExists(kDev0, kStat));
  EXPECT_FALSE(helper->resourceExists(kDev5, kStat));
  EXPECT_FALSE(helper->resourceExists(DeviceId(9), kRoute0));

  // The optArg names the device whose geometry answers.
  SimOptArg onDev5 = optArg(kDev5, kRoute0, 4);
  EXPECT_EQ(helper->resourceId(4, &onDev5), kRoute0);
  EXPECT_EQ(helper->resourceId(4, nullptr), kRoute0);
  EXPECT_THROW(helper->resourceId(8, &onDev5), GeometryError);
  EXPECT_EQ(helper->resourceType(kCtrlBase, &onDev5), ResourceType::none_);
}

TEST_F(SimDalHelperTest, AnswersSizesAndFlagsPerDevice) {
  EXPECT_EQ(helper->entrySizeBytes(kDev0, kRoute1), 8u);
  EXPECT_EQ(helper->memoryEntrySizeBytes(kDev0, kRoute1), 16u);
  EXPECT_EQ(helper->numEntriesPerMemoryEntry(kDev0, kRoute1), 2u);
  EXPECT_EQ(helper->numMemoryEntries(kDev0, Zorvek::PhysicalTableId(0x20)), 3u);
  EXPECT_EQ(helper->memoryEntrySizeBytes(kDev0, kStat), 8u);
  EXPECT_TRUE(helper->cacheable(kDev0, kRoute0));
  EXPECT_FALSE(helper->cacheable(kDev0, kHashed));
  EXPECT_TRUE(helper->isHashTable(kDev0, kHashed));
  EXPECT_FALSE(helper->isHashTable(kDev0, kRoute0));
  EXPECT_TRUE(helper->isHashTable(kDev5, kRoute0));
  EXPECT_EQ(helper->memoryEntrySizeBytes(kDev5, kRoute0), 4u);
  EXPECT_THAT(
      [&] {
        helper->cacheable(kDev0, {ResourceType::tableResource_, 0x77});
      },
      ::testing::ThrowsMessage<GeometryError>(
          ::testing::StrEq("SimDalHelper: device 0 has no resource 0x77 of type 1")));
}

struct ShadowCase {
  const char* what;
  DeviceId devId;
  DeviceOffset offset;
  U16 size;
  S32 result;
};
void PrintTo(const ShadowCase& c, std::ostream* os) { *os << c.what; }

class SimDalHelperShadowTest : public SimDalHelperTest,
                               public ::testing::WithParamInterface<ShadowCase> {};

TEST_P(SimDalHelperShadowTest, ServesOnlyAccessesInsideOneResource) {
  const ShadowCase& c = GetParam();
  std::array<U8, 16> data;
  data.fill(0x5C);
  EXPECT_EQ(helper->shadowWrite(c.devId, c.offset, c.size, data.data(), nullptr), c.result);
  std::array<U8, 16> back{};
  EXPECT_EQ(helper->shadowRead(c.devId, c.offset, c.size, back.data(), nullptr), c.result);
  EXPECT_EQ(std::memcmp(back.data(), data.data(), c.size) == 0, c.result == 0);
}

INSTANTIATE_TEST_SUITE_P(Accesses, SimDalHelperShadowTest,
                         ::testing::Values(ShadowCase{"TableEntry", kDev0, kRoute1Base, 16, 0},
                                           ShadowCase{"Register", kDev0, kStatBase, 8, 0},
                                           ShadowCase{"OtherGeometry", kDev5, 4, 4, 0},
                                           ShadowCase{"AcrossTwoResources", kDev0, 56, 16, -1},
                                           ShadowCase{"BeyondTheSpace", kDev0, kSpaceBytes, 1, -1},
                                           ShadowCase{"BeyondTheOtherGeometry", kDev5, 8, 4, -1},
                                           ShadowCase{"NoSuchDevice", DeviceId(9), 0, 4, -1}),
                         [](const auto& info) { return std::string(info.param.what); });

TEST_F(SimDalHelperTest, ShadowsOfDevicesAreSeparate) {
  const std::array<U8, 4> data{1, 2, 3, 4};
  ASSERT_EQ(helper->shadowWrite(kDev5, 0, 4, data.data(), nullptr), 0);
  std::array<U8, 4> dev0{9, 9, 9, 9};
  ASSERT_EQ(helper->shadowRead(kDev0, 0, 4, dev0.data(), nullptr), 0);
  EXPECT_THAT(dev0, Each(0));
}

TEST_F(SimDalHelperTest, OptArgRoundTripsByteByByte) {
  std::array<U8, 40> raw;
  raw.fill(0xEE);
  ASSERT_EQ(helper->optArgSizeBytes(), 32u);
  helper->setOptArg(kDev0, kRoute1, kRoute1Base + 2 * 16 + 3, raw.data() + 1);
  // Magic "SIMA", type 1, id 0x11, entry 2, device 0, no bulk buffer; nothing beyond 32 bytes.
  EXPECT_THAT(std::vector<U8>(raw.begin(), raw.begin() + 34),
              ElementsAre(0xEE, 'S', 'I', 'M', 'A', 1, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0,
                          0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xEE));
  helper->verifyOptArgMapping(kDev0, kRoute1, kRoute1Base + 2 * 16, raw.data() + 1);
  helper->verifyOptArgMapping(kDev0, kRoute1, kRoute1Base, nullptr);
}

TEST_F(SimDalHelperTest, PhysicalAddrIsTheNamedBulkBufferElseTheDmaBuffer) {
  std::array<U8, 64> entries{};
  SimOptArg a = optArg(kDev0, kRoute0, 0);
  EXPECT_EQ(helper->physicalAddr(kDev0, &a),
            reinterpret_cast<PhysicalAddr>(helper->dmaBuffer(kDev0)));
  EXPECT_EQ(helper->physicalAddr(kDev5, nullptr),
            reinterpret_cast<PhysicalAddr>(helper->dmaBuffer(kDev5)));
  EXPECT_NE(helper->dmaBuffer(kDev0), helper->dmaBuffer(kDev5));
  SimDalHelper::bulkBufferIs(&a, entries.data());
  EXPECT_EQ(helper->physicalAddr(kDev0, &a), reinterpret_cast<PhysicalAddr>(entries.data()));
  EXPECT_THROW(helper->physicalAddr(DeviceId(9), nullptr), GeometryError);
}

TEST_F(SimDalHelperTest, RecordsHashTableEntries) {
  const HashTableEntry e1{kDev0, kHashed, 2, 0xABCD};
  const HashTableEntry e2{kDev5, kRoute0, 1, 0x42};
  helper->addHashTableEntry(&e1);
  helper->addHashTableEntry(&e2);
  EXPECT_THAT(helper->hashTableEntries(), ElementsAre(e1, e2));
}

TEST_F(SimDalHelperTest, BulkCommandsMoveEntriesBetweenTheCallersBufferAndTheChip) {
  auto chip = Kel::allocate<SimChip>(kDev0, testGeometry());
  Zorvek::schanBackendIs(chip);
  auto status = Kel::allocate<Zorvek::DalProcessingStatus>(Zorvek::DalId(0));
  auto requester = Kel::allocate<Zorvek::SchanRequester>("a1-Schan-Queue", 1, 4, Zorvek::DalId(0),
                                                         status, nullptr, 1);
  auto dal = Zorvek::requesterDalFactory("dal", requester);
  dal->helperIs(helper);
  dal->okToReadFromShadowIs(false);
  dal->okToWriteToShadowIs(false);

  std::array<U8, 48> out;
  for (U32 i = 0; i < out.size(); ++i) out[i] = static_cast<U8>(i);
  SimOptArg a = optArg(kDev0, kRoute1, kRoute1Base + 16);
  SimDalHelper::bulkBufferIs(&a, out.data());
  EXPECT_EQ(dal->dalBulkWrite(Zorvek::oneDeviceMask(kDev0), kRoute1Base + 16, 48, out.data(), &a),
            0);
  EXPECT_EQ(chip->entry(kRoute1, 3)[15], 47);

  std::array<U8, 32> in{};
  a = optArg(kDev0, kRoute1, kRoute1Base + 32);
  SimDalHelper::bulkBufferIs(&a, in.data());
  EXPECT_EQ(dal->dalBulkRead(kDev0, kRoute1Base + 32, 32, in.data(), &a), 0);
  Zorvek::schanBackendIs(nullptr);
  EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin() + 16));
}

struct MisuseCase {
  const char* what;
  std::function<void(SimDalHelper&, SimOptArg&)> misuse;
  const char* text;
};
void PrintTo(const MisuseCase& c, std::ostream* os) { *os << c.what; }

class SimDalHelperDeathTest : public SimDalHelperTest,
                              public ::testing::WithParamInterface<MisuseCase> {};

TEST_P(SimDalHelperDeathTest, AbortsWithTheBrokenRule) {
  SimOptArg a = optArg(kDev0, kRoute1, kRoute1Base + 16);
  EXPECT_DEATH(GetParam().misuse(*helper, a),
               HasSubstr(std::string("Assertion failed: ") + GetParam().text + ", file"));
}

INSTANTIATE_TEST_SUITE_P(
    Misuses, SimDalHelperDeathTest,
    ::testing::Values(
        MisuseCase{"NotFilled",
                   [](SimDalHelper& h, SimOptArg& a) {
                     a.magic = 0;
                     h.verifyOptArgMapping(kDev0, kRoute1, kRoute1Base + 16, &a);
                   },
                   "optArg->magic == kSimOptArgMagic"},
        MisuseCase{
            "OtherDevice",
            [](SimDalHelper& h, SimOptArg& a) { h.verifyOptArgMapping(kDev5, kRoute0, 4, &a); },
            "optArg->devId == devId"},
        MisuseCase{
            "OtherResource",
            [](SimDalHelper& h, SimOptArg& a) { h.verifyOptArgMapping(kDev0, kRoute0, 16, &a); },
            "optArg names rid"},
        MisuseCase{
            "ResourceNotAtOffset",
            [](SimDalHelper& h, SimOptArg& a) { h.verifyOptArgMapping(kDev0, kRoute1, 16, &a); },
            "rid is the resource at offset"},
        MisuseCase{"OtherEntry",
                   [](SimDalHelper& h, SimOptArg& a) {
                     h.verifyOptArgMapping(kDev0, kRoute1, kRoute1Base + 32, &a);
                   },
                   "optArg->entryIndex is the entry at offset"},
        MisuseCase{"SetForAnUnknownResource",
                   [](SimDalHelper& h, SimOptArg& a) { h.setOptArg(kDev5, kStat, 0, &a); },
                   "resourceExists( devId, rid )"},
        MisuseCase{"SetForAnOffsetOutsideTheResource",
                   [](SimDalHelper& h, SimOptArg& a) { h.setOptArg(kDev0, kRoute1, 0, &a); },
                   "offset lies in rid"},
        MisuseCase{"HashEntryOfADirectTable",
                   [](SimDalHelper& h, SimOptArg&) {
                     const HashTableEntry e{kDev0, kRoute0, 0, 1};
                     h.addHashTableEntry(&e);
                   },
                   "isHashTable( entry.devId, entry.table )"}),
    [](const auto& info) { return std::string(info.param.what); });

}  // namespace
}  // namespace sim
