// Zorvek::Dal: option setters and their notifications, the coprocessor checker hook, the cache
// statistics helpers, the state dump and the base virtuals that derived DALs must supply.
#include "Zorvek/Dal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

namespace Zorvek {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

auto assertionText(const std::string& text) {
  return HasSubstr("Assertion failed: " + text + ", file");
}

// Answers a register id below offset 0x1000 and a table id (offset >> 12) above; offsets from
// 0xF000 have no type (0), which counts as a register.
class FakeHelper : public DalHelper {
 public:
  PhysicalResourceId resourceId(DeviceOffset offset, void*) const override {
    if (offset >= 0xF000) return {ResourceType::none_, offset};
    if (offset >= 0x1000) return {ResourceType::tableResource_, offset >> 12};
    return {ResourceType::registerResource_, offset};
  }
};

// Counts handleCoprocessorChecker() and opens the statistics helpers to the tests.
class TestDal : public Dal {
 public:
  using Dal::Dal;
  void handleCoprocessorChecker() override { ++checkerCalls; }
  using Dal::doUpdateCacheHitOnRead;
  using Dal::doUpdateCacheHitOnWrite;
  using Dal::doUpdateCacheMissOnRead;
  using Dal::doUpdateCacheMissOnWrite;
  int checkerCalls = 0;
};

// An observer of either kind (Dal::NotifieeConst or Dal::Notifiee) logging "<kind>:<callback>".
template <class Kind>
class Observer : public Kind {
 public:
  Observer(std::string kind, std::vector<std::string>* log) : kind_(kind + ":"), log_(log) {}
  void onReady() override { log_->push_back(kind_ + "onReady"); }
  void onReclaimWhenProgrammed() override { log_->push_back(kind_ + "onReclaimWhenProgrammed"); }
  void onHwAccessAllowed() override { log_->push_back(kind_ + "onHwAccessAllowed"); }

 private:
  std::string kind_;
  std::vector<std::string>* log_;
};

class DalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dalsLive_ = Dal::staticType().liveCount();
    dal_ = Kel::allocate<TestDal>(Kel::Name("x"));
    dal_->helperIs(Kel::allocate<FakeHelper>());
  }
  void TearDown() override {
    dal_ = nullptr;
    EXPECT_EQ(Dal::staticType().liveCount(), dalsLive_);
  }
  std::int64_t dalsLive_ = 0;
  Kel::Ptr<TestDal> dal_;
};

struct FlagCase {
  const char* name;
  void (Dal::*set)(bool);
  bool (Dal::*get)() const;
  bool initial;
  const char* callback;  // null: the setter only stores
};

class DalFlagTest : public DalTest, public ::testing::WithParamInterface<FlagCase> {};

