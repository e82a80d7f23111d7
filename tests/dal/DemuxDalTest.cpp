// DemuxDal: the routing table and its notifications, command-index ranges and their text
// form, the routing decision with its ownership check, forwarding and fan-out to the member
// DALs, option propagation, readiness, the state dump and teardown. Every DAL is a ShadowDal
// over a strict mock requester, so an access that reaches the wrong DAL fails the test.
#include "Zorvek/DemuxDal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Parse.h"
#include "Zorvek/DemuxDalCreator.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace doubles;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::Pair;
using ::testing::Return;
using ::testing::StrictMock;
using ::testing::UnorderedElementsAre;

constexpr AgentId kMe = 5;
constexpr AgentId kOther = 7;
// The helper normalises kTable (0x41) to kNorm: routes and owners are keyed by kNorm.
constexpr PhysicalResourceId kNorm = kNormalized;
constexpr LogicalResourceId kMine{ResourceType::tableResource_, 1};
constexpr LogicalResourceId kTheirs{ResourceType::tableResource_, 2};
constexpr U32 kMaxBulk = maxBulkTransactionSizeInBytes();
U8 optArgStorage;
void* const kOptArg = &optArgStorage;  // any non-null optional argument
const auto byName = [](const auto& info) { return std::string(info.param.name); };

PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }
const char* tf(bool b) { return b ? "True" : "False"; }

// Logs "<name> <option>" for every option setter call and "<name> initLocalCache ...".
#define NOTED(option) \
  void option##Is(bool v) override { note(#option), ShadowDal::option##Is(v); }
class MemberDal : public ShadowDal {
 public:
  MemberDal(Kel::Name name, std::vector<std::string>* log)
      : ShadowDal(Kel::allocate<StrictMock<MockRequester>>(), false, std::move(name)), log_(log) {}
  StrictMock<MockRequester>& mock() const {
    return *static_cast<StrictMock<MockRequester>*>(requester().ptr());
  }
  NOTED(hwAccessAllowed)
  NOTED(blocking)
  NOTED(reclaimWhenProgrammed)
  NOTED(verifyEnabled)
  NOTED(forceReadFromShadow)
  NOTED(okToReadFromShadow)
  NOTED(okToWriteToShadow)
  NOTED(skipHwWriteIfShadowHit)
  void helperIs(const Kel::Ptr<DalHelper>& h) override { note("helper"), ShadowDal::helperIs(h); }
  void initLocalCache(DeviceId devId, bool cold) override {
    note("initLocalCache " + std::to_string(devId.value()) + " " + tf(cold));
  }

 private:
  void note(const std::string& what) { log_->push_back(name() + " " + what); }
  std::vector<std::string>* log_;
};
#undef NOTED

class DemuxDalTest : public ::testing::Test {
 public:
  void SetUp() override {
    creator->serializerInfoIs(SerializerId(1))->agentIdIs(kOther);
    creator->serializerInfoIs(SerializerId(2))->agentIdIs(kMe);
    creator->serializerIdMapIs(kTheirs, SerializerId(1));
    creator->serializerIdMapIs(kMine, SerializerId(2));
  }
  Kel::Ptr<MemberDal> member(const std::string& name, bool ready) {
    auto d = Kel::allocate<MemberDal>(name, &log);
    d->readyIs(ready);
    return d;
  }
  // Members "m1".."mn" under table ids 1..n.
  void addMembers(int n, bool ready = true) {
    for (int i = 1; i <= n; ++i) map->dalIs(table(i), member("m" + std::to_string(i), ready));
  }
  void build(bool withCreator = true) {
    demux = demuxDalFactory("demux", withCreator ? creator : nullptr, defaultDal, map, statusCol);
    demux->helperIs(helper);
    log.clear();
  }
  // `suffix` after the name of every member, in the map's iteration order.
  std::vector<std::string> inMapOrder(const std::string& suffix) const {
    std::vector<std::string> out;
    for (const auto& [rid, d] : *map) out.push_back(d->name() + suffix);
    return out;
  }

