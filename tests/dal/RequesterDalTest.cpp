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
#include <utility>
#include <vector>

#include "Kel/Trace.h"
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

enum class HwCall { none, write, blockingWrite };

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
  void expectWrite(HwCall call, DeviceOffset offset = kTableOffset, bool reclaim = false) {
    if (call == HwCall::none) return;
    const PhysicalResourceId rid = helper->resourceId(offset, nullptr);
    const TargetMask device0 = oneDeviceMask(0);
    auto& expectation =
        call == HwCall::write
            ? EXPECT_CALL(*requester, write(device0, rid, offset, _, _, kEntry, reclaim))
            : EXPECT_CALL(*requester, blockingWrite(device0, rid, offset, _, _, kEntry, reclaim));
    expectation.WillOnce(DoAll(SaveArg<3>(&dataSeen), SaveArg<4>(&maskSeen), Return(7)));
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

// The (hits, misses) read counters of the resource at `offset`: per table or per register.
std::pair<U64, U64> readCounts(const Dal& d, DeviceOffset offset) {
  const PhysicalTableId table(kTable.id());
  const PhysicalRegisterId reg(kRegister.id());
  if (offset < kRegisterOffset) return {d.cacheReadTableHits(table), d.cacheReadTableMisses(table)};
  return {d.cacheReadRegHits(reg), d.cacheReadRegMisses(reg)};
}

struct ReadCase {
  const char* name;
  bool hw, okToRead, force, cacheable, shadowHolds;
  DeviceOffset offset;
  std::optional<S64> hwIndex;  // what the requester's read answers; none: never called
  S32 result;
  U64 hits, misses;
};

class RequesterDalReadTest : public RequesterDalTest,
                             public ::testing::WithParamInterface<ReadCase> {};

TEST_P(RequesterDalReadTest, ShadowOrHardwareServes) {
  const ReadCase& c = GetParam();
  dal->hwAccessAllowedIs(c.hw);
  dal->okToReadFromShadowIs(c.okToRead);
  dal->forceReadFromShadowIs(c.force);
  helper->isCacheable = c.cacheable;
  if (c.shadowHolds) helper->shadow[c.offset] = kData;
  if (c.hwIndex)
    EXPECT_CALL(*requester, read(DeviceId(0), helper->resourceId(c.offset, nullptr), c.offset,
                                 buffer.data(), kEntry))
        .WillOnce(Return(*c.hwIndex));
  EXPECT_EQ(read(kEntry, c.offset), c.result);
  EXPECT_EQ(std::pair(dal->cacheReadHits(), dal->cacheReadMisses()), std::pair(c.hits, c.misses));
  EXPECT_EQ(readCounts(*dal, c.offset), std::pair(c.hits, c.misses));
  const DeviceOffset other = c.offset < kRegisterOffset ? kRegisterOffset : kTableOffset;
  EXPECT_EQ(readCounts(*dal, other), std::pair(U64{0}, U64{0}));
  EXPECT_EQ(std::equal(kData.begin(), kData.end(), buffer.begin()), c.hits == 1);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Flags, RequesterDalReadTest, ::testing::ValuesIn(std::vector<ReadCase>{
    // name, hw, okToRead, force, cacheable, shadowHolds, offset, hwIndex, result, hits, misses
    {"ShadowHit",              true,  true,  false, true,  true,  kTableOffset,    {}, 0,  1, 0},
    {"ShadowMissReadsHw",      true,  true,  false, true,  false, kRegisterOffset, 4,  0,  0, 1},
    {"ShadowDisabledReadsHw",  true,  false, false, true,  true,  kTableOffset,    4,  0,  0, 1},
    {"NotCacheableReadsHw",    true,  true,  false, false, true,  kRegisterOffset, 4,  0,  0, 1},
    {"ForcedIgnoresCacheable", true,  true,  true,  false, true,  kTableOffset,    {}, 0,  1, 0},
    {"ForcedMissStaysOffHw",   true,  true,  true,  true,  false, kTableOffset,    {}, 0,  0, 1},
    {"HwOffMissReadsZero",     false, false, false, false, false, kTableOffset,    {}, 0,  0, 1},
    {"HwOffHit",               false, true,  false, false, true,  kRegisterOffset, {}, 0,  1, 0},
    {"NegativeIndexFails",     true,  true,  false, true,  false, kTableOffset,    -1, -1, 0, 1}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

enum class Shadow { empty, same, differs };

struct WriteCase {
  const char* name;
  bool hw, okToWrite, skipIfHit, blocking;
  Shadow shadow;
  DeviceOffset offset;
  HwCall call;
  U64 writeHits, writeMisses, readHits, readMisses;
  bool shadowWritten;
};

class RequesterDalWriteTest : public RequesterDalTest,
                              public ::testing::WithParamInterface<WriteCase> {};

TEST_P(RequesterDalWriteTest, ShadowAbsorbsOrHardwareWrites) {
  const WriteCase& c = GetParam();
  dal->hwAccessAllowedIs(c.hw);
  dal->okToWriteToShadowIs(c.okToWrite);
  dal->skipHwWriteIfShadowHitIs(c.skipIfHit);
  dal->blockingIs(c.blocking);
  if (c.shadow != Shadow::empty) helper->shadow[c.offset] = kData;
  if (c.shadow == Shadow::differs) helper->shadow[c.offset][3] ^= 0xff;
  expectWrite(c.call, c.offset);
  EXPECT_EQ(write(oneDeviceMask(0), kEntry, c.offset), 0);
  EXPECT_EQ(std::pair(dal->cacheWriteHits(), dal->cacheWriteMisses()),
            std::pair(c.writeHits, c.writeMisses));
  const PhysicalTableId table(kTable.id());
  const bool isTable = c.offset < kRegisterOffset;
  EXPECT_EQ(std::pair(dal->cacheWriteTableHits(table), dal->cacheWriteTableMisses(table)),
            isTable ? std::pair(c.writeHits, c.writeMisses) : std::pair(U64{0}, U64{0}));
  EXPECT_EQ(std::pair(dal->cacheReadHits(), dal->cacheReadMisses()),
            std::pair(c.readHits, c.readMisses));
  EXPECT_EQ(dal->shadowWrites, c.shadowWritten ? 1 : 0);
  EXPECT_EQ(helper->shadow[c.offset] == kData, c.shadowWritten || c.shadow == Shadow::same);
}

std::vector<WriteCase> writeCases() {
  using enum Shadow;
  using enum HwCall;
  // hw, okToWrite, skipIfHit, blocking, shadow, offset, call, write hits, write misses, read
  // hits, read misses, shadowWritten
  // clang-format off
  return {
    {"WriteThrough",         1, 1, 0, 0, empty,   kTableOffset,    write,         0, 1, 0, 0, 1},
    {"BlockingWrite",        1, 1, 0, 1, empty,   kRegisterOffset, blockingWrite, 0, 1, 0, 0, 1},
    {"ShadowWriteDisabled",  1, 0, 1, 0, same,    kTableOffset,    write,         0, 1, 0, 0, 0},
    {"SkipOnShadowHit",      1, 1, 1, 0, same,    kTableOffset,    none,          1, 0, 1, 0, 0},
    {"SkipNeedsEqualBytes",  1, 1, 1, 1, differs, kTableOffset,    blockingWrite, 0, 1, 1, 0, 1},
    {"SkipNeedsShadowEntry", 1, 1, 1, 0, empty,   kTableOffset,    write,         0, 1, 0, 1, 1},
    {"HwOffAbsorbs",         0, 0, 0, 1, empty,   kTableOffset,    none,          0, 0, 0, 0, 1},
    {"HwOffSkipOnHit",       0, 1, 1, 0, same,    kRegisterOffset, none,          1, 0, 1, 0, 0}};
  // clang-format on
}

INSTANTIATE_TEST_SUITE_P(Flags, RequesterDalWriteTest, ::testing::ValuesIn(writeCases()),
                         [](const auto& info) { return std::string(info.param.name); });

class RequesterDalWriteArgsTest
    : public RequesterDalTest,
      public ::testing::WithParamInterface<std::tuple<bool, bool, bool>> {};

TEST_P(RequesterDalWriteArgsTest, DataReclaimAndDeclaredMaskReachRequester) {
  const auto [blocking, reclaim, declareMask] = GetParam();
  dal = makeDal(declareMask);
  dal->blockingIs(blocking);
  dal->reclaimWhenProgrammedIs(reclaim);
  expectWrite(blocking ? HwCall::blockingWrite : HwCall::write, kTableOffset, reclaim);
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(dataSeen, kData.data());
  EXPECT_EQ(maskSeen, declareMask ? dal->maskHandedOut : nullptr);
  EXPECT_EQ(dal->maskHandedOut != nullptr, declareMask);  // asked for only when declared
}

INSTANTIATE_TEST_SUITE_P(BlockingReclaimMask, RequesterDalWriteArgsTest,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool(),
                                            ::testing::Bool()));

TEST_F(RequesterDalTest, VerifyModeChecksOptArgMappingOfBothAccesses) {
  dal->verifyEnabledIs(true);
  dal->hwAccessAllowedIs(false);
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(write(), 0);
  EXPECT_THAT(helper->verified,
              ElementsAre(std::pair(kTable, kTableOffset), std::pair(kTable, kTableOffset)));
}

class RequesterDalCohabitingTest : public RequesterDalTest,
                                   public ::testing::WithParamInterface<bool> {};

TEST_P(RequesterDalCohabitingTest, ShadowOnlyWriteFakesOneCommandWhenSet) {
  const ScopedEnv env("XP_COHABITING_TEST", GetParam());
  dal->hwAccessAllowedIs(false);
  DalProcessingStatus& status = *requester->processingStatus();
  status.lastEnqueuedCmdIndexIs(10);
  for (U64 n = 1; n <= 3; ++n) {
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(status.lastEnqueuedCmdIndex(), GetParam() ? 10 + n : 10);
  }
}

INSTANTIATE_TEST_SUITE_P(SetOrUnset, RequesterDalCohabitingTest, ::testing::Bool());

TEST_F(RequesterDalTest, WaitForCompletionWaitsForLastCommandUnlessHwOff) {
  requester->takeCmdIndex();
  requester->takeCmdIndex();
  EXPECT_CALL(*requester, waitForCmdIndex(2));
  dal->waitForCompletion(0);
  dal->hwAccessAllowedIs(false);
  dal->waitForCompletion(0);  // a second wait would be an unexpected call
}

TEST_F(RequesterDalTest, FactoryBuildsTrackedDalOfRegisteredTypes) {
  const Kel::Type& dalType = RequesterDal::staticType();
  const std::int64_t live = dalType.liveCount();
  const Kel::Ptr<RequesterDal> made = requesterDalFactory("made", requester);
  EXPECT_EQ(std::tuple(made->name(), made->requester(), made->dalReadySm(), dalType.liveCount()),
            std::tuple("made", Kel::Ptr<Requester>(requester), nullptr, live + 1));
  EXPECT_EQ(made->fwkType().name(), "Zorvek::RequesterDal");
  const Kel::Type& smType = RequesterDal::DalReadySm::staticType();
  EXPECT_EQ(smType.name(), "Zorvek::RequesterDal::DalReadySm");
  EXPECT_LT(smType.registrationIndex(), dalType.registrationIndex());
  EXPECT_NE(Kel::traceHandle("ZorvekQueue"), nullptr);
}

TEST_F(RequesterDalTest, CoprocessorCheckerIsCopiedToRequester) {
  const auto checker = Kel::allocate<CoprocessorChecker>("checker");
  dal->coprocessorCheckerIs(checker);
  EXPECT_EQ(requester->coprocessorChecker(), checker);
  dal->coprocessorCheckerIs(nullptr);
  EXPECT_EQ(requester->coprocessorChecker(), nullptr);
}

// ---------------------------------------------------------------------------------------
// Bulk accesses

struct BulkCase {
  const char* name;
  Command cmd;
  bool hw;
  U32 size;
  std::optional<S64> hwIndex;  // what the bulk command answers; none: never called
  S32 result;
};

class RequesterDalBulkTest : public RequesterDalTest,
                             public ::testing::WithParamInterface<BulkCase> {};

TEST_P(RequesterDalBulkTest, WholeEntriesTravelByPhysicalAddress) {
  const BulkCase& c = GetParam();
  const U32 entries = c.size / kEntry;
  dal->hwAccessAllowedIs(c.hw);
  if (c.hwIndex) expectBulk(c.cmd, entries, *c.hwIndex);
  DalTrace trace;
  EXPECT_EQ(bulk(c.cmd, c.size), c.result);
  const Lines::value_type nothingToDo{
      3, "doBulkOperation resourceId type 1 id 0x41 bulk operation size is 0"};
  EXPECT_EQ(std::ranges::count(trace.lines(), nothingToDo), entries == 0 ? 1 : 0);
  EXPECT_EQ(dal->shadowSizes, entries == 0 ? std::vector<U16>{} : std::vector<U16>{U16(c.size)});
  EXPECT_EQ(helper->shadow.size(), c.cmd == bulkWriteCmd() && entries ? 1u : 0u);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Commands, RequesterDalBulkTest, ::testing::ValuesIn(std::vector<BulkCase>{
    // name                      cmd             hw     size            hwIndex result
    {"WritePartialEntryDropped", bulkWriteCmd(), true,  3 * kEntry + 1, 4,  0},
    {"WriteNegativeIndexFails",  bulkWriteCmd(), true,  2 * kEntry,     -1, -1},
    {"WriteBelowOneEntry",       bulkWriteCmd(), true,  kEntry - 1,     {}, 0},
    {"WriteAbsorbedWithHwOff",   bulkWriteCmd(), false, 2 * kEntry,     {}, 0},
    {"ReadPartialEntryDropped",  bulkReadCmd(),  true,  3 * kEntry + 1, 4,  0},
    {"ReadNegativeIndexFails",   bulkReadCmd(),  true,  2 * kEntry,     -1, -1},
    {"ReadBelowOneEntry",        bulkReadCmd(),  true,  kEntry - 1,     {}, 0},
    {"ReadFromShadowWithHwOff",  bulkReadCmd(),  false, 2 * kEntry,     {}, 0}}),
    [](const auto& info) { return std::string(info.param.name); });
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
}

TEST_F(RequesterDalTest, BulkReadOfDeviceOutOfRangeThrows) {
  EXPECT_THROW(dal->dalBulkRead(DeviceId(129u), kTableOffset, kEntry, buffer.data(), nullptr),
               Corvane::FapIdRangeError);
}

// ---------------------------------------------------------------------------------------
// Readiness

class RequesterDalReadyTest : public RequesterDalTest {
 public:
  void SetUp() override {
    RequesterDalTest::SetUp();
    observer = Kel::allocate<ReadyCounter>();
    observer->notifierIs(Kel::Ptr<const Dal>(dal));
  }
  void build() { sm = RequesterDal::DalReadySm::DalReadySmIs(requester, dal); }
  Kel::Ptr<ReadyCounter> observer;
  Kel::Ptr<RequesterDal::DalReadySm> sm;
};

TEST_F(RequesterDalReadyTest, ConstructionAppliesEveryRowOfTheRule) {
  struct Row {
    bool hw, requesterReady, ready;
  };
  for (const Row& r : {Row{false, false, true}, Row{false, true, true}, Row{true, false, false},
                       Row{true, true, true}}) {
    SetUp();
    dal->hwAccessAllowedIs(r.hw);
    requester->readyIs(r.requesterReady);
    build();
    EXPECT_EQ(std::pair(dal->ready(), observer->count), std::pair(r.ready, r.ready ? 1 : 0))
        << r.hw << r.requesterReady;
  }
}

TEST_F(RequesterDalReadyTest, ChangesNotifyOncePerResultChange) {
  struct Step {
    bool hw, requesterReady, ready;
    int notifications;
  };
  build();
  for (const Step& s :
       {Step{true, true, true, 1}, Step{false, true, true, 1}, Step{false, false, true, 1},
        Step{true, false, false, 2}, Step{false, false, true, 3}, Step{false, true, true, 3},
        Step{true, true, true, 3}, Step{true, false, false, 4}}) {
    dal->hwAccessAllowedIs(s.hw);
    requester->readyIs(s.requesterReady);
    EXPECT_EQ(std::pair(dal->ready(), observer->count), std::pair(s.ready, s.notifications))
        << s.hw << s.requesterReady;
  }
}

TEST_F(RequesterDalReadyTest, RetargetingReevaluatesAndDropsOldNotifier) {
  build();
  const auto other = Kel::allocate<StrictMock<MockRequester>>();
  other->readyIs(true);
  sm->requesterIs(other);
  EXPECT_TRUE(dal->ready());
  requester->readyIs(true);
  requester->readyIs(false);
  EXPECT_TRUE(dal->ready());
  const auto otherDal = makeDal(false);
  sm->dalIs(otherDal);
  EXPECT_TRUE(otherDal->ready());
  other->readyIs(false);
  dal->hwAccessAllowedIs(false);
  dal->hwAccessAllowedIs(true);
  EXPECT_EQ(std::pair(dal->ready(), otherDal->ready()), std::pair(true, false));
  EXPECT_EQ(observer->count, 1);
}

TEST_F(RequesterDalReadyTest, RetiredReactorsIgnoreChanges) {
  const std::vector<std::function<void(RequesterDal::DalReadySm&)>> retirements = {
      [](auto& m) { m.requesterDel(); }, [](auto& m) { m.dalDel(); },
      [](auto& m) { m.kelDoZombieReactors(true); }};
  for (const auto& retire : retirements) {
    SetUp();
    build();
    retire(*sm);
    requester->readyIs(true);
    dal->hwAccessAllowedIs(false);
    EXPECT_EQ(std::pair(dal->ready(), observer->count), std::pair(false, 0));
  }
}

TEST_F(RequesterDalReadyTest, TornDownDalFreesEveryEntity) {
  build();
  dal->dalReadySmIs(sm);
  {
    const Kel::Ptr<RequesterDal::DalReadySm> held = std::exchange(sm, nullptr);
    observer = nullptr;
    dal = nullptr;
    EXPECT_EQ(held->dal(), nullptr);
    requester->readyIs(true);
    // The dying DAL turned the machine's reactors into zombies: even retargeted, the
    // machine evaluates once and then ignores late notifications.
    const auto otherDal = makeDal(false);
    held->dalIs(otherDal);
    requester->readyIs(false);
    EXPECT_TRUE(otherDal->ready());
  }
  requester = nullptr;
  helper = nullptr;
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), liveAtStart);
}

