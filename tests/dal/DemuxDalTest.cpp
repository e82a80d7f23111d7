// DemuxDal: the routing table and its notifications, command-index ranges and their text
// form, the routing decision with its ownership check, forwarding and fan-out to the member
// DALs, option propagation, readiness, the state dump and teardown. Every DAL is a ShadowDal
// over a strict mock requester, so an access that reaches the wrong DAL fails the test.
#include "Zorvek/DemuxDal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

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
constexpr PhysicalResourceId kNorm{ResourceType::tableResource_, 0x40};
constexpr LogicalResourceId kMine{ResourceType::tableResource_, 1};
constexpr LogicalResourceId kTheirs{ResourceType::tableResource_, 2};
constexpr U32 kMaxBulk = maxBulkTransactionSizeInBytes();
U8 optArgStorage;
void* const kOptArg = &optArgStorage;  // any non-null optional argument

PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }
const char* tf(bool b) { return b ? "True" : "False"; }

class NormalizingHelper : public FakeHelper {
 public:
  PhysicalResourceId resourceId(DeviceOffset offset, void* optArg) const override {
    optArgs.push_back(optArg);
    return FakeHelper::resourceId(offset, optArg);
  }
  PhysicalResourceId normalizedResourceId(const PhysicalResourceId& rid) const override {
    return rid == kTable ? kNorm : rid;
  }
  mutable std::vector<void*> optArgs;  // of every resource-id query
};

// Logs "<name> <option>" for every option setter call and "<name> initLocalCache ...".
class MemberDal : public ShadowDal {
 public:
  MemberDal(Kel::Name name, std::vector<std::string>* log)
      : ShadowDal(Kel::allocate<StrictMock<MockRequester>>(), false, std::move(name)), log_(log) {}
  StrictMock<MockRequester>& mock() const {
    return *static_cast<StrictMock<MockRequester>*>(requester().ptr());
  }
  void hwAccessAllowedIs(bool v) override {
    ShadowDal::hwAccessAllowedIs(noted("hwAccessAllowed", v));
  }
  void blockingIs(bool v) override { ShadowDal::blockingIs(noted("blocking", v)); }
  void reclaimWhenProgrammedIs(bool v) override {
    ShadowDal::reclaimWhenProgrammedIs(noted("reclaimWhenProgrammed", v));
  }
  void verifyEnabledIs(bool v) override { ShadowDal::verifyEnabledIs(noted("verifyEnabled", v)); }
  void forceReadFromShadowIs(bool v) override {
    ShadowDal::forceReadFromShadowIs(noted("forceReadFromShadow", v));
  }
  void okToReadFromShadowIs(bool v) override {
    ShadowDal::okToReadFromShadowIs(noted("okToReadFromShadow", v));
  }
  void okToWriteToShadowIs(bool v) override {
    ShadowDal::okToWriteToShadowIs(noted("okToWriteToShadow", v));
  }
  void skipHwWriteIfShadowHitIs(bool v) override {
    ShadowDal::skipHwWriteIfShadowHitIs(noted("skipHwWriteIfShadowHit", v));
  }
  void helperIs(const Kel::Ptr<DalHelper>& h) override { ShadowDal::helperIs(noted("helper", h)); }
  void initLocalCache(DeviceId devId, bool coldStart) override {
    note("initLocalCache " + std::to_string(devId.value()) + " " + tf(coldStart));
  }

 private:
  void note(const std::string& what) { log_->push_back(name() + " " + what); }
  template <class V>
  const V& noted(const char* option, const V& value) {
    note(option);
    return value;
  }
  std::vector<std::string>* log_;
};

