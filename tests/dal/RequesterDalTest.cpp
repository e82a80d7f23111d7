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
  Kel::Ptr<ShadowDal> makeDal() {
    auto d = Kel::allocate<ShadowDal>(requester);
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

  Kel::Ptr<FakeHelper> helper = Kel::allocate<FakeHelper>();
  Kel::Ptr<StrictMock<MockRequester>> requester = Kel::allocate<StrictMock<MockRequester>>();
  Kel::Ptr<ShadowDal> dal = makeDal();
  std::vector<U8> buffer = std::vector<U8>(0x10010);
};

// ---------------------------------------------------------------------------------------
// Single accesses

// The reclaim flag travels with the write. Blocking, the data and the data mask are followed
// end to end by the model and assembled-tree tests, and so is the shadow policy around the
// write.
TEST_F(RequesterDalTest, HardwareWriteCarriesTheReclaimFlag) {
  for (bool reclaim : {false, true}) {
    dal->reclaimWhenProgrammedIs(reclaim);
    EXPECT_CALL(*requester, write(oneDeviceMask(0), kTable, tbl, _, nullptr, kEntry, reclaim))
        .WillOnce(Return(7));
    EXPECT_EQ(write(), 0);
  }
}

// The coprocessor checker reaches the requester in the DemuxDal's tests.
TEST_F(RequesterDalTest, VerifyReachesTheHelperAndNoWaitWithHardwareOff) {
  dal->verifyEnabledIs(true);
  dal->hwAccessAllowedIs(false);
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(write(), 0);
  EXPECT_THAT(helper->verified, ElementsAre(Pair(kTable, tbl), Pair(kTable, tbl)));
  dal->waitForCompletion(0);  // hardware off: a wait would be an unexpected call
}

