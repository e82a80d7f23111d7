// Zorvek::Dal: option setters and their notifications, the coprocessor checker hook, the cache
// statistics helpers, the state dump and the base virtuals that derived DALs must supply.
#include "Zorvek/Dal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace ::testing;

using doubles::assertion;
using doubles::dumpOf;

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

// The four totals (read hits, read misses, write hits, write misses), then every entry of the
// collections (a zero entry too) as "name[id]=value".
std::string statistics(const Dal& d) {
  std::ostringstream out;
  out << d.cacheReadHits() << " " << d.cacheReadMisses() << " " << d.cacheWriteHits() << " "
      << d.cacheWriteMisses();
  auto add = [&](const char* name, const auto& col) {
    for (const auto& [k, v] : col) out << " " << name << "[" << k.id() << "]=" << v;
  };
  add("readRegHits", d.cacheReadRegHitsCol()), add("readRegMisses", d.cacheReadRegMissesCol());
  add("readTableHits", d.cacheReadTableHitsCol()),
      add("readTableMisses", d.cacheReadTableMissesCol());
  add("writeTableHits", d.cacheWriteTableHitsCol());
  add("writeTableMisses", d.cacheWriteTableMissesCol());
  return out.str();
}

// Each helper runs twice: it adds to the counts. Writes have no per-register counters, by
// design; an untyped resource counts as a register.
TEST_F(DalTest, StatisticsHelpersCountTheTotalAndTheResource) {
  for (auto [update, offset, expected] :
       std::vector<std::tuple<void (TestDal::*)(DeviceOffset, void*), DeviceOffset, const char*>>{
           {&TestDal::doUpdateCacheHitOnRead, 0x10, "2 0 0 0 readRegHits[16]=2"},
           {&TestDal::doUpdateCacheMissOnRead, 0x10, "0 2 0 0 readRegMisses[16]=2"},
           {&TestDal::doUpdateCacheHitOnWrite, 0x10, "0 0 2 0"},
           {&TestDal::doUpdateCacheMissOnWrite, 0x10, "0 0 0 2"},
           {&TestDal::doUpdateCacheHitOnRead, 0x3004, "2 0 0 0 readTableHits[3]=2"},
           {&TestDal::doUpdateCacheMissOnRead, 0x3004, "0 2 0 0 readTableMisses[3]=2"},
           {&TestDal::doUpdateCacheHitOnWrite, 0x3004, "0 0 2 0 writeTableHits[3]=2"},
           {&TestDal::doUpdateCacheMissOnWrite, 0x3004, "0 0 0 2 writeTableMisses[3]=2"},
           {&TestDal::doUpdateCacheMissOnRead, 0xF001, "0 2 0 0 readRegMisses[61441]=2"}}) {
    const Kel::Ptr<TestDal> d = newDal();
    for (int twice = 0; twice < 2; ++twice) (d.ptr()->*update)(offset, nullptr);
    EXPECT_EQ(statistics(*d), expected) << std::hex << offset;
  }
}

std::string stateOf(Dal& d) {
  return dumpOf([&](U32 fd) { d.showDalState(fd); });
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

// ready, reclaimWhenProgrammed and the collections are not part of the dump.
TEST_F(DalTest, ShowDalStatePrintsEveryFlagAndTotalUnderItsOwnKey) {
  dal_->cacheReadHitsIs(1);
  dal_->cacheReadMissesIs(22);
  dal_->cacheWriteHitsIs(333);
  dal_->cacheWriteMissesIs(~0ull);
  EXPECT_EQ(stateOf(*dal_),
            "'name':'x','hwAccessAllowed':True,'forceReadFromShadow':False,"
            "'okToReadFromShadow':True,'okToWriteToShadow':True,'skipHwWriteIfShadowHit':False,"
            "'verifyEnabled':False,'blocking':False,'cacheReadHits':1, 'cacheReadMisses':22, "
            "'cacheWriteHits':333, 'cacheWriteMisses':18446744073709551615, ");
  // Each flag set alone, to the value that is not its default.
  for (auto [set, shown] : std::vector<std::pair<void (Dal::*)(bool), std::string>>{
           {&Dal::hwAccessAllowedIs, "'hwAccessAllowed':False"},
           {&Dal::forceReadFromShadowIs, "'forceReadFromShadow':True"},
           {&Dal::okToReadFromShadowIs, "'okToReadFromShadow':False"},
           {&Dal::okToWriteToShadowIs, "'okToWriteToShadow':False"},
           {&Dal::skipHwWriteIfShadowHitIs, "'skipHwWriteIfShadowHit':True"},
           {&Dal::verifyEnabledIs, "'verifyEnabled':True"},
           {&Dal::blockingIs, "'blocking':True"}}) {
    const Kel::Ptr<TestDal> d = newDal();
    (d.ptr()->*set)(shown.ends_with("True"));
    EXPECT_THAT(stateOf(*d), HasSubstr(shown));
  }
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
