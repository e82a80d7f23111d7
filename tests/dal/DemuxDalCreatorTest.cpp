// DemuxDalCreator: serializer ids and the ownership answer; then, over a private state
// database, the mounts doMounts requests, the queue requesters createRequester makes and the
// choices demuxDal() makes, with the environment variables that change them.
#include "Zorvek/DemuxDalCreator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Corvane/CoprocessorStatus.h"
#include "Kel/Dir.h"
#include "Kel/Parse.h"
#include "Orv/WatchList.h"
#include "Skorra/Database.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/RequesterDalSchan.h"
#include "Zorvek/SchanRequester.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using namespace doubles;
using namespace ::testing;

constexpr AgentId kMe = 1;
constexpr const char* kLogPath = "platform/coprocessor/log";
constexpr const char* kWatchListPath = "platform/debug/watchlist";

PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }
LogicalResourceId logical(U64 id) { return {ResourceType::tableResource_, id}; }

// Agent 1 ("fwd") reaches two serializers: l2ser (1, agent 2) owns logical 0x100 (tables 0x10
// and 0x11) and 0x101 (table 0x40); aclser (2, agent 3) owns 0x200 (table 0x30). Serializer 3
// is run by agent 1 itself.
class DemuxDalCreatorTest : public ::testing::Test {
 protected:
  DemuxDalCreatorTest() {
    for (U64 id : {0x100, 0x101, 0x200}) remote->dataMaskIs(logical(id), RequesterDataMask(false));
    db->entityIs(kWatchListPath, watchList);
    fill(remote, "");
  }
  void fill(const Kel::Ptr<const LogicalRemoteResourceIdCol>& resources, const char* logPath) {
    creator = demuxDalCreatorFactory(kMe, resources, logPath);
    creator->requesterNameIs(kMe, "fwd");
    describe(1, 2, "l2ser", {{0x100, {0x10, 0x11}}, {0x101, {0x40}}});
    describe(2, 3, "aclser", {{0x200, {0x30}}});
    describe(3, kMe, "fwdser", {});
  }
  void describe(U16 sid, AgentId agent, const std::string& name,
                const std::vector<std::pair<U64, std::vector<U64>>>& resources) {
    auto info = creator->serializerInfoIs(SerializerId(sid));
    info->agentIdIs(agent);
    info->nameIs(name);
    info->kickFifoNameIs("kick-" + name);
    info->configDirNameIs("ser/" + name + "/config");
    info->statusDirNameIs("ser/" + name + "/status");
    for (const auto& [lid, tables] : resources) {
      creator->serializerIdMapIs(logical(lid), SerializerId(sid));
      auto col = Kel::allocate<PhysicalResourceIdCol>();
      for (U64 t : tables) col->resourceIdIs(table(t));
      creator->physicalRemoteResourcesIs(logical(lid), col);
    }
  }
  // What the hosting agent does before it asks for its DAL.
  void mount() {
    creator->doMounts(group);
    group->completeMounts();
  }
  Kel::Ptr<DemuxDal> build() {
    mount();
    return creator->demuxDal();
  }
  Kel::Ptr<QueueRequester> createRequester(U16 sid) {
    return Kel::dynamicPtrCast<QueueRequester>(creator->createRequester(SerializerId(sid)));
  }

  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> group = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Orv::WatchList> watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
  Kel::Ptr<LogicalRemoteResourceIdCol> remote = Kel::allocate<LogicalRemoteResourceIdCol>();
  Kel::Ptr<DemuxDalCreator> creator;
};

// ---------------------------------------------------------------------------------------
// The model

SerializerId parse(const Kel::String& text) { return SerializerId(text.begin(), text.end()); }

TEST(SerializerIdTest, TextRoundTripsAndBadTextIsRefused) {
  for (U16 value : {0, 1, 4242, 65535}) {
    EXPECT_EQ(valueToStrep(SerializerId(value)), Kel::String(std::to_string(value)));
    EXPECT_EQ(parse(valueToStrep(SerializerId(value))), SerializerId(value));
  }
  for (const char* bad : {"", "x1", "-1", " 1", "65536", "12a", "7 "})
    EXPECT_THROW(parse(bad), Kel::ParseError) << bad;
}

