// RequesterDal: which requester command an access becomes (if any) under the policy flags,
// the cache statistics it leaves, bulk arithmetic, the readiness machine, traced texts and
// assertions. The requester is a strict mock, so a command that must not be sent fails the
// test; the shadow lives in a fake device helper.
#include "Zorvek/RequesterDal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace doubles;
using ::testing::_;
using ::testing::DoAll;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Return;
using ::testing::SaveArg;
using ::testing::StrictMock;

const auto byName = [](const auto& info) { return std::string(std::get<0>(info.param)); };
enum HwCall { none, write, blockingWrite };
constexpr DeviceOffset tbl = kTableOffset, reg = kRegisterOffset;

class RequesterDalTest : public ::testing::Test {
 public:
  void SetUp() override {
    liveAtStart = Kel::TypeRegistry::liveEntities();
    helper = Kel::allocate<FakeHelper>();
    requester = Kel::allocate<StrictMock<MockRequester>>();
    dal = makeDal(false);
  }
  Kel::Ptr<ShadowDal> makeDal(bool declareMask) {
    auto d = Kel::allocate<ShadowDal>(requester, declareMask);
    d->helperIs(helper);
    return d;
  }
  S32 read(U16 size = kEntry, DeviceOffset offset = kTableOffset) {
    return dal->dalRead(0, offset, size, buffer.data(), nullptr);
  }
  S32 write(const TargetMask& mask = oneDeviceMask(0), U16 size = kEntry,
            DeviceOffset offset = kTableOffset) {
    return dal->dalWrite(mask, offset, size, kData.data(), nullptr);
  }
  S32 bulk(Command cmd, U32 size) {
    return cmd == bulkWriteCmd()
               ? dal->dalBulkWrite(oneDeviceMask(0), kTableOffset, size, buffer.data(), nullptr)
               : dal->dalBulkRead(0, kTableOffset, size, buffer.data(), nullptr);
  }
  // Expects one single write of `offset` by `call`, saving the data and mask it carries.
  void expectWrite(HwCall call, DeviceOffset offset, bool reclaim) {
    const PhysicalResourceId rid = helper->resourceId(offset, nullptr);
    const auto save = DoAll(SaveArg<3>(&dataSeen), SaveArg<4>(&maskSeen), Return(7));
    if (call == HwCall::write)
      EXPECT_CALL(*requester, write(oneDeviceMask(0), rid, offset, _, _, kEntry, reclaim))
          .WillOnce(save);
    if (call == HwCall::blockingWrite)
      EXPECT_CALL(*requester, blockingWrite(oneDeviceMask(0), rid, offset, _, _, kEntry, reclaim))
          .WillOnce(save);
  }
  // Expects one bulk command of `entries` whole entries from the table's physical address.
  void expectBulk(Command cmd, U32 entries, S64 index) {
    if (cmd == bulkWriteCmd())
      EXPECT_CALL(*requester, bulkWrite(oneDeviceMask(0), kTable, kTableOffset, kPhysAddr, nullptr,
                                        kEntry, entries))
          .WillOnce(Return(index));
    else
      EXPECT_CALL(*requester,
                  bulkRead(DeviceId(0), kTable, kTableOffset, kPhysAddr, kEntry, entries))
          .WillOnce(Return(index));
  }

  std::int64_t liveAtStart = 0;
  Kel::Ptr<FakeHelper> helper;
  Kel::Ptr<StrictMock<MockRequester>> requester;
  Kel::Ptr<ShadowDal> dal;
  std::vector<U8> buffer = std::vector<U8>(0x10010);
  const void* dataSeen = nullptr;
  const void* maskSeen = &maskSeen;
};

// ---------------------------------------------------------------------------------------
// Single accesses

// name, hw, okToRead, force, cacheable, shadowHolds, offset, what the requester's read answers
// (none: never called), result, hits, misses
using ReadCase = std::tuple<const char*, bool, bool, bool, bool, bool, DeviceOffset,
                            std::optional<S64>, S32, U64, U64>;