  // Routing must not depend on the environment the tests run in.
  const ScopedEnv localShadowAccess{"XP_FORCE_LOCAL_SHADOW_ACCESS", nullptr};
  const std::int64_t liveAtStart = Kel::TypeRegistry::liveEntities();
  std::vector<std::string> log;
  Kel::Ptr<FakeHelper> helper = Kel::allocate<FakeHelper>();
  Kel::Ptr<DemuxDalCreator> creator = demuxDalCreatorFactory(kMe, nullptr, "");
  Kel::Ptr<ResourceIdToDalMap> map = resourceIdToDalMapFactory();
  Kel::Ptr<DalProcessingStatusCol> statusCol = Kel::allocate<DalProcessingStatusCol>();
  Kel::Ptr<MemberDal> defaultDal = member("default", true);
  Kel::Ptr<DemuxDal> demux;
};

// ---------------------------------------------------------------------------------------
// ResourceIdToDalMap

class MapRecorder : public ResourceIdToDalMap::NotifieeConst {
 public:
  void onDal(const PhysicalResourceId& key) override { keys.push_back(key); }
  void onDal() override { ++wholeMap; }
  std::vector<PhysicalResourceId> keys;
  int wholeMap = 0;
};

// before, value, after: 0 none, 1 DAL a, 2 DAL b.
class ResourceIdToDalMapTest : public DemuxDalTest,
                               public ::testing::WithParamInterface<std::tuple<int, int, int>> {};

TEST_P(ResourceIdToDalMapTest, DalIsStoresReplacesOrRemovesAndNotifiesChanges) {
  const auto [before, value, after] = GetParam();
  const Kel::Ptr<RequesterDal> dals[] = {nullptr, member("a", true), member("b", true)};
  if (before) map->dalIs(kNorm, dals[before]);
  const auto recorder = Kel::allocate<MapRecorder>();
  recorder->notifierIs(Kel::Ptr<const ResourceIdToDalMap>(map));
  map->dalIs(kNorm, dals[value]);
  EXPECT_EQ(std::pair(map->dal(kNorm), map->size()),
            std::pair(dals[after], std::size_t(after ? 1 : 0)));
  EXPECT_EQ(recorder->keys,
            before == after ? std::vector<PhysicalResourceId>{} : std::vector{kNorm});
  EXPECT_EQ(dals[1]->references(), after == 1 ? 2 : 1);  // a replaced DAL is let go
}

INSTANTIATE_TEST_SUITE_P(Cases, ResourceIdToDalMapTest,
                         ::testing::Values(std::tuple(1, 1, 1), std::tuple(1, 0, 0),
                                           std::tuple(1, 2, 2), std::tuple(0, 0, 0),
                                           std::tuple(0, 1, 1)));

TEST_F(DemuxDalTest, MapDeletionsNotifyOncePerRemovedEntry) {
  addMembers(3);
  const auto recorder = Kel::allocate<MapRecorder>();
  recorder->notifierIs(Kel::Ptr<const ResourceIdToDalMap>(map));
  EXPECT_EQ(map->dalDel(kNorm), nullptr);
  EXPECT_THAT(recorder->keys, IsEmpty());
  map->dalDelAll();
  EXPECT_THAT(recorder->keys, UnorderedElementsAre(table(1), table(2), table(3)));
  EXPECT_EQ(std::pair(map->size(), recorder->wholeMap), std::pair(std::size_t{0}, 0));
}

// ---------------------------------------------------------------------------------------
// CmdIndexTuple and command-index tracking