const LogicalResourceId kLogical{ResourceType::tableResource_, 0x70};
const PhysicalResourceId kPhysical{ResourceType::tableResource_, 0x1234};

// The owner named for kPhysical. Rows: kPhysical mapped to kLogical, the serializer of kLogical
// (-1: none), the described serializers with their agents (-1: never set), the owner.
TEST_F(DemuxDalCreatorTest, OwnerAgentFollowsTheMapsOrIsUnknown) {
  for (const auto& [mapped, serializer, infos, owner] :
       std::vector<std::tuple<bool, int, std::vector<std::pair<U16, int>>, AgentId>>{
           {true, 3, {{0, 11}, {3, 22}}, 22},
           {false, 3, {{0, 11}, {3, 22}}, 0xFFFF},  // serializer 0 described, yet no owner
           {true, -1, {{0, 11}}, 11},               // no serializer: serializer 0's agent
           {true, -1, {{3, 22}}, 0xFFFF},
           {true, 3, {{0, 11}, {3, -1}}, 0xFFFF},
           {true, 3, {{0, 11}}, 0xFFFF}}) {
    auto fresh = demuxDalCreatorFactory(9, nullptr, "");
    if (mapped) fresh->physicalToLogicalResourceMapIs(kPhysical, kLogical);
    if (serializer >= 0) fresh->serializerIdMapIs(kLogical, SerializerId(U16(serializer)));
    for (const auto& [sid, agent] : infos) {
      auto info = fresh->serializerInfoIs(SerializerId(sid));
      if (agent >= 0) info->agentIdIs(AgentId(agent));
    }
    EXPECT_EQ(fresh->ownerAgentIdForPhysicalResource(kPhysical), owner) << serializer;
    if (mapped) {
      EXPECT_EQ(fresh->ownerAgentIdForLogicalResource(kLogical), owner);
    }
  }
}

// ---------------------------------------------------------------------------------------
// doMounts

Skorra::Mount dir(const std::string& path, const char* mode) { return {path, "Kel::Dir", mode}; }
const Skorra::Mount kWatchListMount(kWatchListPath, "Orv::WatchList", "ri");
const Skorra::Mount kLogMount(kLogPath, "Corvane::CoprocessorStatusAttrLog", "r");
// Another agent's serializer: its configuration written (the queue lives there), its status
// read; l2ser twice, once per logical resource it owns.
// clang-format off
const std::vector<Skorra::Mount> kRemoteDirs = {kWatchListMount,
    dir("ser/l2ser/config", "wi"),  dir("ser/l2ser/status", "ri"),
    dir("ser/l2ser/config", "wi"),  dir("ser/l2ser/status", "ri"),
    dir("ser/aclser/config", "wi"), dir("ser/aclser/status", "ri")};
// clang-format on

// As a serializer the agent reads its configuration and writes its status; the simulation
// serializer is mounted as a remote one, and only while the simulation is on.
TEST_F(DemuxDalCreatorTest, DoMountsRequestsTheExpectedMountsInOrder) {
  // remote resources, own serializer described, simulation (serializer 2), log path, mounts
  // ahead of those of the remote serializers
  for (const auto& [remoteResources, ownSerializer, simulation, logPath, mounts] :
       // clang-format off
       std::vector<std::tuple<bool, bool, bool, const char*, std::vector<Skorra::Mount>>>{
           {true, true, true, kLogPath,
            {dir("ser/fwdser/config", "ri"), dir("ser/fwdser/status", "wi"),
             dir("ser/aclser/config", "wi"), dir("ser/aclser/status", "ri"), kLogMount}},
           {false, false, false, "", {kWatchListMount}},
           {false, false, false, kLogPath, {kLogMount, kWatchListMount}},
           {true, false, false, "", {}}}) {
    // clang-format on
    fill(remoteResources ? remote : nullptr, logPath);
    if (!ownSerializer) creator->serializerInfoDel(SerializerId(3));
    creator->useSimulationForDefaultDalIs(simulation);
    creator->simulationSerializerIdIs(SerializerId(2));
    group = Kel::allocate<Skorra::MountGroup>(db);
    creator->doMounts(group);
    EXPECT_EQ(creator->mountGroup(), group.ptr());
    std::vector<Skorra::Mount> expected = mounts;
    if (remoteResources) expected.insert(expected.end(), kRemoteDirs.begin(), kRemoteDirs.end());
    EXPECT_THAT(group->mounts(), ElementsAreArray(expected));
  }
}