class RequesterDalReadTest : public RequesterDalTest,
                             public ::testing::WithParamInterface<ReadCase> {};

TEST_P(RequesterDalReadTest, ShadowOrHardwareServes) {
  const auto& [name, hw, okToRead, force, cacheable, shadowHolds, offset, hwIndex, result, hits,
               misses] = GetParam();
  dal->hwAccessAllowedIs(hw);
  dal->okToReadFromShadowIs(okToRead);
  dal->forceReadFromShadowIs(force);
  helper->isCacheable = cacheable;
  if (shadowHolds) helper->shadow[offset] = kData;
  if (hwIndex)
    EXPECT_CALL(*requester, read(DeviceId(0), helper->resourceId(offset, nullptr), offset,
                                 buffer.data(), kEntry))
        .WillOnce(Return(*hwIndex));
  EXPECT_EQ(read(kEntry, offset), result);
  EXPECT_EQ(std::pair(dal->cacheReadHits(), dal->cacheReadMisses()), std::pair(hits, misses));
  EXPECT_EQ(std::equal(kData.begin(), kData.end(), buffer.begin()), hits == 1);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Flags, RequesterDalReadTest, ::testing::ValuesIn(std::vector<ReadCase>{
    {"ShadowHit",              1, 1, 0, 1, 1, tbl, {}, 0,  1, 0},
    {"ShadowMissReadsHw",      1, 1, 0, 1, 0, reg, 4,  0,  0, 1},
    {"ShadowDisabledReadsHw",  1, 0, 0, 1, 1, tbl, 4,  0,  0, 1},
    {"NotCacheableReadsHw",    1, 1, 0, 0, 1, reg, 4,  0,  0, 1},
    {"ForcedIgnoresCacheable", 1, 1, 1, 0, 1, tbl, {}, 0,  1, 0},
    {"ForcedMissStaysOffHw",   1, 1, 1, 1, 0, tbl, {}, 0,  0, 1},
    {"HwOffMissReadsZero",     0, 0, 0, 0, 0, tbl, {}, 0,  0, 1},
    {"HwOffHit",               0, 1, 0, 0, 1, reg, {}, 0,  1, 0},
    {"NegativeIndexFails",     1, 1, 0, 1, 0, tbl, -1, -1, 0, 1}}), byName);
// clang-format on

enum Shadow { empty, same, differs };

// name, hw, okToWrite, skipIfHit, blocking, reclaim, declareMask, shadow, offset, call,
// write hits, write misses, read hits, read misses, shadow written
using WriteCase = std::tuple<const char*, bool, bool, bool, bool, bool, bool, Shadow, DeviceOffset,
                             HwCall, U64, U64, U64, U64, bool>;
class RequesterDalWriteTest : public RequesterDalTest,
                              public ::testing::WithParamInterface<WriteCase> {};

