// SimDalHelper: the physical address of a bulk access and the optArg checks. Ids, sizes,
// replicated instances and the device shadow answer every access of the assembled-tree,
// replay and model tests.
#include "sim/SimDalHelper.h"

#include <gmock/gmock.h>

#include <array>

#include "dal/DalDoubles.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;

constexpr DeviceId kDev0{0}, kDev5{5};

class SimDalHelperTest : public ::testing::Test {
 protected:
  SimDalHelperTest() {
    for (DeviceId devId : {kDev5, kDev0}) helper->deviceIs(devId, testGeometry());
  }
  SimOptArg optArg(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset) const {
    SimOptArg a;
    helper->setOptArg(devId, rid, offset, &a);
    return a;
  }
  Kel::Ptr<SimDalHelper> helper = Kel::allocate<SimDalHelper>();
};

TEST_F(SimDalHelperTest, PhysicalAddrIsTheNamedBulkBufferElseTheDmaBufferOfTheDevice) {
  std::array<U8, 64> entries{};
  SimOptArg a = optArg(kDev0, kRoute0, 0);
  EXPECT_EQ(helper->physicalAddr(kDev0, &a), PhysicalAddr(helper->dmaBuffer(kDev0)));
  EXPECT_EQ(helper->physicalAddr(kDev5, nullptr), PhysicalAddr(helper->dmaBuffer(kDev5)));
  EXPECT_NE(helper->dmaBuffer(kDev0), helper->dmaBuffer(kDev5));
  SimDalHelper::bulkBufferIs(&a, entries.data());
  EXPECT_EQ(helper->physicalAddr(kDev0, &a), PhysicalAddr(entries.data()));
}

using SimDalHelperDeathTest = SimDalHelperTest;

TEST_F(SimDalHelperDeathTest, VerifyAbortsWithTheBrokenRule) {
  using Zorvek::doubles::assertion;
  SimOptArg a = optArg(kDev0, kRoute1, kRoute1Base + 16);
  // Checks of an optArg filled for route #1 entry 1: (device, id, offset, assertion text)
  for (const auto& [devId, rid, offset, text] :
       {std::tuple(kDev5, kRoute0, DeviceOffset(4), "optArg->devId == devId"),
        {kDev0, kRoute0, 16, "optArg names rid"},
        {kDev0, kRoute1, 16, "rid is the resource at offset"},
        {kDev0, kRoute1, kRoute1Base + 32, "optArg->entryIndex is the entry at offset"}})
    EXPECT_DEATH(helper->verifyOptArgMapping(devId, rid, offset, &a), assertion(text));
  a.magic = 0;
  EXPECT_DEATH(helper->verifyOptArgMapping(kDev0, kRoute1, kRoute1Base + 16, &a),
               assertion("optArg->magic == kSimOptArgMagic"));
}

}  // namespace
}  // namespace sim