// ---------------------------------------------------------------------------------------
// createRequester

// Records the error-tracking flag of a queue's processing-status entry at the moment its
// requester, still under construction, publishes the queue.
class QueuePublished : public Kel::Dir::NotifieeConst {
 public:
  explicit QueuePublished(Kel::Ptr<const DemuxDalCreator> creator) : creator_(std::move(creator)) {}
  void onEntity(const Kel::String& name) override {
    if (auto queue = Kel::dynamicPtrCast<RequesterQueue>(notifier()->entity(name)))
      errorTracking.push_back(
          creator_->dalProcessingStatusCol()->processingStatus(queue->dalId())->errorTracking());
  }
  std::vector<bool> errorTracking;

 private:
  Kel::Ptr<const DemuxDalCreator> creator_;
};

// The names of the queue and its kick are pinned by the assembled tree's dump, and its
// directories and processing status are used end to end there.
TEST_F(DemuxDalCreatorTest, MakesQueuesWithConsecutiveDalIds) {
  for (bool trackErrors : {false, true}) {
    fill(remote, "");
    creator->trackErrorsIs(trackErrors);
    mount();
    auto published = Kel::allocate<QueuePublished>(creator);
    published->notifierIs(db->dirIs("ser/l2ser/config"));
    // Two calls for one serializer: the same names, consecutive DAL ids.
    for (U8 i = 0; i < 2; ++i) {
      const Kel::Ptr<QueueRequester> r = createRequester(1);
      EXPECT_EQ(r->dalId(), DalId(i));
      EXPECT_EQ(r->watchLog().watchList(), watchList);
    }
    EXPECT_EQ(creator->nextDalId(), DalId(2));
    EXPECT_THAT(published->errorTracking, ElementsAre(trackErrors, trackErrors));
  }
  describe(4, 5, "spare", {});  // serves nothing this agent reaches: never mounted
  const Kel::Ptr<QueueRequester> spare = createRequester(4);
  EXPECT_EQ(spare->configDir(), nullptr);
  EXPECT_EQ(spare->statusDir(), nullptr);
  EXPECT_EQ(spare->queue(), nullptr);
}

// ---------------------------------------------------------------------------------------
// demuxDal(): which DALs and which coprocessor status; routing through the tree it builds is
// followed end to end by the assembled-tree tests.

// Without remote resources, or with XP_FORCE_LOCAL_SHADOW_ACCESS set (even empty), the tree is
// the S-channel DAL alone: no route, and createRequester is never called.
TEST_F(DemuxDalCreatorTest, NamesTheSchanQueueAndBuildsNoRemoteDalWhenNoneIsWanted) {
  // The plain name, "fwd-Schan-Queue", is in the assembled tree's dump.
  for (const auto& [named, slice, queue, force] :
       {std::tuple(true, "s1", "fwd-s1-Schan-Queue", true),
        {false, "s1", "-s1-Schan-Queue", false}}) {
    const ScopedEnv env("XP_FORCE_LOCAL_SHADOW_ACCESS", force ? "" : nullptr);
    fill(force ? remote : nullptr, "");
    if (!named) creator->requesterNameDel(kMe);
    creator->sliceIdIs(slice);
    const Kel::Ptr<DemuxDal> dal = build();
    EXPECT_EQ(dal->defaultDal()->requester()->name(), queue);
    EXPECT_EQ(dal->resourceIdToDalMap()->size(), 0u);
    EXPECT_EQ(creator->nextDalId(), DalId(1));
  }
}

