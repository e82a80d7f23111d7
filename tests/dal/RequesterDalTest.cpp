// RequesterDal: the command an access becomes (if any) under the policy flags, its cache
// statistics, bulk arithmetic, readiness, traces and assertions. The requester is a strict
// mock, so a command that must not be sent fails the test.
#include "Zorvek/RequesterDal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace doubles;
using namespace ::testing;

const auto byName = [](const auto& info) { return std::string(std::get<0>(info.param)); };
constexpr DeviceOffset tbl = kTableOffset;

class RequesterDalTest : public ::testing::Test {
 public:
  Kel::Ptr<ShadowDal> makeDal(bool handOutMask) {
    auto d = Kel::allocate<ShadowDal>(requester, handOutMask);
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
  // Expects one bulk command of `entries` whole entries from the table's physical address.
  void expectBulk(Command cmd, U32 entries, S64 index) {
    if (cmd == bulkWriteCmd())
      EXPECT_CALL(*requester,
                  bulkWrite(oneDeviceMask(0), kTable, tbl, kPhysAddr, nullptr, kEntry, entries))
          .WillOnce(Return(index));
    else
      EXPECT_CALL(*requester, bulkRead(DeviceId(0), kTable, tbl, kPhysAddr, kEntry, entries))
          .WillOnce(Return(index));
  }

  const std::int64_t liveAtStart = Kel::TypeRegistry::liveEntities();
  Kel::Ptr<FakeHelper> helper = Kel::allocate<FakeHelper>();
  Kel::Ptr<StrictMock<MockRequester>> requester = Kel::allocate<StrictMock<MockRequester>>();
  Kel::Ptr<ShadowDal> dal = makeDal(false);
  std::vector<U8> buffer = std::vector<U8>(0x10010);
};

// ---------------------------------------------------------------------------------------
// Single accesses

// The caller's data and the reclaim flag travel as they are, blocking picks blockingWrite, and
// the mask is whatever the DAL's selector hands out (null from the base's). The shadow policy
// around the write is followed step by step by the model test of the assembled tree.
TEST_F(RequesterDalTest, HardwareWriteCarriesDataReclaimAndDeclaredMask) {
  for (bool declare : {false, true}) {
    dal = makeDal(declare);
    dal->blockingIs(declare);
    dal->reclaimWhenProgrammedIs(!declare);
    const void *data = nullptr, *mask = &data;
    const auto save = DoAll(SaveArg<3>(&data), SaveArg<4>(&mask), Return(7));
    if (declare)
      EXPECT_CALL(*requester, blockingWrite(oneDeviceMask(0), kTable, tbl, _, _, kEntry, false))
          .WillOnce(save);
    else
      EXPECT_CALL(*requester, write(oneDeviceMask(0), kTable, tbl, _, _, kEntry, true))
          .WillOnce(save);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(std::tuple(data, mask, dal->maskHandedOut != nullptr),
              std::tuple(kData.data(), dal->maskHandedOut, declare));
  }
}

TEST_F(RequesterDalTest, VerifyWaitAndCheckerReachHelperAndRequester) {
  dal->verifyEnabledIs(true);
  dal->hwAccessAllowedIs(false);
  EXPECT_EQ(read() | write(), 0);
  EXPECT_THAT(helper->verified, ElementsAre(Pair(kTable, tbl), Pair(kTable, tbl)));
  dal->waitForCompletion(0);  // hardware off: a wait would be an unexpected call
  dal->hwAccessAllowedIs(true);
  requester->takeCmdIndex();
  requester->takeCmdIndex();
  EXPECT_CALL(*requester, waitForCmdIndex(2));
  dal->waitForCompletion(0);
  const auto checker = Kel::allocate<CoprocessorChecker>("checker");
  dal->coprocessorCheckerIs(checker);
  EXPECT_EQ(requester->coprocessorChecker(), checker);
  dal->coprocessorCheckerIs(nullptr);
  EXPECT_EQ(requester->coprocessorChecker(), nullptr);
  EXPECT_NE(Kel::traceHandle("ZorvekQueue"), nullptr);  // made when the library loads
}

// ---------------------------------------------------------------------------------------
// Bulk accesses

// Whole entries travel by physical address, a partial trailing entry dropped and a negative
// index failing the access; the shadow is handed the size cut to 16 bits, the command is not
// (beyond the public calls' limit, hence the direct call).
// Partial entries, hardware-less bulk accesses and their shadows are also followed by the model
// test of the assembled tree.
TEST_F(RequesterDalTest, BulkMovesWholeEntriesAndShadowSizeIsCutToSixteenBits) {
  const U32 size = 0x10000 + 2 * kEntry;
  for (auto [cmd, index, result] : {std::tuple(bulkReadCmd(), -1, -1), {bulkWriteCmd(), 1, 0}}) {
    expectBulk(cmd, size / kEntry, index);
    EXPECT_EQ(dal->doBulkOperation(oneDeviceMask(0), tbl, buffer.data(), size + 1, nullptr, cmd),
              result);
  }
  EXPECT_THAT(dal->shadowSizes, ElementsAre(2 * kEntry + 1, 2 * kEntry + 1));
  EXPECT_THROW(dal->dalBulkRead(DeviceId(129u), tbl, kEntry, buffer.data(), nullptr),
               Corvane::FapIdRangeError);
}

// ---------------------------------------------------------------------------------------
// Readiness

// The ready rule itself (hardware off: ready; else the requester's ready) is followed through
// every change by the model test of the assembled tree; here, how the machine is rewired.
class RequesterDalReadyTest : public RequesterDalTest {
 public:
  Kel::Ptr<RequesterDal::DalReadySm> build(const Kel::Ptr<ShadowDal>& d) {
    return RequesterDal::DalReadySm::DalReadySmIs(requester, d);
  }
  Kel::Ptr<RequesterDal::DalReadySm> sm;
};

// A new requester is evaluated at once; a retired reactor ignores every change.
TEST_F(RequesterDalReadyTest, RetargetedReactorsReevaluateAndRetiredOnesIgnoreChanges) {
  sm = build(dal);
  EXPECT_FALSE(dal->ready());
  const auto other = Kel::allocate<StrictMock<MockRequester>>();
  other->readyIs(true);
  sm->requesterIs(other);
  EXPECT_TRUE(dal->ready());
  for (const auto& retire : std::vector<std::function<void(RequesterDal::DalReadySm&)>>{
           [](auto& m) { m.requesterDel(); }, [](auto& m) { m.dalDel(); },
           [](auto& m) { m.kelDoZombieReactors(true); }}) {
    const auto d = makeDal(false);
    sm = build(d);
    retire(*sm);
    requester->readyIs(true);
    d->hwAccessAllowedIs(false);
    EXPECT_FALSE(d->ready());
    requester->readyIs(false);
  }
}

TEST_F(RequesterDalReadyTest, TornDownDalFreesEveryEntity) {
  sm = build(dal);
  dal->dalReadySmIs(sm);
  {
    const Kel::Ptr<RequesterDal::DalReadySm> held = std::exchange(sm, nullptr);
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
  EXPECT_CALL(*requester, read(DeviceId(0), kTable, tbl, buffer.data(), kEntry))
      .WillOnce(Return(-1));
  const Lines::value_type readLine{9, "RequesterDal::dalRead offset 0x1000 size 8"};
  const Lines::value_type bulkNothing{
      3, "doBulkOperation resourceId type 1 id 0x41 bulk operation size is 0"};
  const Lines::value_type shadowAnswers{
      9, "readFromShadow shadowDal hardware access not allowed or forced to read from shadow,"};
  const Lines::value_type writeLine{
      9, "RequesterDal::dalWrite resource type 1 resource id 0x41 size 8 offset 0x1000"};
  const Lines::value_type skipped{
      9, "writeToShadow shadowDal hardware access not allowed, skip writing to hardware "};
  // clang-format off
  const std::vector<std::pair<std::function<void()>, Lines>> steps = {
    // The hardware's failure comes back; a forced or hardware-less miss reads as success.
    {[&] { dal->okToReadFromShadowIs(false); EXPECT_EQ(read(), -1); },
     {readLine, {8, "readFromShadow shadowDal local shadow access is disabled"}}},
    {[&] { dal->okToReadFromShadowIs(true), dal->forceReadFromShadowIs(true); EXPECT_EQ(read(), 0); },
     {readLine, shadowAnswers}},
    {[&] { dal->forceReadFromShadowIs(false), dal->hwAccessAllowedIs(false); EXPECT_EQ(read(), 0); },
     {readLine, shadowAnswers}},
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
  trace.clear();  // below one entry: no command
  EXPECT_EQ(bulk(bulkReadCmd(), kEntry - 1) | bulk(bulkWriteCmd(), kEntry - 1), 0);
  EXPECT_EQ(std::ranges::count(trace.lines(), bulkNothing), 2);
  EXPECT_EQ(std::pair(dal->cacheReadHits(), dal->cacheReadMisses()), std::pair(U64(0), U64(3)));
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