TEST_P(RequesterDalWriteTest, ShadowAbsorbsOrHardwareWrites) {
  const auto& [name, hw, okToWrite, skipIfHit, blocking, reclaim, declareMask, shadow, offset, call,
               writeHits, writeMisses, readHits, readMisses, shadowWritten] = GetParam();
  dal = makeDal(declareMask);
  dal->hwAccessAllowedIs(hw);
  dal->okToWriteToShadowIs(okToWrite);
  dal->skipHwWriteIfShadowHitIs(skipIfHit);
  dal->blockingIs(blocking);
  dal->reclaimWhenProgrammedIs(reclaim);
  if (shadow != Shadow::empty) helper->shadow[offset] = kData;
  if (shadow == Shadow::differs) helper->shadow[offset][3] ^= 0xff;
  expectWrite(call, offset, reclaim);
  EXPECT_EQ(write(oneDeviceMask(0), kEntry, offset), 0);
  EXPECT_EQ(std::tuple(dal->cacheWriteHits(), dal->cacheWriteMisses(), dal->cacheReadHits(),
                       dal->cacheReadMisses()),
            std::tuple(writeHits, writeMisses, readHits, readMisses));
  EXPECT_EQ(dal->shadowWrites, shadowWritten ? 1 : 0);
  EXPECT_EQ(helper->shadow[offset] == kData, shadowWritten || shadow == Shadow::same);
  // The caller's data travels as it is; a mask is asked for only when declared and written.
  EXPECT_EQ(dataSeen, call != none ? kData.data() : nullptr);
  EXPECT_EQ(maskSeen, call != none ? dal->maskHandedOut : &maskSeen);
  EXPECT_EQ(dal->maskHandedOut != nullptr, declareMask && call != none);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Flags, RequesterDalWriteTest, ::testing::ValuesIn(std::vector<WriteCase>{
    {"WriteThrough",         1, 1, 0, 0, 1, 0, empty,   tbl, write,         0, 1, 0, 0, 1},
    {"BlockingWrite",        1, 1, 0, 1, 0, 1, empty,   reg, blockingWrite, 0, 1, 0, 0, 1},
    {"ShadowWriteDisabled",  1, 0, 1, 0, 0, 0, same,    tbl, write,         0, 1, 0, 0, 0},
    {"SkipOnShadowHit",      1, 1, 1, 0, 0, 1, same,    tbl, none,          1, 0, 1, 0, 0},
    {"SkipNeedsEqualBytes",  1, 1, 1, 1, 1, 1, differs, tbl, blockingWrite, 0, 1, 1, 0, 1},
    {"SkipNeedsShadowEntry", 1, 1, 1, 0, 0, 1, empty,   tbl, write,         0, 1, 0, 1, 1},
    {"HwOffAbsorbs",         0, 0, 0, 1, 1, 1, empty,   tbl, none,          0, 0, 0, 0, 1},
    {"HwOffSkipOnHit",       0, 1, 1, 0, 0, 0, same,    reg, none,          1, 0, 1, 0, 0}}),
    byName);
// clang-format on

TEST_F(RequesterDalTest, VerifyModeChecksOptArgMappingOfBothAccesses) {
  dal->verifyEnabledIs(true);
  dal->hwAccessAllowedIs(false);
  EXPECT_EQ(read() | write(), 0);
  EXPECT_THAT(helper->verified,
              ElementsAre(std::pair(kTable, kTableOffset), std::pair(kTable, kTableOffset)));
}

TEST_F(RequesterDalTest, WaitForCompletionWaitsForLastCommandUnlessHwOff) {
  requester->takeCmdIndex();
  requester->takeCmdIndex();
  EXPECT_CALL(*requester, waitForCmdIndex(2));
  dal->waitForCompletion(0);
  dal->hwAccessAllowedIs(false);
  dal->waitForCompletion(0);  // a second wait would be an unexpected call
}

TEST_F(RequesterDalTest, CoprocessorCheckerIsCopiedToTheRequester) {
  const auto checker = Kel::allocate<CoprocessorChecker>("checker");
  dal->coprocessorCheckerIs(checker);
  EXPECT_EQ(requester->coprocessorChecker(), checker);
  dal->coprocessorCheckerIs(nullptr);
  EXPECT_EQ(requester->coprocessorChecker(), nullptr);
  EXPECT_NE(Kel::traceHandle("ZorvekQueue"), nullptr);  // made when the library loads
}

// ---------------------------------------------------------------------------------------
// Bulk accesses

// name, command, hw, size, what the bulk command answers (none: never called), result
using BulkCase = std::tuple<const char*, Command, bool, U32, std::optional<S64>, S32>;
class RequesterDalBulkTest : public RequesterDalTest,
                             public ::testing::WithParamInterface<BulkCase> {};