// With skipHwWriteIfShadowHit a write whose every byte the shadow already holds goes no
// further: no command (the requester is a strict mock), one write hit. A shadow that holds
// less, other bytes or nothing, or may not be read, is a miss and the hardware is written.
TEST_F(RequesterDalTest, WriteIsSkippedOnlyWhenTheShadowHoldsEveryByte) {
  // clang-format off
  // name, skip switched on, what the shadow holds (empty: nothing), shadow reads allowed,
  // the hardware written
  for (const auto& [name, skip, held, okRead, hwWrite] : std::vector<
           std::tuple<const char*, bool, std::vector<U8>, bool, bool>>{
         {"Hit", true, kData, true, false},
         {"OneByteDiffers", true, {1, 2, 3, 4, 5, 6, 7, 9}, true, true},
         {"ShadowHoldsHalf", true, {1, 2, 3, 4}, true, true},
         {"NothingHeld", true, {}, true, true},
         {"ShadowReadsOff", true, kData, false, true},
         {"SkipOff", false, kData, true, true}}) {
    // clang-format on
    dal = makeDal();
    helper->shadow.clear();
    if (!held.empty()) helper->shadow[tbl] = held;
    dal->skipHwWriteIfShadowHitIs(skip);
    dal->okToReadFromShadowIs(okRead);
    if (hwWrite)
      EXPECT_CALL(*requester, write(oneDeviceMask(0), kTable, tbl, _, nullptr, kEntry, false))
          .WillOnce(Return(1));
    EXPECT_EQ(write(), 0) << name;
    EXPECT_EQ(dal->cacheWriteHits(), hwWrite ? 0u : 1u) << name;
    EXPECT_EQ(dal->cacheWriteMisses(), hwWrite ? 1u : 0u) << name;
    Mock::VerifyAndClearExpectations(requester.ptr());
  }
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

// With hardware access off a bulk access never reaches the requester: a read answers from the
// shadow, even one that holds nothing (the caller's buffer is then left as it was), a write
// lands in the shadow alone, and the shadow switches do not apply.
TEST_F(RequesterDalTest, BulkWithHardwareOffStaysInTheShadow) {
  const U32 size = 2 * kEntry;
  const std::vector<U8> held(size, 0x5A), caller(size, 0x11);
  // name, command, the shadow holds the range, shadow switches on, read hits, read misses
  for (const auto& [name, cmd, holds, switches, hits, misses] :
       std::vector<std::tuple<const char*, Command, bool, bool, U64, U64>>{
           {"ReadHeld", bulkReadCmd(), true, true, 1, 0},
           {"ReadNothingHeld", bulkReadCmd(), false, true, 0, 1},
           {"ReadSwitchOff", bulkReadCmd(), true, false, 1, 0},
           {"Write", bulkWriteCmd(), false, true, 0, 0},
           {"WriteSwitchOff", bulkWriteCmd(), false, false, 0, 0}}) {
    dal = makeDal();
    dal->hwAccessAllowedIs(false);
    dal->okToReadFromShadowIs(switches);
    dal->okToWriteToShadowIs(switches);
    helper->shadow.clear();
    if (holds) helper->shadow[tbl] = held;
    std::copy(caller.begin(), caller.end(), buffer.begin());
    EXPECT_EQ(bulk(cmd, size), 0) << name;
    EXPECT_EQ(dal->cacheReadHits(), hits) << name;
    EXPECT_EQ(dal->cacheReadMisses(), misses) << name;
    EXPECT_EQ(dal->cacheWriteMisses(), 0u) << name;
    const std::vector<U8> after(buffer.begin(), buffer.begin() + size);
    if (cmd == bulkWriteCmd())
      EXPECT_EQ(helper->shadow[tbl], caller) << name;
    else
      EXPECT_EQ(after, holds ? held : caller) << name;
  }
}

// ---------------------------------------------------------------------------------------
// Readiness

// An agent's own DAL may rewire its readiness machine: a new requester is evaluated at once;
// a retired reactor (requester or DAL deleted, or the machine torn down) ignores every change.
TEST_F(RequesterDalTest, RetargetedReactorsReevaluateAndRetiredOnesIgnoreChanges) {
  auto sm = RequesterDal::DalReadySm::DalReadySmIs(requester, dal);
  EXPECT_FALSE(dal->ready());
  const auto other = Kel::allocate<StrictMock<MockRequester>>();
  other->readyIs(true);
  sm->requesterIs(other);
  EXPECT_TRUE(dal->ready());
  for (const auto& retire : std::vector<std::function<void(RequesterDal::DalReadySm&)>>{
           [](auto& m) { m.requesterDel(); }, [](auto& m) { m.dalDel(); },
           [](auto& m) { m.kelDoZombieReactors(true); }}) {
    const auto d = makeDal();
    sm = RequesterDal::DalReadySm::DalReadySmIs(requester, d);
    retire(*sm);
    requester->readyIs(true);
    d->hwAccessAllowedIs(false);
    EXPECT_FALSE(d->ready());
    requester->readyIs(false);
  }
}

// Hardware off makes the DAL ready whatever its requester says; with it on, the DAL follows
// the requester. Each step: what changes, then whether the DAL is ready.
TEST_F(RequesterDalTest, ReadyFollowsTheRequesterOnlyWhileHardwareIsAllowed) {
  const auto sm = RequesterDal::DalReadySm::DalReadySmIs(requester, dal);
  // clang-format off
  const std::vector<std::tuple<const char*, std::function<void()>, bool>> steps = {
    {"RequesterNotReady", [] {}, false},
    {"HardwareOffWhileRequesterNotReady", [&] { dal->hwAccessAllowedIs(false); }, true},
    {"HardwareOnWhileRequesterNotReady", [&] { dal->hwAccessAllowedIs(true); }, false},
    {"HardwareOffAgain", [&] { dal->hwAccessAllowedIs(false); }, true},
    {"RequesterReadyWhileHardwareOff", [&] { requester->readyIs(true); }, true},
    {"RequesterNotReadyWhileHardwareOff", [&] { requester->readyIs(false); }, true},
    {"HardwareOnAfterRequesterReady",
     [&] { requester->readyIs(true), dal->hwAccessAllowedIs(true); }, true},
    {"RequesterNotReadyWithHardwareOn", [&] { requester->readyIs(false); }, false}};
  // clang-format on
  for (const auto& [name, change, ready] : steps) {
    change();
    EXPECT_EQ(dal->ready(), ready) << name;
  }
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
  };
  // clang-format on
  for (std::size_t i = 0; i < steps.size(); ++i) {
    trace.clear();
    steps[i].first();
    EXPECT_THAT(trace.lines(), ElementsAreArray(steps[i].second)) << "step " << i;
  }
  EXPECT_EQ(requester->processingStatus()->lastEnqueuedCmdIndex(), 2u);
  trace.clear();  // below one entry: no command
  EXPECT_EQ(bulk(bulkReadCmd(), kEntry - 1), 0);
  EXPECT_EQ(bulk(bulkWriteCmd(), kEntry - 1), 0);
  EXPECT_EQ(std::ranges::count(trace.lines(), bulkNothing), 2);
  EXPECT_EQ(dal->cacheReadHits(), 0u);
  EXPECT_EQ(dal->cacheReadMisses(), 3u);
}

using RequesterDalDeathTest = RequesterDalTest;

TEST_F(RequesterDalDeathTest, BrokenInvariantsAbortWithTheirText) {
  TargetMask devices01 = oneDeviceMask(0);
  devices01.targetIdIs(TargetId(1), true);
  const U32 tooLarge = maxBulkTransactionSizeInBytes() + 1;
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
    {[&] { bulk(bulkReadCmd(), tooLarge); }, "size <= maxBulkTransactionSizeInBytes()"},
    {[&] { dal->doBulkOperation(oneDeviceMask(0), kTableOffset, buffer.data(), kEntry, nullptr,
                                Command::readCmd_); }, "cmd == Zorvek::bulkReadCmd()"},
    {[&] { helper->entrySize = 0; bulk(bulkReadCmd(), kEntry); }, "entrySizeInBytes"},
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
