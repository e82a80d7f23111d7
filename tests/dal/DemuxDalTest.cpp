// DemuxDal, its routing table and command-index ranges. Every DAL is a ShadowDal over a
// strict mock requester, so an access that reaches the wrong DAL fails the test.
#include "Zorvek/DemuxDal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zorvek/DemuxDalCreator.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace doubles;
using namespace ::testing;

constexpr AgentId kMe = 5;
constexpr AgentId kOther = 7;
// The helper normalises kTable (0x41) to kNorm: routes and owners are keyed by kNorm.
constexpr PhysicalResourceId kNorm = kNormalized;
constexpr LogicalResourceId kMine{ResourceType::tableResource_, 1};
constexpr LogicalResourceId kTheirs{ResourceType::tableResource_, 2};
U8 optArgStorage;
void* const kOptArg = &optArgStorage;  // any non-null optional argument

PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }
const char* tf(bool b) { return b ? "True" : "False"; }

// Logs "<name> <option>" for every option setter call.
#define NOTED(option) \
  void option##Is(bool v) override { note(#option), ShadowDal::option##Is(v); }
class MemberDal : public ShadowDal {
 public:
  MemberDal(Kel::Name name, std::vector<std::string>* log)
      : ShadowDal(Kel::allocate<StrictMock<MockRequester>>(), std::move(name)), log_(log) {}
  NOTED(hwAccessAllowed)
  NOTED(blocking)
  NOTED(reclaimWhenProgrammed)
  NOTED(verifyEnabled)
  NOTED(forceReadFromShadow)
  NOTED(okToReadFromShadow)
  NOTED(okToWriteToShadow)
  NOTED(skipHwWriteIfShadowHit)

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
  std::vector<std::string> log;
  Kel::Ptr<FakeHelper> helper = Kel::allocate<FakeHelper>();
  Kel::Ptr<DemuxDalCreator> creator = demuxDalCreatorFactory(kMe, nullptr, "");
  Kel::Ptr<ResourceIdToDalMap> map = resourceIdToDalMapFactory();
  Kel::Ptr<DalProcessingStatusCol> statusCol = Kel::allocate<DalProcessingStatusCol>();
  Kel::Ptr<MemberDal> defaultDal = member("default", true);
  Kel::Ptr<DemuxDal> demux;
};

// ---------------------------------------------------------------------------------------
// Routing

enum Owner { me, other, unknown };
enum Pick { toDefault, toMember, aborts, noCreator };

using DemuxDalDeathTest = DemuxDalTest;

TEST_F(DemuxDalDeathTest, DalSelectorFollowsDecisionTable) {
  const auto routed = member("routed", true);
  // clang-format off
  for (const auto& [name, optArg, forceDefault, check, withCreator, owner, mapped, forceRead,
                    localEnv, pick] : std::vector<std::tuple<const char*, bool, bool, bool, bool,
                                                             Owner, bool, bool, bool, Pick>>{
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
    {"CheckOnWithoutCreatorAborts",    1, 0, 1, 0, other,   1, 0, 0, noCreator}}) {
    // clang-format on
    map->dalIs(kNorm, mapped ? routed : nullptr);
    if (owner == unknown) creator->physicalToLogicalResourceMapDel(kNorm);
    if (owner != unknown)
      creator->physicalToLogicalResourceMapIs(kNorm, owner == me ? kMine : kTheirs);
    build(withCreator);
    demux->attributeIs("forceUseDefaultDal", forceDefault ? "True" : "False");
    demux->resourceOwnershipCheckEnabledIs(check);
    demux->forceReadFromShadowIs(forceRead);
    const ScopedEnv env("XP_FORCE_LOCAL_SHADOW_ACCESS", localEnv ? "" : nullptr);
    const auto select = [&, optArg = optArg] {
      return demux->dalSelector(kTableOffset, optArg ? kOptArg : nullptr);
    };
    if (pick == noCreator) {
      EXPECT_DEATH(select(), assertion("demuxDalCreator()")) << name;
    } else if (pick == aborts) {
      const AgentId agent = owner == me ? kMe : owner == other ? kOther : 0xFFFF;
      const std::string trace = "Resource type 1 id 65 is owned by agent " + std::to_string(agent) +
                                " and not by agent 5 extDal " + tf(mapped) + " resourceOwnedByMe " +
                                tf(localEnv || owner != other) + "\n";
      EXPECT_DEATH((Kel::traceFileIs(""), Kel::traceLevelsIs("ZorvekDemuxDal/0"), select()),
                   literal(trace) + assertion("( (extDal && !resourceOwnedByMe) || "
                                              "(!extDal && resourceOwnedByMe) )"))
          << name;
    } else {
      EXPECT_EQ(select().ptr(), (pick == toMember ? routed : defaultDal).ptr()) << name;
    }
  }
}