TEST_P(RequesterDalBulkTest, WholeEntriesTravelByPhysicalAddress) {
  const auto& [name, cmd, hw, size, hwIndex, result] = GetParam();
  const U32 entries = size / kEntry;
  dal->hwAccessAllowedIs(hw);
  if (hwIndex) expectBulk(cmd, entries, *hwIndex);
  DalTrace trace;
  EXPECT_EQ(bulk(cmd, size), result);
  const Lines::value_type nothingToDo{
      3, "doBulkOperation resourceId type 1 id 0x41 bulk operation size is 0"};
  EXPECT_EQ(std::ranges::count(trace.lines(), nothingToDo), entries == 0 ? 1 : 0);
  EXPECT_EQ(dal->shadowSizes, entries == 0 ? std::vector<U16>{} : std::vector<U16>{U16(size)});
  EXPECT_EQ(helper->shadow.size(), cmd == bulkWriteCmd() && entries ? 1u : 0u);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Commands, RequesterDalBulkTest, ::testing::ValuesIn(std::vector<BulkCase>{
    {"WritePartialEntryDropped", bulkWriteCmd(), 1, 3 * kEntry + 1, 4,  0},
    {"WriteNegativeIndexFails",  bulkWriteCmd(), 1, 2 * kEntry,     -1, -1},
    {"WriteBelowOneEntry",       bulkWriteCmd(), 1, kEntry - 1,     {}, 0},
    {"WriteAbsorbedWithHwOff",   bulkWriteCmd(), 0, 2 * kEntry,     {}, 0},
    {"ReadPartialEntryDropped",  bulkReadCmd(),  1, 3 * kEntry + 1, 4,  0},
    {"ReadNegativeIndexFails",   bulkReadCmd(),  1, 2 * kEntry,     -1, -1},
    {"ReadBelowOneEntry",        bulkReadCmd(),  1, kEntry - 1,     {}, 0},
    {"ReadFromShadowWithHwOff",  bulkReadCmd(),  0, 2 * kEntry,     {}, 0}}), byName);
// clang-format on

TEST_F(RequesterDalTest, BulkShadowSizeIsCutToSixteenBitsButCommandIsNot) {
  const U32 size = 0x10000 + 2 * kEntry;
  for (Command cmd : {bulkWriteCmd(), bulkReadCmd()}) {
    helper->shadow.clear();
    expectBulk(cmd, size / kEntry, 1);
    EXPECT_EQ(
        dal->doBulkOperation(oneDeviceMask(0), kTableOffset, buffer.data(), size, nullptr, cmd), 0);
  }
  EXPECT_THAT(dal->shadowSizes, ElementsAre(2 * kEntry, 2 * kEntry));
  EXPECT_THROW(dal->dalBulkRead(DeviceId(129u), kTableOffset, kEntry, buffer.data(), nullptr),
               Corvane::FapIdRangeError);
}

// ---------------------------------------------------------------------------------------
// Readiness

class ReadyCounter : public Dal::NotifieeConst {
 public:
  void onReady() override { ++count; }
  int count = 0;
};

class RequesterDalReadyTest : public RequesterDalTest {
 public:
  void SetUp() override {
    RequesterDalTest::SetUp();
    observer = Kel::allocate<ReadyCounter>();
    observer->notifierIs(Kel::Ptr<const Dal>(dal));
  }
  Kel::Ptr<RequesterDal::DalReadySm> build(const Kel::Ptr<ShadowDal>& d) {
    return RequesterDal::DalReadySm::DalReadySmIs(requester, d);
  }
  void expectReady(bool ready, int notifications) {
    EXPECT_EQ(std::pair(dal->ready(), observer->count), std::pair(ready, notifications));
  }
  Kel::Ptr<ReadyCounter> observer;
  Kel::Ptr<RequesterDal::DalReadySm> sm;
};