class DemuxDalTest : public ::testing::Test {
 public:
  void SetUp() override {
    liveAtStart = Kel::TypeRegistry::liveEntities();
    helper = Kel::allocate<NormalizingHelper>();
    creator = demuxDalCreatorFactory(kMe, nullptr, "");
    creator->serializerInfoIs(SerializerId(1))->agentIdIs(kOther);
    creator->serializerInfoIs(SerializerId(2))->agentIdIs(kMe);
    creator->serializerIdMapIs(kTheirs, SerializerId(1));
    creator->serializerIdMapIs(kMine, SerializerId(2));
    map = resourceIdToDalMapFactory();
    statusCol = Kel::allocate<DalProcessingStatusCol>();
    defaultDal = member("default", true);
  }
  Kel::Ptr<MemberDal> member(const char* name, bool ready) {
    auto d = Kel::allocate<MemberDal>(name, &log);
    d->readyIs(ready);
    return d;
  }
  // Ready members "m1".."mn" under table ids 1..n.
  void addMembers(int n) {
    for (int i = 1; i <= n; ++i)
      map->dalIs(table(i), member(("m" + std::to_string(i)).c_str(), true));
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
  const ScopedEnv localShadowAccess{"XP_FORCE_LOCAL_SHADOW_ACCESS", false};
  std::int64_t liveAtStart = 0;
  std::vector<std::string> log;
  Kel::Ptr<NormalizingHelper> helper;
  Kel::Ptr<DemuxDalCreator> creator;
  Kel::Ptr<ResourceIdToDalMap> map;
  Kel::Ptr<DalProcessingStatusCol> statusCol;
  Kel::Ptr<MemberDal> defaultDal;
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

struct DalIsCase {
  const char* name;
  int before, value, after;  // 0: none, 1: DAL a, 2: DAL b
  bool notifies;
};

class ResourceIdToDalMapTest : public DemuxDalTest,
                               public ::testing::WithParamInterface<DalIsCase> {};

TEST_P(ResourceIdToDalMapTest, DalIsStoresReplacesOrRemoves) {
  const DalIsCase& c = GetParam();
  const Kel::Ptr<RequesterDal> dals[] = {nullptr, member("a", true), member("b", true)};
  if (c.before) map->dalIs(kNorm, dals[c.before]);
  const auto recorder = Kel::allocate<MapRecorder>();
  recorder->notifierIs(Kel::Ptr<const ResourceIdToDalMap>(map));
  map->dalIs(kNorm, dals[c.value]);
  EXPECT_EQ(map->dal(kNorm), dals[c.after]);
  EXPECT_EQ(map->size(), c.after ? 1u : 0u);
  EXPECT_EQ(recorder->keys, c.notifies ? std::vector{kNorm} : std::vector<PhysicalResourceId>{});
  EXPECT_EQ(dals[1]->references(), c.after == 1 ? 2 : 1);  // a replaced DAL is let go
}

INSTANTIATE_TEST_SUITE_P(Cases, ResourceIdToDalMapTest,
                         ::testing::ValuesIn(std::vector<DalIsCase>{
                             {"SameDalTwice", 1, 1, 1, false},
                             {"NullRemovesPresentKey", 1, 0, 0, true},
                             {"OtherDalReplaces", 1, 2, 2, true},
                             {"NullForAbsentKey", 0, 0, 0, false},
                             {"NewKeyInserts", 0, 1, 1, true}}),
                         [](const auto& info) { return std::string(info.param.name); });

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
  EXPECT_FALSE(CmdIndexTuple(1, 2) == CmdIndexTuple(1, 3));
  EXPECT_FALSE(CmdIndexTuple(1, 2) == CmdIndexTuple(0, 2));
}

class CmdIndexTupleParseTest : public ::testing::TestWithParam<const char*> {};

TEST_P(CmdIndexTupleParseTest, RejectsMalformedText) {
  const Kel::String text(GetParam());
  Kel::String::IteratorConst it = text.cbegin();
  EXPECT_THROW((void)CmdIndexTuple(it, text.cend()), Kel::ParseError);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CmdIndexTupleParseTest,
    ::testing::Values(
        "Value('Zorvek::CmdIndexTuple', ** {'endingCmdIndex': 2, 'startingCmdIndex': 1})",
        "Value('Zorvek::CmdIndexTuple', **{'startingCmdIndex': 1, 'endingCmdIndex': 2})",
        "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex':1, 'endingCmdIndex': 2})",
        "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 1,  'endingCmdIndex': 2})",
        "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 1, 'endingCmdIndex': 2}",
        "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 1, 'endingCmdIndex': 2",
        "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 18446744073709551616, "
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

enum class Owner { me, other, unknown };
enum class Pick { defaultDal, member, mismatch, noCreator };

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
  if (c.owner != Owner::unknown)
    creator->physicalToLogicalResourceMapIs(kNorm, c.owner == Owner::me ? kMine : kTheirs);
  build(c.creator);
  if (c.forceDefault) demux->attributeIs("forceUseDefaultDal", "True");
  demux->resourceOwnershipCheckEnabledIs(c.check);
  demux->forceReadFromShadowIs(c.forceRead);
  const ScopedEnv env("XP_FORCE_LOCAL_SHADOW_ACCESS", c.forceLocalEnv);
  void* optArg = c.optArg ? kOptArg : nullptr;
  const auto select = [&] { return demux->dalSelector(kTableOffset, optArg); };
  const AgentId owner = c.owner == Owner::me ? kMe : c.owner == Owner::other ? kOther : 0xFFFF;
  const bool ownedByMe = c.forceLocalEnv || c.owner != Owner::other;
  const std::string mismatch = "Resource type 1 id 65 is owned by agent " + std::to_string(owner) +
                               " and not by agent 5 extDal " + tf(c.mapped) +
                               " resourceOwnedByMe " + tf(ownedByMe) + "\n";
  switch (c.pick) {
    case Pick::defaultDal:
      EXPECT_EQ(select().ptr(), defaultDal.ptr());
      break;
    case Pick::member:
      EXPECT_EQ(select().ptr(), routed.ptr());
      break;
    case Pick::noCreator:
      EXPECT_DEATH(select(), assertion("demuxDalCreator()"));
      break;
    case Pick::mismatch:
      EXPECT_DEATH(
          {
            Kel::traceFileIs("");
            Kel::traceLevelsIs("ZorvekDemuxDal/0");
            select();
          },
          literal(mismatch) +
              assertion("( (extDal && !resourceOwnedByMe) || (!extDal && resourceOwnedByMe) )"));
  }
}

constexpr Owner me = Owner::me, other = Owner::other, unknown = Owner::unknown;
constexpr Pick toDefault = Pick::defaultDal, toMember = Pick::member, aborts = Pick::mismatch;

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
    {"CheckOnWithoutCreatorAborts",    1, 0, 1, 0, other,   1, 0, 0, Pick::noCreator}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

TEST_F(DemuxDalDeathTest, BulkAboveLimitAbortsBeforeAnyDalIsChosen) {
  build(false);  // choosing a DAL would abort on the missing creator instead
  std::vector<U8> buffer(kMaxBulk + 1);
  const std::string tooLarge = assertion("size <= maxBulkTransactionSizeInBytes()");
  EXPECT_DEATH(demux->dalBulkRead(0, kTableOffset, kMaxBulk + 1, buffer.data(), kOptArg), tooLarge);
  EXPECT_DEATH(
      demux->dalBulkWrite(oneDeviceMask(0), kTableOffset, kMaxBulk + 1, buffer.data(), kOptArg),
      tooLarge);
}

TEST_F(DemuxDalDeathTest, WithoutStatusCollectionOnlyTrackingStartAborts) {
  statusCol = nullptr;
  build();
  const auto status = Kel::allocate<EnqueuedCmdStatus>();
  status->enqueuedCmdIndexIs(DalId(1), CmdIndexTuple(10, 0));
  demux->enqueuedCmdStatuses(status);
  EXPECT_EQ(status->enqueuedCmdIndexes(), (EnqueuedCmdStatus::Map{{1, {10, 0}}}));
  EXPECT_DEATH(demux->startTrackingCmdStatus(status), assertion("pStatusCol"));
}

enum class Access { read, write, bulkRead, bulkWrite };

struct ForwardCase {
  const char* name;
  Access access;
  U32 size;
  S64 index;  // what the member's requester answers
  S32 result;
};

class DemuxDalForwardTest : public DemuxDalTest,
                            public ::testing::WithParamInterface<ForwardCase> {};

TEST_P(DemuxDalForwardTest, AccessReachesRoutedDalUnchanged) {
  const ForwardCase& c = GetParam();
  const auto theirs = member("theirs", true);
  map->dalIs(kNorm, theirs);
  creator->physicalToLogicalResourceMapIs(kNorm, kTheirs);
  build();
  demux->okToReadFromShadowIs(false);
  std::vector<U8> buffer(kMaxBulk);
  void* data = buffer.data();
  StrictMock<MockRequester>& req = theirs->mock();
  S32 result = 0;
  switch (c.access) {
    case Access::read:
      EXPECT_CALL(req, read(DeviceId(3), kTable, kTableOffset, data, c.size))
          .WillOnce(Return(c.index));
      result = demux->dalRead(3, kTableOffset, static_cast<U16>(c.size), data, kOptArg);
      break;
    case Access::write:
      EXPECT_CALL(req, write(oneDeviceMask(0), kTable, kTableOffset, data, IsNull(), c.size, false))
          .WillOnce(Return(c.index));
      result =
          demux->dalWrite(oneDeviceMask(0), kTableOffset, static_cast<U16>(c.size), data, kOptArg);
      break;
    case Access::bulkRead:
      EXPECT_CALL(req,
                  bulkRead(DeviceId(3), kTable, kTableOffset, kPhysAddr, kEntry, c.size / kEntry))
          .WillOnce(Return(c.index));
      result = demux->dalBulkRead(3, kTableOffset, c.size, data, kOptArg);
      break;
    case Access::bulkWrite:
      EXPECT_CALL(req, bulkWrite(oneDeviceMask(0), kTable, kTableOffset, kPhysAddr, IsNull(),
                                 kEntry, c.size / kEntry))
          .WillOnce(Return(c.index));
      result = demux->dalBulkWrite(oneDeviceMask(0), kTableOffset, c.size, data, kOptArg);
  }
  EXPECT_EQ(result, c.result);
  EXPECT_THAT(helper->optArgs, Each(kOptArg));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Accesses, DemuxDalForwardTest, ::testing::ValuesIn(std::vector<ForwardCase>{
    {"Read",             Access::read,      kEntry,     9,  0},
    {"ReadFails",        Access::read,      kEntry,     -1, -1},
    {"Write",            Access::write,     kEntry,     9,  0},
    {"BulkReadAtLimit",  Access::bulkRead,  kMaxBulk,   9,  0},
    {"BulkReadFails",    Access::bulkRead,  2 * kEntry, -1, -1},
    {"BulkWriteAtLimit", Access::bulkWrite, kMaxBulk,   9,  0},
    {"BulkWriteFails",   Access::bulkWrite, 2 * kEntry, -1, -1}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

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
  const auto other = Kel::allocate<NormalizingHelper>();
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

struct OptionCase {
  const char* name;
  void (Dal::*set)(bool);
  bool (Dal::*get)() const;
  const char* trace;  // the level-7 text once the option is flipped; null: untraced
};

class DemuxDalOptionTest : public DemuxDalTest, public ::testing::WithParamInterface<OptionCase> {};

TEST_P(DemuxDalOptionTest, ChangeReachesDefaultThenEveryMember) {
  const OptionCase& c = GetParam();
  addMembers(3);
  build();
  Dal& d = *demux;
  const bool current = (d.*c.get)();
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
    {OPTION(verifyEnabled), nullptr}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on
#undef OPTION

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

TEST_F(DemuxDalTest, ObserversFindEveryMemberAlreadyChanged) {
  addMembers(3);
  build();
  const auto observer = Kel::allocate<MembersAlreadyChanged>();
  observer->notifierIs(Kel::Ptr<const Dal>(demux));
  demux->hwAccessAllowedIs(false);
  demux->reclaimWhenProgrammedIs(true);
  EXPECT_THAT(observer->seen, ElementsAre(true, true));
}

// ---------------------------------------------------------------------------------------
// Readiness

TEST_F(DemuxDalTest, ReadyDefaultAloneMakesParentReady) {
  build();
  EXPECT_TRUE(demux->ready());  // empty map
  const auto parent = member("parent", false);
  const auto sm = DemuxDal::DemuxDalReadySm::DemuxDalReadySmIs(defaultDal, nullptr, parent.ptr());
  EXPECT_TRUE(parent->ready());  // no map at all
}

TEST_F(DemuxDalTest, DefaultNotReadyLeavesParentAsItIs) {
  const auto m = member("m", true);
  map->dalIs(kNorm, m);
  defaultDal->readyIs(false);
  build();
  EXPECT_FALSE(demux->ready());
  defaultDal->readyIs(true);
  EXPECT_TRUE(demux->ready());
  defaultDal->readyIs(false);
  m->readyIs(false);
  EXPECT_TRUE(demux->ready());  // neither the default DAL nor a member clears it now
  defaultDal->readyIs(true);
  EXPECT_FALSE(demux->ready());
}

TEST_F(DemuxDalTest, AddedMemberClearsReadyAtOnceAndRemovalWaitsForAChange) {
  build();
  const auto recheck =
      std::vector<std::function<void()>>{[&] { map->dalIs(table(9), member("another", true)); },
                                         [&] {
                                           defaultDal->readyIs(false);
                                           defaultDal->readyIs(true);
                                         }};
  for (const auto& change : recheck) {
    const auto late = member("late", false);
    map->dalIs(kNorm, late);
    EXPECT_FALSE(demux->ready());
    map->dalDel(kNorm);
    late->readyIs(true);  // no longer watched
    EXPECT_FALSE(demux->ready());
    change();
    EXPECT_TRUE(demux->ready());
  }
}

TEST_F(DemuxDalTest, ReadinessTracesStopAtFirstMemberNotReady) {
  map->dalIs(table(1), member("m1", false));
  map->dalIs(table(2), member("m2", false));
  map->dalIs(table(3), member("m3", false));
  build();
  const auto first = *map->begin(), second = *std::next(map->begin());
  first.second->readyIs(true);
  const auto text = [](const auto& entry, const char* state) {
    return "DAL for Table " + std::to_string(entry.first.id()) + " " + entry.second->name() + state;
  };
  DalTrace trace("ZorvekDemuxDal");
  demux->demuxDalReadySm()->handleDalReady();
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "DemuxDal::DemuxDalReadySm::handleDalReady demux"),
                                         Pair(8, text(first, " is ready now")),
                                         Pair(8, text(second, " not ready yet"))));
  trace.clear();
  defaultDal->readyIs(false);
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "DemuxDal::DemuxDalReadySm::handleDalReady demux"),
                                         Pair(6, "default DAL default not ready yet")));
}