TEST(CmdIndexTupleTest, TextFormRoundTripsAndStopsAfterClosing) {
  const CmdIndexTuple t(0, std::numeric_limits<U64>::max());
  const Kel::String text(
      "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 0, 'endingCmdIndex': "
      "18446744073709551615})");
  std::ostringstream os;
  os << t;
  EXPECT_EQ(std::pair(valueToStrep(t), os.str()), std::pair(text, std::string(text)));
  const Kel::String withTail = text + ", rest";
  Kel::String::IteratorConst it = withTail.cbegin();
  EXPECT_EQ(CmdIndexTuple(it, withTail.cend()), t);
  EXPECT_EQ(it - withTail.cbegin(), static_cast<std::ptrdiff_t>(text.size()));
  EXPECT_FALSE(CmdIndexTuple(1, 2) == CmdIndexTuple(1, 3) ||
               CmdIndexTuple(1, 2) == CmdIndexTuple(0, 2));
}

class CmdIndexTupleParseTest : public ::testing::TestWithParam<const char*> {};

TEST_P(CmdIndexTupleParseTest, RejectsMalformedText) {
  const Kel::String text = Kel::String("Value('Zorvek::CmdIndexTuple', ") + GetParam();
  Kel::String::IteratorConst it = text.cbegin();
  EXPECT_THROW((void)CmdIndexTuple(it, text.cend()), Kel::ParseError);
}

// Swapped fields, a missing blank, a missing closing and a number out of range.
INSTANTIATE_TEST_SUITE_P(Texts, CmdIndexTupleParseTest,
                         ::testing::Values("** {'endingCmdIndex': 2, 'startingCmdIndex': 1})",
                                           "** {'startingCmdIndex':1, 'endingCmdIndex': 2})",
                                           "** {'startingCmdIndex': 1, 'endingCmdIndex': 2}",
                                           "** {'startingCmdIndex': 18446744073709551616, "
                                           "'endingCmdIndex': 2})"));

TEST_F(DemuxDalTest, TrackingTurnsSnapshotIntoEnqueuedRanges) {
  build();
  const auto s1 = statusCol->processingStatusIs(DalId(1));
  const auto s2 = statusCol->processingStatusIs(DalId(2));
  s1->lastEnqueuedCmdIndexIs(10);
  s2->lastEnqueuedCmdIndexIs(10);
  const auto status = Kel::allocate<EnqueuedCmdStatus>();
  status->enqueuedCmdIndexIs(DalId(9), CmdIndexTuple(3, 4));  // a DAL the collection lacks
  demux->startTrackingCmdStatus(status);
  using Map = EnqueuedCmdStatus::Map;
  EXPECT_EQ(status->enqueuedCmdIndexes(), (Map{{1, {10, 0}}, {2, {10, 0}}, {9, {3, 4}}}));
  EXPECT_TRUE(s1->cmdStatusTracking() && s2->cmdStatusTracking());
  s2->lastEnqueuedCmdIndexIs(15);
  const auto s3 = statusCol->processingStatusIs(DalId(3));  // appeared after the snapshot
  s3->lastEnqueuedCmdIndexIs(4);
  s3->cmdStatusTrackingIs(true);
  demux->enqueuedCmdStatuses(status);
  EXPECT_EQ(status->enqueuedCmdIndexes(), (Map{{2, {11, 15}}, {3, {1, 4}}, {9, {3, 4}}}));
  EXPECT_FALSE(s1->cmdStatusTracking() || s2->cmdStatusTracking() || s3->cmdStatusTracking());
}

// ---------------------------------------------------------------------------------------
// Routing

enum Owner { me, other, unknown };
enum Pick { toDefault, toMember, aborts, noCreator };

struct SelectorCase {
  const char* name;
  bool optArg, forceDefault, check, creator;
  Owner owner;
  bool mapped, forceRead, forceLocalEnv;
  Pick pick;
};

class DemuxDalDeathTest : public DemuxDalTest,
                          public ::testing::WithParamInterface<SelectorCase> {};