// ---------------------------------------------------------------------------------------
// Traced texts

TEST_F(RequesterDalTest, TracesNameEachDecision) {
  DalTrace trace;
  EXPECT_CALL(*requester, read(_, _, _, _, _)).WillOnce(Return(1));
  // clang-format off
  const std::vector<std::pair<std::function<void()>, Lines>> steps = {
    {[&] { dal->okToReadFromShadowIs(false); read(); },
     {{9, "RequesterDal::dalRead offset 0x1000 size 8"},
      {8, "readFromShadow shadowDal local shadow access is disabled"}}},
    {[&] { dal->hwAccessAllowedIs(false); read(); },
     {{9, "RequesterDal::dalRead offset 0x1000 size 8"},
      {9, "readFromShadow shadowDal hardware access not allowed or forced to read from shadow,"}}},
    {[&] { const ScopedEnv env("XP_COHABITING_TEST", true); write(); },
     {{9, "RequesterDal::dalWrite resource type 1 resource id 0x41 size 8 offset 0x1000"},
      {9, "writeToShadow shadowDal hardware access not allowed, skip writing to hardware "},
      {9, "RequesterDal::dalWrite faked lastEnqueuedCmdIndex 1"}}},
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
}

// ---------------------------------------------------------------------------------------
// Broken invariants

using RequesterDalDeathTest = RequesterDalTest;

TEST_F(RequesterDalDeathTest, SingleAccessInvariants) {
  TargetMask devices01 = oneDeviceMask(0);
  devices01.targetIdIs(TargetId(1), true);
  EXPECT_DEATH(write(devices01), assertion("targetMask.targets() == 1"));
  EXPECT_DEATH(write(oneDeviceMask(1)), assertion("devId.value() == 0"));
  EXPECT_DEATH(
      {
        helper->failShadowWrite = true;
        write();
      },
      assertion("retVal == 0"));
  EXPECT_DEATH(
      {
        EXPECT_CALL(*requester, write(_, _, _, _, _, _, _)).WillOnce(Return(-1));
        write();
      },
      assertion("cmdIndex >= 0"));
  // The one way past a refusing shadow to the hardware with access off: access goes off
  // between the shadow's refusal and the hardware step.
  helper->isCacheable = false;
  helper->switchOffOnCacheable = dal.ptr();
  EXPECT_DEATH(read(), assertion("hwAccessAllowed()"));
}

TEST_F(RequesterDalDeathTest, VerifiedAccessOfAnotherSize) {
  dal->verifyEnabledIs(true);
  EXPECT_DEATH(read(4), literal("Failed(( size == entrySizeBytes ))  resource  resource id 0x41 "
                                "size 4 entrySizeBytes 8\n") +
                            assertion("!\"( size == entrySizeBytes )\""));
  EXPECT_DEATH(write(oneDeviceMask(0), 4), assertion("size == entrySizeBytes"));
}

TEST_F(RequesterDalDeathTest, BulkInvariants) {
  const std::string tooLarge = assertion("size <= maxBulkTransactionSizeInBytes()");
  EXPECT_DEATH(bulk(bulkWriteCmd(), maxBulkTransactionSizeInBytes() + 1), tooLarge);
  EXPECT_DEATH(bulk(bulkReadCmd(), maxBulkTransactionSizeInBytes() + 1), tooLarge);
  EXPECT_DEATH(dal->doBulkOperation(oneDeviceMask(0), kTableOffset, buffer.data(), kEntry, nullptr,
                                    Command::readCmd_),
               assertion("cmd == Zorvek::bulkReadCmd()"));
  helper->entrySize = 0;
  EXPECT_DEATH(bulk(bulkReadCmd(), kEntry), assertion("entrySizeInBytes"));
}

TEST_F(RequesterDalDeathTest, BaseHooksAndMissingRequester) {
  const auto base = requesterDalFactory("base", requester);
  base->helperIs(helper);
  const std::string text = assertion("0 && \"Must be implemented by derived class\"");
  EXPECT_DEATH(base->dalRead(0, kTableOffset, kEntry, buffer.data(), nullptr), text);
  EXPECT_DEATH(base->dalWrite(oneDeviceMask(0), kTableOffset, kEntry, kData.data(), nullptr), text);
  EXPECT_DEATH(requesterDalFactory("none", nullptr)->waitForCompletion(0),
               assertion("requester()"));
}

}  // namespace
}  // namespace Zorvek