TEST_F(RequesterDalReadyTest, ConstructionAndEachChangeApplyTheRuleNotifyingOnChangesOnly) {
  dal->hwAccessAllowedIs(false);
  sm = build(dal);
  expectReady(true, 1);  // hardware off: ready at once, whatever the requester says
  // hw, requester ready, then the DAL's ready and the notifications so far
  for (const auto& [hw, requesterReady, ready, notifications] : {std::tuple(0, 1, 1, 1),
                                                                 {1, 1, 1, 1},
                                                                 {1, 0, 0, 2},
                                                                 {0, 0, 1, 3},
                                                                 {0, 1, 1, 3},
                                                                 {1, 1, 1, 3},
                                                                 {1, 0, 0, 4}}) {
    dal->hwAccessAllowedIs(hw);
    requester->readyIs(requesterReady);
    expectReady(ready, notifications);
  }
  requester->readyIs(true);
  const auto withHw = makeDal(false);
  const auto sm2 = build(withHw);
  EXPECT_TRUE(withHw->ready());  // a ready requester makes it ready during construction
}

TEST_F(RequesterDalReadyTest, RetargetingReevaluatesAndDropsOldNotifier) {
  sm = build(dal);
  const auto other = Kel::allocate<StrictMock<MockRequester>>();
  other->readyIs(true);
  sm->requesterIs(other);
  expectReady(true, 1);
  requester->readyIs(true);
  requester->readyIs(false);  // no longer watched
  const auto otherDal = makeDal(false);
  sm->dalIs(otherDal);
  EXPECT_TRUE(otherDal->ready());
  other->readyIs(false);
  dal->hwAccessAllowedIs(false);
  dal->hwAccessAllowedIs(true);
  expectReady(true, 1);
  EXPECT_FALSE(otherDal->ready());
}

TEST_F(RequesterDalReadyTest, RetiredReactorsIgnoreChanges) {
  for (const auto& retire : std::vector<std::function<void(RequesterDal::DalReadySm&)>>{
           [](auto& m) { m.requesterDel(); }, [](auto& m) { m.dalDel(); },
           [](auto& m) { m.kelDoZombieReactors(true); }}) {
    SetUp();
    sm = build(dal);
    retire(*sm);
    requester->readyIs(true);
    dal->hwAccessAllowedIs(false);
    expectReady(false, 0);
  }
}

TEST_F(RequesterDalReadyTest, TornDownDalFreesEveryEntity) {
  sm = build(dal);
  dal->dalReadySmIs(sm);
  {
    const Kel::Ptr<RequesterDal::DalReadySm> held = std::exchange(sm, nullptr);
    observer = nullptr;
    dal = nullptr;
    EXPECT_EQ(held->dal(), nullptr);
    requester->readyIs(true);  // reaches no dying DAL
  }
  requester = nullptr;
  helper = nullptr;
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), liveAtStart);
}

// ---------------------------------------------------------------------------------------
// Traced texts and broken invariants

TEST_F(RequesterDalTest, TracesNameEachDecision) {
  DalTrace trace;
  EXPECT_CALL(*requester, read(_, _, _, _, _)).WillOnce(Return(1));
  const Lines::value_type writeLine{
      9, "RequesterDal::dalWrite resource type 1 resource id 0x41 size 8 offset 0x1000"};
  const Lines::value_type skipped{
      9, "writeToShadow shadowDal hardware access not allowed, skip writing to hardware "};
  // clang-format off
  const std::vector<std::pair<std::function<void()>, Lines>> steps = {
    {[&] { dal->okToReadFromShadowIs(false); read(); },
     {{9, "RequesterDal::dalRead offset 0x1000 size 8"},
      {8, "readFromShadow shadowDal local shadow access is disabled"}}},
    {[&] { dal->hwAccessAllowedIs(false); read(); },
     {{9, "RequesterDal::dalRead offset 0x1000 size 8"},
      {9, "readFromShadow shadowDal hardware access not allowed or forced to read from shadow,"}}},
    // The cohabiting hook is looked up at every shadow-only write; any value, even empty, sets
    // it, and each such write counts one command.
    {[&] { const ScopedEnv env("XP_COHABITING_TEST", nullptr); write(); }, {writeLine, skipped}},
    {[&] { const ScopedEnv env("XP_COHABITING_TEST", ""); write(); write(); },
     {writeLine, skipped, {9, "RequesterDal::dalWrite faked lastEnqueuedCmdIndex 1"},
      writeLine, skipped, {9, "RequesterDal::dalWrite faked lastEnqueuedCmdIndex 2"}}},
    {[&] { dal->waitForCompletion(0); },
     {{8, "waitForCompletion skipping hardware access for device 0"}}},
    {[&] { RequesterDal::DalReadySm::DalReadySmIs(requester, dal); },
     {{7, "XpRequesterDal::DalReadySm::handleRequesterReady requesterReady False "
          "hwAccessAllowed False"}}}};
  // clang-format on
  for (std::size_t i = 0; i < steps.size(); ++i) {
    trace.clear();
    steps[i].first();
    EXPECT_THAT(trace.lines(), ElementsAreArray(steps[i].second)) << "step " << i;
  }
  EXPECT_EQ(requester->processingStatus()->lastEnqueuedCmdIndex(), 2u);
}

