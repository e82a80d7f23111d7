// Zorvek::Dal: option setters and their notifications, the coprocessor checker hook, the cache
// statistics helpers and the base virtuals that derived DALs must supply. (The state dump of
// every DAL is compared with a golden copy by the assembled-tree tests.)
#include "Zorvek/Dal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace ::testing;

using doubles::assertion;

// Answers a register id below offset 0x1000 and a table id (offset >> 12) above; offsets from
// 0xF000 have no type (0), which counts as a register.
struct FakeHelper : DalHelper {
  PhysicalResourceId resourceId(DeviceOffset offset, void*) const override {
    if (offset >= 0xF000) return {ResourceType::none_, offset};
    if (offset >= 0x1000) return {ResourceType::tableResource_, offset >> 12};
    return {ResourceType::registerResource_, offset};
  }
};

// Counts handleCoprocessorChecker() and opens the statistics helpers to the tests.
struct TestDal : Dal {
  using Dal::Dal;
  void handleCoprocessorChecker() override { ++checkerCalls; }
  using Dal::doUpdateCacheHitOnRead;
  using Dal::doUpdateCacheHitOnWrite;
  using Dal::doUpdateCacheMissOnRead;
  using Dal::doUpdateCacheMissOnWrite;
  int checkerCalls = 0;
};

// Logs its callbacks. Dal::Notifiee adds only write access to Dal::NotifieeConst.
struct Observer : Dal::Notifiee {
  void onReady() override { log += "onReady "; }
  void onReclaimWhenProgrammed() override { log += "onReclaimWhenProgrammed "; }
  void onHwAccessAllowed() override { log += "onHwAccessAllowed "; }
  std::string log;
};

Kel::Ptr<TestDal> newDal() {
  auto d = Kel::allocate<TestDal>(Kel::Name("x"));
  d->helperIs(Kel::allocate<FakeHelper>());
  return d;
}

struct DalTest : ::testing::Test {
  Kel::Ptr<TestDal> dal_ = newDal();
};

TEST_F(DalTest, CoprocessorCheckerIsRunsTheHookUnlessHandedItsOwnReference) {
  const auto checker = Kel::allocate<CoprocessorChecker>(Kel::Name("c"));
  const Kel::Ptr<CoprocessorChecker> none;
  dal_->coprocessorCheckerIs(checker);
  dal_->coprocessorCheckerIs(Kel::Ptr<CoprocessorChecker>(checker));  // same value, new Ptr: runs
  dal_->coprocessorCheckerIs(dal_->coprocessorChecker());             // its own reference: not
  EXPECT_EQ(dal_->coprocessorChecker(), checker);
  EXPECT_EQ(dal_->checkerCalls, 2);
  dal_->coprocessorCheckerIs(none);
  dal_->coprocessorCheckerIs(none);
  EXPECT_EQ(dal_->coprocessorChecker(), none);
  EXPECT_EQ(dal_->checkerCalls, 4);
}

// A statistics collection as resource id -> count.
template <typename Col>
std::map<U64, U64> byId(const Col& col) {
  std::map<U64, U64> out;
  for (const auto& [rid, count] : col) out[rid.id()] = count;
  return out;
}

// Helper k runs k + 1 times at each offset, so that no two counts are alike. Writes have no
// per-register counters, by design; an untyped resource counts as a register.
TEST_F(DalTest, StatisticsHelpersCountTheTotalAndTheResource) {
  const std::vector<void (TestDal::*)(DeviceOffset, void*)> helpers = {
      &TestDal::doUpdateCacheHitOnRead, &TestDal::doUpdateCacheMissOnRead,
      &TestDal::doUpdateCacheHitOnWrite, &TestDal::doUpdateCacheMissOnWrite};
  for (DeviceOffset offset : {0x10u, 0x3004u, 0xF001u})
    for (std::size_t k = 0; k < helpers.size(); ++k)
      for (std::size_t n = 0; n <= k; ++n) (dal_.ptr()->*helpers[k])(offset, nullptr);
  EXPECT_EQ(dal_->cacheReadHits(), 3u);
  EXPECT_EQ(dal_->cacheReadMisses(), 6u);
  EXPECT_EQ(dal_->cacheWriteHits(), 9u);
  EXPECT_EQ(dal_->cacheWriteMisses(), 12u);
  EXPECT_THAT(byId(dal_->cacheReadRegHitsCol()), ElementsAre(Pair(0x10, 1), Pair(0xF001, 1)));
  EXPECT_THAT(byId(dal_->cacheReadRegMissesCol()), ElementsAre(Pair(0x10, 2), Pair(0xF001, 2)));
  EXPECT_THAT(byId(dal_->cacheReadTableHitsCol()), ElementsAre(Pair(3, 1)));
  EXPECT_THAT(byId(dal_->cacheReadTableMissesCol()), ElementsAre(Pair(3, 2)));
  EXPECT_THAT(byId(dal_->cacheWriteTableHitsCol()), ElementsAre(Pair(3, 3)));
  EXPECT_THAT(byId(dal_->cacheWriteTableMissesCol()), ElementsAre(Pair(3, 4)));
}

TEST_F(DalTest, FlagSettersNotifyOnChangeOnly) {
  const auto observer = Kel::allocate<Observer>();
  observer->notifierIs(dal_.ptr());
  // Their defaults first (no change), then a change, set twice.
  for (bool v : {false, true, true}) {
    dal_->readyIs(v);
    dal_->reclaimWhenProgrammedIs(v);
    dal_->hwAccessAllowedIs(!v);
  }
  EXPECT_EQ(observer->log, "onReady onReclaimWhenProgrammed onHwAccessAllowed ");
}

// Both texts are shared by every body a derived class must supply.
TEST(DalDeathTest, BaseVirtualAborts) {
  const Kel::Ptr<Dal> dal = Kel::allocate<Dal>(Kel::Name("base"));
  EXPECT_DEATH(dal->waitForCompletion(DeviceId(0)),
               assertion("0 && \"Must be implemented by derived class\""));
  EXPECT_DEATH(dal->dalRead(DeviceId(0), 0, 4, nullptr, nullptr), assertion("0"));
}

}  // namespace
}  // namespace Zorvek