TEST_P(DemuxDalDeathTest, DalSelectorFollowsDecisionTable) {
  const SelectorCase& c = GetParam();
  const auto routed = member("routed", true);
  if (c.mapped) map->dalIs(kNorm, routed);
  if (c.owner != unknown)
    creator->physicalToLogicalResourceMapIs(kNorm, c.owner == me ? kMine : kTheirs);
  build(c.creator);
  if (c.forceDefault) demux->attributeIs("forceUseDefaultDal", "True");
  demux->resourceOwnershipCheckEnabledIs(c.check);
  demux->forceReadFromShadowIs(c.forceRead);
  const ScopedEnv env("XP_FORCE_LOCAL_SHADOW_ACCESS", c.forceLocalEnv ? "" : nullptr);
  const auto select = [&] {
    return demux->dalSelector(kTableOffset, c.optArg ? kOptArg : nullptr);
  };
  if (c.pick == noCreator) {
    EXPECT_DEATH(select(), assertion("demuxDalCreator()"));
  } else if (c.pick == aborts) {
    const AgentId owner = c.owner == me ? kMe : c.owner == other ? kOther : 0xFFFF;
    const std::string trace = "Resource type 1 id 65 is owned by agent " + std::to_string(owner) +
                              " and not by agent 5 extDal " + tf(c.mapped) + " resourceOwnedByMe " +
                              tf(c.forceLocalEnv || c.owner != other) + "\n";
    EXPECT_DEATH((Kel::traceFileIs(""), Kel::traceLevelsIs("ZorvekDemuxDal/0"), select()),
                 literal(trace) + assertion("( (extDal && !resourceOwnedByMe) || "
                                            "(!extDal && resourceOwnedByMe) )"));
  } else {
    EXPECT_EQ(select().ptr(), (c.pick == toMember ? routed : defaultDal).ptr());
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, DemuxDalDeathTest, ::testing::ValuesIn(std::vector<SelectorCase>{
    // name                            optArg force check creator owner mapped forceRd env pick
    {"NullOptArgIgnoresRoute",         0, 0, 1, 1, other,   1, 0, 0, toDefault},
    {"NullOptArgNeedsNoCreator",       0, 0, 1, 0, other,   1, 0, 0, toDefault},
    {"ForceDefaultNeedsNoCreator",     1, 1, 1, 0, other,   1, 0, 0, toDefault},
    {"CheckOffMappedWhoeverOwns",      1, 0, 0, 0, me,      1, 0, 0, toMember},
    {"CheckOffUnmappedWhoeverOwns",    1, 0, 0, 1, other,   0, 0, 0, toDefault},
    {"TheirsMapped",                   1, 0, 1, 1, other,   1, 0, 0, toMember},
    {"MineUnmapped",                   1, 0, 1, 1, me,      0, 0, 0, toDefault},
    {"UnknownOwnerUnmapped",           1, 0, 1, 1, unknown, 0, 0, 0, toDefault},
    {"UnknownOwnerMappedAborts",       1, 0, 1, 1, unknown, 1, 0, 0, aborts},
    {"MineMappedAborts",               1, 0, 1, 1, me,      1, 0, 0, aborts},
    {"TheirsUnmappedAborts",           1, 0, 1, 1, other,   0, 0, 0, aborts},
    {"ForceReadWaivesMineMapped",      1, 0, 1, 1, me,      1, 1, 0, toMember},
    {"ForceReadWaivesTheirsUnmapped",  1, 0, 1, 1, other,   0, 1, 0, toDefault},
    {"LocalEnvMakesTheirsMineMapped",  1, 0, 1, 1, other,   1, 0, 1, aborts},
    {"LocalEnvTheirsUnmapped",         1, 0, 1, 1, other,   0, 0, 1, toDefault},
    {"LocalEnvForceReadMapped",        1, 0, 1, 1, other,   1, 1, 1, toMember},
    {"CheckOnWithoutCreatorAborts",    1, 0, 1, 0, other,   1, 0, 0, noCreator}}), byName);
// clang-format on

TEST_F(DemuxDalDeathTest, BulkAboveLimitAndTrackingWithoutStatusCollectionAbort) {
  statusCol = nullptr;
  build(false);  // choosing a DAL would abort on the missing creator instead
  std::vector<U8> buffer(kMaxBulk + 1);
  const std::string tooLarge = assertion("size <= maxBulkTransactionSizeInBytes()");
  EXPECT_DEATH(demux->dalBulkRead(0, kTableOffset, kMaxBulk + 1, buffer.data(), kOptArg), tooLarge);
  EXPECT_DEATH(
      demux->dalBulkWrite(oneDeviceMask(0), kTableOffset, kMaxBulk + 1, buffer.data(), kOptArg),
      tooLarge);
  // Only the start of tracking needs the collection; collecting without one does nothing.
  const auto status = Kel::allocate<EnqueuedCmdStatus>();
  status->enqueuedCmdIndexIs(DalId(1), CmdIndexTuple(10, 0));
  demux->enqueuedCmdStatuses(status);
  EXPECT_EQ(status->enqueuedCmdIndexes(), (EnqueuedCmdStatus::Map{{1, {10, 0}}}));
  EXPECT_DEATH(demux->startTrackingCmdStatus(status), assertion("pStatusCol"));
}

TEST_F(DemuxDalTest, AccessesReachTheRoutedDalUnchanged) {
  const auto theirs = member("theirs", true);
  map->dalIs(kNorm, theirs);
  creator->physicalToLogicalResourceMapIs(kNorm, kTheirs);
  build();
  demux->okToReadFromShadowIs(false);
  std::vector<U8> buffer(kMaxBulk);
  void* data = buffer.data();
  StrictMock<MockRequester>& req = theirs->mock();
  EXPECT_CALL(req, read(DeviceId(3), kTable, kTableOffset, data, kEntry))
      .WillOnce(Return(9))
      .WillOnce(Return(-1));
  EXPECT_CALL(req, write(oneDeviceMask(0), kTable, kTableOffset, data, IsNull(), kEntry, false))
      .WillOnce(Return(9));
  // A bulk access of exactly the limit passes.
  for (const auto& [entries, index] : {std::pair(kMaxBulk / kEntry, 9), {2u, -1}}) {
    EXPECT_CALL(req, bulkRead(DeviceId(3), kTable, kTableOffset, kPhysAddr, kEntry, entries))
        .WillOnce(Return(index));
    EXPECT_CALL(req, bulkWrite(oneDeviceMask(0), kTable, kTableOffset, kPhysAddr, IsNull(), kEntry,
                               entries))
        .WillOnce(Return(index));
  }
  EXPECT_EQ(demux->dalRead(3, kTableOffset, kEntry, data, kOptArg), 0);
  EXPECT_EQ(demux->dalRead(3, kTableOffset, kEntry, data, kOptArg), -1);
  EXPECT_EQ(demux->dalWrite(oneDeviceMask(0), kTableOffset, kEntry, data, kOptArg), 0);
  for (const auto& [size, result] : {std::pair(kMaxBulk, 0), {2u * kEntry, -1}}) {
    EXPECT_EQ(demux->dalBulkRead(3, kTableOffset, size, data, kOptArg), result);
    EXPECT_EQ(demux->dalBulkWrite(oneDeviceMask(0), kTableOffset, size, data, kOptArg), result);
  }
  EXPECT_THAT(helper->optArgs, Each(kOptArg));
}

TEST_F(DemuxDalTest, WaitsReachReadyMembersWithHardwareThenDefault) {
  const auto ready = member("ready", true), notReady = member("notReady", false),
             hwOff = member("hwOff", true);
  hwOff->hwAccessAllowedIs(false);
  map->dalIs(table(1), ready);
  map->dalIs(table(2), notReady);
  map->dalIs(table(3), hwOff);
  build();
  for (const Kel::Ptr<MemberDal>& d : {ready, notReady, hwOff, defaultDal})
    EXPECT_CALL(d->mock(), waitForCmdIndex(0)).WillRepeatedly([this, name = d->name()](U64) {
      log.push_back(name + " wait");
    });
  demux->waitForCompletion(2);
  demux->waitForCompletionDefaultDal(2);
  defaultDal->readyIs(false);
  demux->waitForCompletion(2);
  demux->waitForCompletionDefaultDal(2);
  defaultDal->readyIs(true);
  defaultDal->hwAccessAllowedIs(false);
  demux->waitForCompletionDefaultDal(2);
  EXPECT_THAT(log, ElementsAre("ready wait", "default wait", "default wait", "ready wait",
                               "default hwAccessAllowed"));
}

TEST_F(DemuxDalTest, FanOutsReachTheirDals) {
  addMembers(2);
  build();
  demux->initLocalCache(4, true);
  EXPECT_THAT(log, ::testing::UnorderedElementsAreArray(inMapOrder(" initLocalCache 4 True")));
  DalTrace trace("ZorvekDemuxDal");
  const auto checker = Kel::allocate<CoprocessorChecker>("checker");
  demux->coprocessorCheckerIs(checker);
  EXPECT_EQ(
      std::pair(defaultDal->coprocessorChecker(), defaultDal->requester()->coprocessorChecker()),
      std::pair(checker, checker));
  const auto other = Kel::allocate<FakeHelper>();
  demux->helperIs(other);
  EXPECT_THAT(trace.lines(), IsEmpty());
  EXPECT_EQ(defaultDal->helper(), other);
  for (const auto& [rid, d] : *map)
    EXPECT_EQ(
        std::tuple(d->coprocessorChecker(), d->requester()->coprocessorChecker(), d->helper()),
        std::tuple(nullptr, nullptr, other));
}

// ---------------------------------------------------------------------------------------
// Option propagation

// When notified, checks that the default DAL and every member already carry the new value.
class MembersAlreadyChanged : public Dal::NotifieeConst {
 public:
  void onHwAccessAllowed() override { seen.push_back(allCarry(&Dal::hwAccessAllowed)); }
  void onReclaimWhenProgrammed() override { seen.push_back(allCarry(&Dal::reclaimWhenProgrammed)); }
  std::vector<bool> seen;

 private:
  bool allCarry(bool (Dal::*get)() const) const {
    const auto& demux = static_cast<const DemuxDal&>(*notifier().ptr());
    bool all = (*demux.defaultDal().*get)() == (demux.*get)();
    for (const auto& [rid, d] : *demux.resourceIdToDalMap())
      all = all && ((*d).*get)() == (demux.*get)();
    return all;
  }
};

struct OptionCase {
  const char* name;
  void (Dal::*set)(bool);
  bool (Dal::*get)() const;
  const char* trace;  // the level-7 text once the option is flipped; null: untraced
};

class DemuxDalOptionTest : public DemuxDalTest, public ::testing::WithParamInterface<OptionCase> {};

TEST_P(DemuxDalOptionTest, ChangeReachesDefaultThenEveryMemberBeforeObservers) {
  const OptionCase& c = GetParam();
  addMembers(3);
  build();
  Dal& d = *demux;
  const bool current = (d.*c.get)();
  const auto observer = Kel::allocate<MembersAlreadyChanged>();
  observer->notifierIs(Kel::Ptr<const Dal>(demux));
  DalTrace trace("ZorvekDemuxDal");
  (d.*c.set)(current);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_THAT(trace.lines(), IsEmpty());
  (d.*c.set)(!current);
  std::vector<std::string> expected = {"default " + std::string(c.name)};
  for (const std::string& m : inMapOrder(" " + std::string(c.name))) expected.push_back(m);
  EXPECT_EQ(log, expected);
  EXPECT_EQ((*defaultDal.*c.get)(), !current);
  for (const auto& [rid, m] : *map) EXPECT_EQ(((*m).*c.get)(), !current);
  if (c.trace)
    EXPECT_THAT(trace.lines(), ElementsAre(Pair(7, c.trace)));
  else
    EXPECT_THAT(trace.lines(), IsEmpty());
  // Of these options only two notify, and only once every member carries the change.
  const bool notifies = c.set == &Dal::hwAccessAllowedIs || c.set == &Dal::reclaimWhenProgrammedIs;
  EXPECT_EQ(observer->seen, notifies ? std::vector{true} : std::vector<bool>{});
}

#define OPTION(x) #x, &Dal::x##Is, &Dal::x
// clang-format off
INSTANTIATE_TEST_SUITE_P(Options, DemuxDalOptionTest, ::testing::ValuesIn(std::vector<OptionCase>{
    {OPTION(hwAccessAllowed), "DemuxDal::handleHwAccessAllowedOptions demux hwAccessAllowed False "
     "forceReadFromShadow False okToReadFromShadow True okToWriteToShadow True blocking False "
     "reclaimWhenProgrammed False"},
    {OPTION(blocking), "DemuxDal::handleBlockingOptions demux hwAccessAllowed True "
     "forceReadFromShadow False okToReadFromShadow True okToWriteToShadow True blocking True "
     "reclaimWhenProgrammed False"},
    {OPTION(okToReadFromShadow), "DemuxDal::handleReadFromShadowOptions demux hwAccessAllowed True "
     "forceReadFromShadow False okToReadFromShadow False okToWriteToShadow True blocking False "
     "reclaimWhenProgrammed False"},
    {OPTION(okToWriteToShadow), "DemuxDal::handleWriteToShadowOptions demux hwAccessAllowed True "
     "forceReadFromShadow False okToReadFromShadow True okToWriteToShadow False blocking False "
     "reclaimWhenProgrammed False"},
    {OPTION(forceReadFromShadow), "DemuxDal::handleForceReadFromShadowOptions demux hwAccessAllowed "
     "True forceReadFromShadow True okToReadFromShadow True okToWriteToShadow True blocking False "
     "reclaimWhenProgrammed False"},
    {OPTION(reclaimWhenProgrammed), "DemuxDal::handleReclaimWhenProgrammed demux hwAccessAllowed "
     "True forceReadFromShadow False okToReadFromShadow True okToWriteToShadow True blocking False "
     "reclaimWhenProgrammed True"},
    {OPTION(skipHwWriteIfShadowHit),
     "DemuxDal::handleSkipHwWriteIfShadowHit demux skipHwWriteIfShadowHit True"},
    {OPTION(verifyEnabled), nullptr}}), byName);
// clang-format on
#undef OPTION

// ---------------------------------------------------------------------------------------
// Readiness

// The default DAL can make the parent ready but never clears it; a member added not ready
// clears it at once, while a removal waits for the next change to be taken in.
TEST_F(DemuxDalTest, ReadyFollowsTheDefaultDalAndEveryMember) {
  const auto m = member("m", true), late = member("late", false), later = member("later", false);
  map->dalIs(kNorm, m);
  defaultDal->readyIs(false);
  build();
  // clang-format off
  const std::vector<std::pair<std::function<void()>, bool>> steps = {
    {[] {}, false},
    {[&] { defaultDal->readyIs(true); }, true},
    {[&] { defaultDal->readyIs(false), m->readyIs(false); }, true},
    {[&] { defaultDal->readyIs(true); }, false},
    {[&] { m->readyIs(true); }, true},
    {[&] { map->dalIs(table(8), late); }, false},
    {[&] { map->dalDel(table(8)), late->readyIs(true); }, false},  // no longer watched
    {[&] { map->dalIs(table(9), member("another", true)); }, true},
    {[&] { map->dalIs(table(8), later), map->dalDel(table(8)); }, false},
    {[&] { defaultDal->readyIs(false), defaultDal->readyIs(true); }, true}};
  // clang-format on
  for (std::size_t i = 0; i < steps.size(); ++i) {
    steps[i].first();
    EXPECT_EQ(demux->ready(), steps[i].second) << "step " << i;
  }
  // Without a map to watch, a ready default DAL alone makes the parent ready.
  const auto parent = member("parent", false);
  const auto sm = DemuxDal::DemuxDalReadySm::DemuxDalReadySmIs(defaultDal, nullptr, parent.ptr());
  EXPECT_TRUE(parent->ready());
}

TEST_F(DemuxDalTest, TracesNameEachStepAndStopAtFirstMemberNotReady) {
  DalTrace trace("ZorvekDemuxDal");
  build();
  const auto handled = Pair(8, "DemuxDal::DemuxDalReadySm::handleDalReady demux");
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "handleInitialized"), Pair(8, "handleInitialized"),
                                         handled, Pair(8, "All DALs in demux DAL are ready")));
  EXPECT_TRUE(demux->ready());  // an empty map
  trace.clear();
  demux->dalSelector(kTableOffset, nullptr);
  demux->attributeIs("forceUseDefaultDal", "True");
  demux->dalSelector(kTableOffset, kOptArg);
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "Resource type 1 id 0x41 forceDefaultDal False"),
                                         Pair(8, "Resource type 1 id 0x41 forceDefaultDal True")));
  addMembers(3, false);
  const auto first = *map->begin(), second = *std::next(map->begin());
  first.second->readyIs(true);
  const auto text = [](const auto& entry, const char* state) {
    return "DAL for Table " + std::to_string(entry.first.id()) + " " + entry.second->name() + state;
  };
  trace.clear();
  demux->demuxDalReadySm()->handleDalReady();
  EXPECT_THAT(trace.lines(), ElementsAre(handled, Pair(8, text(first, " is ready now")),
                                         Pair(8, text(second, " not ready yet"))));
  trace.clear();
  defaultDal->readyIs(false);
  EXPECT_THAT(trace.lines(), ElementsAre(handled, Pair(6, "default DAL default not ready yet")));
}