using RequesterDalDeathTest = RequesterDalTest;

TEST_F(RequesterDalDeathTest, BrokenInvariantsAbortWithTheirText) {
  TargetMask devices01 = oneDeviceMask(0);
  devices01.targetIdIs(TargetId(1), true);
  const auto base = requesterDalFactory("base", requester);
  base->helperIs(helper);
  const U32 tooLarge = maxBulkTransactionSizeInBytes() + 1;
  const char* derived = "0 && \"Must be implemented by derived class\"";
  // clang-format off
  const std::vector<std::pair<std::function<void()>, const char*>> cases = {
    {[&] { write(devices01); }, "targetMask.targets() == 1"},
    {[&] { write(oneDeviceMask(1)); }, "devId.value() == 0"},
    {[&] { helper->failShadowWrite = true; write(); }, "retVal == 0"},
    {[&] { EXPECT_CALL(*requester, write).WillOnce(Return(-1)); write(); }, "cmdIndex >= 0"},
    // The one way past a refusing shadow to the hardware with access off: access goes off
    // between the shadow's refusal and the hardware step.
    {[&] { helper->isCacheable = false; helper->switchOffOnCacheable = dal.ptr(); read(); },
     "hwAccessAllowed()"},
    {[&] { dal->verifyEnabledIs(true); write(oneDeviceMask(0), 4); }, "size == entrySizeBytes"},
    {[&] { bulk(bulkWriteCmd(), tooLarge); }, "size <= maxBulkTransactionSizeInBytes()"},
    {[&] { bulk(bulkReadCmd(), tooLarge); }, "size <= maxBulkTransactionSizeInBytes()"},
    {[&] { dal->doBulkOperation(oneDeviceMask(0), kTableOffset, buffer.data(), kEntry, nullptr,
                                Command::readCmd_); }, "cmd == Zorvek::bulkReadCmd()"},
    {[&] { helper->entrySize = 0; bulk(bulkReadCmd(), kEntry); }, "entrySizeInBytes"},
    {[&] { base->dalRead(0, kTableOffset, kEntry, buffer.data(), nullptr); }, derived},
    {[&] { base->dalWrite(oneDeviceMask(0), kTableOffset, kEntry, kData.data(), nullptr); },
     derived},
    {[&] { requesterDalFactory("none", nullptr)->waitForCompletion(0); }, "requester()"}};
  // clang-format on
  for (const auto& [broken, text] : cases) EXPECT_DEATH(broken(), assertion(text)) << text;
  dal->verifyEnabledIs(true);
  EXPECT_DEATH(read(4), literal("Failed(( size == entrySizeBytes ))  resource  resource id 0x41 "
                                "size 4 entrySizeBytes 8\n") +
                            assertion("!\"( size == entrySizeBytes )\""));
}

}  // namespace
}  // namespace Zorvek