TEST_P(DalFlagTest, SetterNotifiesEachObserverOnceOnChangeOnly) {
  const FlagCase& c = GetParam();
  std::vector<std::string> log;
  auto constObserver = Kel::allocate<Observer<Dal::NotifieeConst>>("const", &log);
  auto mutableObserver = Kel::allocate<Observer<Dal::Notifiee>>("mutable", &log);
  constObserver->notifierIs(dal_.ptr());
  mutableObserver->notifierIs(dal_.ptr());
  EXPECT_EQ(mutableObserver->notifier(), dal_);

  EXPECT_EQ((dal_.ptr()->*c.get)(), c.initial);
  (dal_.ptr()->*c.set)(c.initial);
  EXPECT_THAT(log, IsEmpty());
  (dal_.ptr()->*c.set)(!c.initial);
  (dal_.ptr()->*c.set)(!c.initial);
  EXPECT_EQ((dal_.ptr()->*c.get)(), !c.initial);
  std::vector<std::string> expected;
  if (c.callback)
    expected = {std::string("const:") + c.callback, std::string("mutable:") + c.callback};
  EXPECT_EQ(log, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Flags, DalFlagTest,
    ::testing::Values(FlagCase{"ready", &Dal::readyIs, &Dal::ready, false, "onReady"},
                      FlagCase{"reclaimWhenProgrammed", &Dal::reclaimWhenProgrammedIs,
                               &Dal::reclaimWhenProgrammed, false, "onReclaimWhenProgrammed"},
                      FlagCase{"hwAccessAllowed", &Dal::hwAccessAllowedIs, &Dal::hwAccessAllowed,
                               true, "onHwAccessAllowed"},
                      FlagCase{"blocking", &Dal::blockingIs, &Dal::blocking, false, nullptr},
                      FlagCase{"verifyEnabled", &Dal::verifyEnabledIs, &Dal::verifyEnabled, false,
                               nullptr},
                      FlagCase{"forceReadFromShadow", &Dal::forceReadFromShadowIs,
                               &Dal::forceReadFromShadow, false, nullptr},
                      FlagCase{"okToReadFromShadow", &Dal::okToReadFromShadowIs,
                               &Dal::okToReadFromShadow, true, nullptr},
                      FlagCase{"okToWriteToShadow", &Dal::okToWriteToShadowIs,
                               &Dal::okToWriteToShadow, true, nullptr},
                      FlagCase{"skipHwWriteIfShadowHit", &Dal::skipHwWriteIfShadowHitIs,
                               &Dal::skipHwWriteIfShadowHit, false, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DalTest, HelperIsReplacesTheHeldReference) {
  const Kel::Ptr<DalHelper> first = dal_->helper();
  const long before = first->references();
  dal_->helperIs(Kel::allocate<FakeHelper>());
  EXPECT_NE(dal_->helper(), first);
  EXPECT_EQ(first->references(), before - 1);
}

TEST_F(DalTest, CoprocessorCheckerIsRunsTheHookUnlessHandedItsOwnReference) {
  const auto checker = Kel::allocate<CoprocessorChecker>(Kel::Name("c"));
  dal_->coprocessorCheckerIs(checker);
  EXPECT_EQ(dal_->coprocessorChecker(), checker);
  dal_->coprocessorCheckerIs(Kel::Ptr<CoprocessorChecker>(checker));  // same value, new Ptr
  EXPECT_EQ(dal_->checkerCalls, 2);
  dal_->coprocessorCheckerIs(dal_->coprocessorChecker());
  EXPECT_EQ(dal_->checkerCalls, 2);
  dal_->coprocessorCheckerIs(nullptr);
  dal_->coprocessorCheckerIs(nullptr);
  EXPECT_EQ(dal_->coprocessorChecker(), nullptr);
  EXPECT_EQ(dal_->checkerCalls, 4);
}

// The totals of a Dal that are not zero and every entry of its collections (a zero entry
// too), as "name=value" or "name[id]=value", sorted.
std::vector<std::string> statistics(const Dal& d) {
  std::map<std::string, U64> all;
  for (const auto& [name, v] :
       {std::pair("readHits", d.cacheReadHits()), std::pair("readMisses", d.cacheReadMisses()),
        std::pair("writeHits", d.cacheWriteHits()), std::pair("writeMisses", d.cacheWriteMisses())})
    if (v) all[name] = v;
  auto add = [&](const char* name, const auto& col) {
    for (const auto& [k, v] : col) all[std::string(name) + "[" + std::to_string(k.id()) + "]"] = v;
  };
  add("readRegHits", d.cacheReadRegHitsCol());
  add("readRegMisses", d.cacheReadRegMissesCol());
  add("readTableHits", d.cacheReadTableHitsCol());
  add("readTableMisses", d.cacheReadTableMissesCol());
  add("writeTableHits", d.cacheWriteTableHitsCol());
  add("writeTableMisses", d.cacheWriteTableMissesCol());
  std::vector<std::string> out;
  for (const auto& [name, v] : all) out.push_back(name + "=" + std::to_string(v));
  return out;
}

struct StatisticsCase {
  const char* name;
  void (TestDal::*update)(DeviceOffset, void*);
  DeviceOffset offset;
  std::vector<std::string> expected;
};

class DalStatisticsTest : public DalTest, public ::testing::WithParamInterface<StatisticsCase> {};

TEST_P(DalStatisticsTest, CountsTheTotalAndTheResource) {
  (dal_.ptr()->*GetParam().update)(GetParam().offset, nullptr);
  EXPECT_EQ(statistics(*dal_), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Helpers, DalStatisticsTest,
    ::testing::Values(
        StatisticsCase{"ReadHitRegister",
                       &TestDal::doUpdateCacheHitOnRead,
                       0x10,
                       {"readHits=1", "readRegHits[16]=1"}},
        StatisticsCase{"ReadMissRegister",
                       &TestDal::doUpdateCacheMissOnRead,
                       0x10,
                       {"readMisses=1", "readRegMisses[16]=1"}},
        StatisticsCase{
            "WriteHitRegister", &TestDal::doUpdateCacheHitOnWrite, 0x10, {"writeHits=1"}},
        StatisticsCase{
            "WriteMissRegister", &TestDal::doUpdateCacheMissOnWrite, 0x10, {"writeMisses=1"}},
        StatisticsCase{"ReadHitTable",
                       &TestDal::doUpdateCacheHitOnRead,
                       0x3004,
                       {"readHits=1", "readTableHits[3]=1"}},
        StatisticsCase{"ReadMissTable",
                       &TestDal::doUpdateCacheMissOnRead,
                       0x3004,
                       {"readMisses=1", "readTableMisses[3]=1"}},
        StatisticsCase{"WriteHitTable",
                       &TestDal::doUpdateCacheHitOnWrite,
                       0x3004,
                       {"writeHits=1", "writeTableHits[3]=1"}},
        StatisticsCase{"WriteMissTable",
                       &TestDal::doUpdateCacheMissOnWrite,
                       0x3004,
                       {"writeMisses=1", "writeTableMisses[3]=1"}},
        StatisticsCase{"ReadMissUntypedCountsAsRegister",
                       &TestDal::doUpdateCacheMissOnRead,
                       0xF001,
                       {"readMisses=1", "readRegMisses[61441]=1"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DalTest, StatisticsAddToExistingCounts) {
  dal_->cacheReadHitsIs(5);
  dal_->cacheWriteTableHitsIs(PhysicalTableId(3), 40);
  dal_->doUpdateCacheHitOnRead(0x10, nullptr);
  dal_->doUpdateCacheHitOnRead(0x10, nullptr);
  dal_->doUpdateCacheHitOnWrite(0x3000, nullptr);
  dal_->cacheWriteMissesInc(7);
  EXPECT_THAT(statistics(*dal_), ElementsAre("readHits=7", "readRegHits[16]=2", "writeHits=1",
                                             "writeMisses=7", "writeTableHits[3]=41"));
  dal_->cacheReadRegHitsDel(PhysicalRegisterId(16));
  dal_->cacheWriteTableHitsDelAll();
  EXPECT_THAT(statistics(*dal_), ElementsAre("readHits=7", "writeHits=1", "writeMisses=7"));
}

// What showDalState writes, read back through a pipe.
std::string stateOf(Dal& d) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  d.showDalState(static_cast<U32>(fds[1]));
  close(fds[1]);
  std::string out;
  char buf[256];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  return out;
}

TEST_F(DalTest, ShowDalStateOfAFreshDal) {
  EXPECT_EQ(stateOf(*dal_),
            "'name':'x','hwAccessAllowed':True,'forceReadFromShadow':False,"
            "'okToReadFromShadow':True,'okToWriteToShadow':True,'skipHwWriteIfShadowHit':False,"
            "'verifyEnabled':False,'blocking':False,'cacheReadHits':0, 'cacheReadMisses':0, "
            "'cacheWriteHits':0, 'cacheWriteMisses':0, ");
}

TEST_F(DalTest, ShowDalStateFollowsFlagsAndCounters) {
  dal_->hwAccessAllowedIs(false);
  dal_->forceReadFromShadowIs(true);
  dal_->okToReadFromShadowIs(false);
  dal_->okToWriteToShadowIs(false);
  dal_->skipHwWriteIfShadowHitIs(true);
  dal_->verifyEnabledIs(true);
  dal_->blockingIs(true);
  dal_->readyIs(true);  // ready and reclaimWhenProgrammed are not printed
  dal_->reclaimWhenProgrammedIs(true);
  dal_->cacheReadHitsIs(1);
  dal_->cacheReadMissesIs(22);
  dal_->cacheWriteHitsIs(333);
  dal_->cacheWriteMissesIs(~0ull);
  EXPECT_EQ(stateOf(*dal_),
            "'name':'x','hwAccessAllowed':False,'forceReadFromShadow':True,"
            "'okToReadFromShadow':False,'okToWriteToShadow':False,'skipHwWriteIfShadowHit':True,"
            "'verifyEnabled':True,'blocking':True,'cacheReadHits':1, 'cacheReadMisses':22, "
            "'cacheWriteHits':333, 'cacheWriteMisses':18446744073709551615, ");
}

struct AbortCase {
  const char* name;
  void (*call)(Dal& d);
  const char* text;
};

class DalDeathTest : public ::testing::TestWithParam<AbortCase> {};

TEST_P(DalDeathTest, BaseVirtualAborts) {
  const Kel::Ptr<Dal> dal = Kel::allocate<Dal>(Kel::Name("base"));
  EXPECT_DEATH(GetParam().call(*dal), assertionText(GetParam().text));
}

constexpr const char* kDerived = "0 && \"Must be implemented by derived class\"";

INSTANTIATE_TEST_SUITE_P(
    Virtuals, DalDeathTest,
    ::testing::Values(
        AbortCase{"InitLocalCache", [](Dal& d) { d.initLocalCache(DeviceId(0), true); }, kDerived},
        AbortCase{"WaitForCompletion", [](Dal& d) { d.waitForCompletion(DeviceId(0)); }, kDerived},
        AbortCase{"WaitForCompletionDefaultDal",
                  [](Dal& d) { d.waitForCompletionDefaultDal(DeviceId(0)); }, kDerived},
        AbortCase{"HandleCoprocessorChecker", [](Dal& d) { d.handleCoprocessorChecker(); },
                  kDerived},
        AbortCase{"CoprocessorCheckerIsRunsTheHook",
                  [](Dal& d) { d.coprocessorCheckerIs(nullptr); }, kDerived},
        AbortCase{"DalWrite",
                  [](Dal& d) { d.dalWrite(oneDeviceMask(DeviceId(0)), 0, 4, nullptr, nullptr); },
                  "0"},
        AbortCase{"DalRead", [](Dal& d) { d.dalRead(DeviceId(0), 0, 4, nullptr, nullptr); }, "0"},
        AbortCase{
            "DalBulkWrite",
            [](Dal& d) { d.dalBulkWrite(oneDeviceMask(DeviceId(0)), 0, 4, nullptr, nullptr); },
            "0"},
        AbortCase{"DalBulkRead", [](Dal& d) { d.dalBulkRead(DeviceId(0), 0, 4, nullptr, nullptr); },
                  "0"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Zorvek