// An external status is used as it is; otherwise a local one, fed by the attribute log when
// one is published at the path. The adapter comes with the path, whether or not a log is there.
TEST_F(DemuxDalCreatorTest, PicksTheCoprocessorStatus) {
  for (const auto& [external, withPath, fedByLog] : {std::tuple(true, false, false),
                                                     {false, false, false},
                                                     {false, true, true},
                                                     {false, true, false}}) {
    db = Kel::allocate<Skorra::Database>();
    db->entityIs(kWatchListPath, watchList);
    group = Kel::allocate<Skorra::MountGroup>(db);
    fill(remote, withPath ? kLogPath : "");
    auto log = Kel::allocate<Corvane::CoprocessorStatusAttrLog>(Kel::Name("log"));
    log->setRecordIs("cop0", Corvane::Coprocessor(4, 1));
    if (fedByLog) db->entityIs(kLogPath, log);
    auto supplied = Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("supplied"));
    supplied->coprocessorIs("copX", Corvane::Coprocessor(9, 2));
    if (external) creator->coprocessorStatusIs(supplied);
    const auto schan = Kel::dynamicPtrCast<RequesterDalSchan>(build()->defaultDal());
    std::vector<Corvane::Coprocessor> attached;  // by the S-channel requester
    if (external || fedByLog) attached = {Corvane::Coprocessor(external ? 9 : 4, external ? 2 : 1)};
    EXPECT_THAT(schan->schanRequester()->attachedCoprocessors(), ElementsAreArray(attached));
    const Kel::Ptr<Corvane::CoprocessorStatus> local = creator->localCoprocessorStatus();
    EXPECT_EQ(schan->coprocessorStatus(), external ? supplied : local);
    EXPECT_EQ(local == nullptr, external);
    EXPECT_EQ(creator->coprocessorStatusAttrLog(), fedByLog ? log : nullptr);
    const auto adapter = creator->coprocessorStatusAdapterSm();
    EXPECT_EQ(adapter ? adapter->coprocessorStatus() : nullptr, withPath ? local : nullptr);
  }
}

// ---------------------------------------------------------------------------------------
// Assertions

using DemuxDalCreatorDeathTest = DemuxDalCreatorTest;

// demuxDal() makes a local status whenever no external one is set, so copStatus is null only
// when an observer of the creator withdraws the local status while it is being set.
class LocalStatusWithdrawer : public DemuxDalCreator::NotifieeConst {
 public:
  void onLocalCoprocessorStatus() override { creator->localCoprocessorStatusIs(nullptr); }
  DemuxDalCreator* creator = nullptr;  // observed, not owned
};

TEST_F(DemuxDalCreatorDeathTest, BrokenAssumptionsAbortWithTheirText) {
  creator->serializerInfo(SerializerId(2))->agentIdIs(kMe);
  const std::string ownedByMe = assertion("sInfo->agentId() != requesterAgentId()");
  EXPECT_DEATH(creator->doMounts(group), ownedByMe);
  fill(remote, "");
  mount();
  creator->nextDalIdIs(DalId(255));
  EXPECT_DEATH(creator->createRequester(SerializerId(1)), assertion("nextDalId()"));
  creator->nextDalIdIs(DalId(0));
  auto withdrawer = Kel::allocate<LocalStatusWithdrawer>();
  withdrawer->creator = creator.ptr();
  withdrawer->notifierIs(creator);
  EXPECT_DEATH(creator->demuxDal(), assertion("copStatus"));
  creator->requesterNameDel(kMe);
  EXPECT_DEATH(creator->createRequester(SerializerId(1)),
               assertion("requesterName( requesterAgentId() ) != \"\""));
}

}  // namespace
}  // namespace Zorvek