// ---------------------------------------------------------------------------------------
// Traces, state dump and teardown

TEST_F(DemuxDalTest, TracesNameEachStep) {
  DalTrace trace("ZorvekDemuxDal");
  build();
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "handleInitialized"), Pair(8, "handleInitialized"),
                                         Pair(8, "DemuxDal::DemuxDalReadySm::handleDalReady demux"),
                                         Pair(8, "All DALs in demux DAL are ready")));
  trace.clear();
  demux->dalSelector(kTableOffset, nullptr);
  demux->attributeIs("forceUseDefaultDal", "True");
  demux->dalSelector(kTableOffset, kOptArg);
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(8, "Resource type 1 id 0x41 forceDefaultDal False"),
                                         Pair(8, "Resource type 1 id 0x41 forceDefaultDal True")));
}

// Everything `write` puts on a descriptor, read back from a pipe.
std::string dumped(const std::function<void(U32)>& write) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  write(static_cast<U32>(fds[1]));
  close(fds[1]);
  std::string out;
  char chunk[4096];
  for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;) out.append(chunk, n);
  close(fds[0]);
  return out;
}

TEST_F(DemuxDalTest, StateDumpFramesEveryDal) {
  build();
  const auto own = [](const Kel::Ptr<RequesterDal>& d) {
    return dumped([&](U32 fd) { d->showDalState(fd); });
  };
  const std::string head = dumped([&](U32 fd) { demux->Dal::showDalState(fd); }) +
                           "'defaultDalState': {" + own(defaultDal) + "},'remoteDals': {";
  const auto whole = [&] { return dumped([&](U32 fd) { demux->showDemuxDalState(fd); }); };
  EXPECT_EQ(whole(), head + "},");
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
  survivor = nullptr;
  defaultDal = nullptr;
  creator = nullptr;
  statusCol = nullptr;
  helper = nullptr;
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), liveAtStart);
}

}  // namespace
}  // namespace Zorvek