// Only the start of tracking needs the collection; collecting without one does nothing.
TEST_F(DemuxDalDeathTest, TrackingStartWithoutStatusCollectionAborts) {
  statusCol = nullptr;
  build(false);
  const auto status = Kel::allocate<EnqueuedCmdStatus>();
  status->enqueuedCmdIndexIs(DalId(1), CmdIndexTuple(10, 0));
  demux->enqueuedCmdStatuses(status);
  EXPECT_THAT(status->enqueuedCmdIndexes(), ElementsAre(Pair(DalId(1), CmdIndexTuple(10, 0))));
  EXPECT_DEATH(demux->startTrackingCmdStatus(status), assertion("pStatusCol"));
}

// The ranges themselves are reported end to end by the assembled-tree tests; here, what they do
// not reach: a DAL the collection lacks, one that appears after the snapshot, and the
// tracking flags, raised by the start and lowered by the collection.
TEST_F(DemuxDalTest, TrackingTurnsSnapshotIntoEnqueuedRanges) {
  build();
  const auto s1 = statusCol->processingStatusIs(DalId(1));
  s1->lastEnqueuedCmdIndexIs(10);
  const auto status = Kel::allocate<EnqueuedCmdStatus>();
  status->enqueuedCmdIndexIs(DalId(9), CmdIndexTuple(3, 4));
  demux->startTrackingCmdStatus(status);
  EXPECT_TRUE(s1->cmdStatusTracking());
  const auto s2 = statusCol->processingStatusIs(DalId(2));
  s2->lastEnqueuedCmdIndexIs(4);
  demux->enqueuedCmdStatuses(status);
  EXPECT_THAT(status->enqueuedCmdIndexes(),
              UnorderedElementsAre(Pair(DalId(2), CmdIndexTuple(1, 4)),
                                   Pair(DalId(9), CmdIndexTuple(3, 4))));
  EXPECT_FALSE(s1->cmdStatusTracking());
}

// Waits and initLocalCache reach the members the model test of the assembled tree follows; the
// coprocessor checker goes to the default DAL's requester alone.
TEST_F(DemuxDalTest, CheckerReachesTheDefaultDalOnly) {
  addMembers(2);
  build();
  demux->coprocessorCheckerIs(Kel::allocate<CoprocessorChecker>("checker"));
  EXPECT_NE(defaultDal->requester()->coprocessorChecker(), nullptr);
  for (const auto& [rid, d] : *map) EXPECT_EQ(d->requester()->coprocessorChecker(), nullptr);
}

// Logs a notification of the DemuxDal among the member setter calls.
class Notified : public Dal::NotifieeConst {
 public:
  explicit Notified(std::vector<std::string>* log) : log_(log) {}
  void onHwAccessAllowed() override { log_->push_back("notified"); }
  void onReclaimWhenProgrammed() override { log_->push_back("notified"); }

 private:
  std::vector<std::string>* log_;
};

// Each option set to its current value, then flipped: no call, then the default DAL and every
// member in map order, then the DemuxDal's observers (of the two options that notify).
TEST_F(DemuxDalTest, OptionChangeReachesDefaultThenEveryMemberBeforeObservers) {
#define OPTION(x) std::tuple(#x, &Dal::x##Is, &Dal::x)
  for (const auto& [name, set, get] :
       {OPTION(hwAccessAllowed), OPTION(blocking), OPTION(okToReadFromShadow),
        OPTION(okToWriteToShadow), OPTION(forceReadFromShadow), OPTION(reclaimWhenProgrammed),
        OPTION(skipHwWriteIfShadowHit), OPTION(verifyEnabled)}) {
    map->dalDelAll();
    addMembers(3);
    build();
    Dal& d = *demux;
    const bool current = (d.*get)();
    const auto observer = Kel::allocate<Notified>(&log);
    observer->notifierIs(Kel::Ptr<const Dal>(demux));
    (d.*set)(current);
    EXPECT_THAT(log, IsEmpty()) << name;
    (d.*set)(!current);
    std::vector<std::string> expected = {"default " + std::string(name)};
    for (const std::string& m : inMapOrder(" " + std::string(name))) expected.push_back(m);
    if (set == &Dal::hwAccessAllowedIs || set == &Dal::reclaimWhenProgrammedIs)
      expected.push_back("notified");
    EXPECT_EQ(log, expected);
    EXPECT_EQ((*defaultDal.*get)(), !current);
    for (const auto& [rid, m] : *map) EXPECT_EQ(((*m).*get)(), !current);
    (d.*set)(current);
  }
#undef OPTION
}

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

}  // namespace
}  // namespace Zorvek