// ---------------------------------------------------------------------------------------
// State dump and teardown

TEST_F(DemuxDalTest, StateDumpFramesEveryDal) {
  build();
  const auto own = [](const Kel::Ptr<RequesterDal>& d) {
    return dumpOf([&](U32 fd) { d->showDalState(fd); });
  };
  const std::string head = dumpOf([&](U32 fd) { demux->Dal::showDalState(fd); }) +
                           "'defaultDalState': {" + own(defaultDal) + "},'remoteDals': {";
  const auto whole = [&] { return dumpOf([&](U32 fd) { demux->showDemuxDalState(fd); }); };
  EXPECT_EQ(whole(), head + "},");
  // Two ids that differ only in their type print the same key, in the map's order.
  map->dalIs(table(21), member("table21", true));
  map->dalIs({ResourceType::registerResource_, 21}, member("register21", true));
  std::string members;
  for (const auto& [rid, d] : *map) members += "'21': {" + own(d) + "},";
  DalTrace trace("ZorvekDemuxDal");
  EXPECT_EQ(whole(), head + members + "},");
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "void Zorvek::DemuxDal::showDemuxDalState(U32)")));
}

TEST_F(DemuxDalTest, TornDownDemuxDalFreesEveryEntity) {
  Kel::Ptr<MemberDal> survivor = member("survivor", false);
  map->dalIs(kNorm, survivor);
  addMembers(2);
  build();
  demux = nullptr;
  map = nullptr;
  survivor->readyIs(true);  // outlives the DemuxDal that watched it
  survivor = defaultDal = nullptr;
  creator = nullptr;
  statusCol = nullptr;
  helper = nullptr;
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), liveAtStart);
}

}  // namespace
}  // namespace Zorvek
