// SimDalHelper: the optArg checks of a verifying DAL. Ids, sizes, replicated instances, the
// device shadow and the bulk buffers answer every access of the assembled-tree and model
// tests.
#include "sim/SimDalHelper.h"

#include <gmock/gmock.h>

#include "dal/DalDoubles.h"
#include "sim/TestGeometry.h"

namespace sim {
namespace {

using namespace sim::test;

constexpr DeviceId kDev0{0}, kDev5{5};

TEST(SimDalHelperDeathTest, VerifyAbortsWithTheBrokenRule) {
  using Zorvek::doubles::assertion;
  const Kel::Ptr<SimDalHelper> helper = Kel::allocate<SimDalHelper>();
  for (DeviceId devId : {kDev5, kDev0}) helper->deviceIs(devId, testGeometry());
  SimOptArg a;
  helper->setOptArg(kDev0, kRoute1, kRoute1Base + 16, &a);
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
