// DemuxDalCreator assembly over a private state database: the mounts doMounts requests, the
// queue requesters createRequester makes, and the DAL tree demuxDal() builds from a creator
// filled by hand, with the environment variables that change it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Corvane/CoprocessorStatus.h"
#include "Kel/Dir.h"
#include "Orv/WatchList.h"
#include "Skorra/Database.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/DemuxDalCreator.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/RequesterDalRemote.h"
#include "Zorvek/RequesterDalSchan.h"
#include "Zorvek/SchanRequester.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using doubles::assertion;
using doubles::ScopedEnv;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Key;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr AgentId kMe = 1;
constexpr const char* kLogPath = "platform/coprocessor/log";
constexpr const char* kWatchListPath = "platform/debug/watchlist";
const auto byName = [](const auto& info) { return std::string(info.param.name); };

PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }
LogicalResourceId logical(U64 id) { return {ResourceType::tableResource_, id}; }

RequesterDataMask maskedL2() {
  RequesterDataMask mask(true);
  mask.maskByteIs(0, 0xff);
  mask.maskByteIs(1, 0x0f);
  return mask;
}

// Agent 1 ("fwd") reaches two serializers: l2ser (1, agent 2) owns logical 0x100 (tables 0x10
// and 0x11, masked) and 0x101 (table 0x40, unmasked); aclser (2, agent 3) owns 0x200 (table
// 0x30, unmasked). Serializer 3 is run by agent 1 itself.
class DemuxDalCreatorAssemblyTest : public ::testing::Test {
 protected:
  DemuxDalCreatorAssemblyTest() {
    remote->dataMaskIs(logical(0x100), maskedL2());
    remote->dataMaskIs(logical(0x101), RequesterDataMask(false));
    remote->dataMaskIs(logical(0x200), RequesterDataMask(false));
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

struct MountCase {
  const char* name;
  bool remoteResources, ownSerializer, simulation;  // simulation: with serializer 2
  const char* logPath;
  std::vector<Skorra::Mount> expected;
};
class DemuxDalCreatorMountTest : public DemuxDalCreatorAssemblyTest,
                                 public ::testing::WithParamInterface<MountCase> {};

TEST_P(DemuxDalCreatorMountTest, RequestsTheExpectedMountsInOrder) {
  const MountCase& c = GetParam();
  fill(c.remoteResources ? remote : nullptr, c.logPath);
  if (!c.ownSerializer) creator->serializerInfoDel(SerializerId(3));
  creator->useSimulationForDefaultDalIs(c.simulation);
  creator->simulationSerializerIdIs(SerializerId(2));
  creator->doMounts(group);
  EXPECT_EQ(creator->mountGroup(), group.ptr());
  std::vector<Skorra::Mount> expected = c.expected;
  if (c.remoteResources) expected.insert(expected.end(), kRemoteDirs.begin(), kRemoteDirs.end());
  EXPECT_THAT(group->mounts(), ElementsAreArray(expected));
}

// As a serializer the agent reads its configuration and writes its status; the simulation
// serializer is mounted as a remote one.
// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, DemuxDalCreatorMountTest, ::testing::Values(
    MountCase{"Everything", true, true, true, kLogPath,
              {dir("ser/fwdser/config", "ri"), dir("ser/fwdser/status", "wi"),
               dir("ser/aclser/config", "wi"), dir("ser/aclser/status", "ri"), kLogMount}},
    MountCase{"WatchListOnly", false, false, false, "", {kWatchListMount}},
    MountCase{"LogAndWatchList", false, false, false, kLogPath, {kLogMount, kWatchListMount}},
    MountCase{"SimulationOff", true, false, false, "", {}}), byName);
// clang-format on

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

TEST_F(DemuxDalCreatorAssemblyTest, MakesNamedQueuesWithConsecutiveDalIds) {
  for (const auto& [serializer, queue, kick, trackErrors] :
       {std::tuple("l2ser", "fwd-l2ser-Queue", "Kick-fwd-l2ser-Requester", true),
        {"", "fwd--Queue", "Kick-fwd--Requester", false}}) {
    fill(remote, "");
    creator->serializerInfo(SerializerId(1))->nameIs(serializer);
    creator->trackErrorsIs(trackErrors);
    mount();
    auto published = Kel::allocate<QueuePublished>(creator);
    published->notifierIs(db->dirIs("ser/l2ser/config"));
    // Two calls for one serializer: the same names, consecutive DAL ids.
    for (U8 i = 0; i < 2; ++i) {
      const Kel::Ptr<QueueRequester> r = createRequester(1);
      EXPECT_EQ(
          std::tuple(r->name(), r->kickName(), r->kickFifoName(), r->agentId(), r->queueSize()),
          std::tuple(queue, kick, "kick-l2ser", kMe, 1024u));
      EXPECT_EQ(r->dalId(), DalId(i));
      EXPECT_EQ(r->processingStatus(),
                creator->dalProcessingStatusCol()->processingStatus(DalId(i)));
      EXPECT_TRUE(r->configDir() && r->statusDir());
      EXPECT_EQ(r->watchLog().watchList(), watchList);
    }
    EXPECT_EQ(creator->nextDalId(), DalId(2));
    EXPECT_THAT(published->errorTracking, ElementsAre(trackErrors, trackErrors));
  }
  describe(4, 5, "spare", {});  // serves nothing this agent reaches: never mounted
  const Kel::Ptr<QueueRequester> spare = createRequester(4);
  EXPECT_TRUE(!spare->configDir() && !spare->statusDir() && !spare->queue());
}

// ---------------------------------------------------------------------------------------
// demuxDal()

// The route of every physical id: id -> the name of its DAL.
std::map<U64, std::string> routes(const ResourceIdToDalMap& map) {
  std::map<U64, std::string> out;
  for (const auto& [rid, dal] : map) out[rid.id()] = dal->name();
  return out;
}

TEST_F(DemuxDalCreatorAssemblyTest, BuildsOneRemoteDalPerSerializerBehindTheSchanDefault) {
  doubles::DalTrace trace("ZorvekDemuxDalCreator");
  const Kel::Ptr<DemuxDal> dal = build();
  EXPECT_EQ(std::tuple(dal->name(), dal->demuxDalCreator(), dal->dalProcessingStatusCol()),
            std::tuple("demuxDal", creator, creator->dalProcessingStatusCol()));
  const auto schan = Kel::dynamicPtrCast<RequesterDalSchan>(dal->defaultDal());
  ASSERT_NE(schan, nullptr);
  EXPECT_EQ(
      std::tuple(schan->name(), schan->requester()->name(), schan->requester()->dalId(),
                 schan->schanRequester()->queueSize(), schan->schanRequester()->ownerAgentId()),
      std::tuple("SchanRequesterDal", "fwd-Schan-Queue", DalId(0), 1024u, kMe));
  EXPECT_THAT(routes(*dal->resourceIdToDalMap()),
              ElementsAre(Pair(0x10, "fwd-l2ser-Queue"), Pair(0x11, "fwd-l2ser-Queue"),
                          Pair(0x30, "fwd-aclser-Queue"), Pair(0x40, "fwd-l2ser-Queue")));
  const auto remoteDal = [&](U64 id) {
    return Kel::dynamicPtrCast<RequesterDalRemote>(dal->resourceIdToDalMap()->dal(table(id)));
  };
  const Kel::Ptr<RequesterDalRemote> l2 = remoteDal(0x10), acl = remoteDal(0x30);
  EXPECT_EQ(remoteDal(0x40), l2);
  EXPECT_EQ(std::tuple(l2->requester()->dalId(), acl->requester()->dalId(), creator->nextDalId()),
            std::tuple(DalId(1), DalId(2), DalId(3)));
  EXPECT_THAT(l2->remoteResources(),
              UnorderedElementsAre(Key(table(0x10)), Key(table(0x11)), Key(table(0x40))));
  EXPECT_THAT(acl->remoteResources(), ElementsAre(Key(table(0x30))));
  // Only the flagged mask makes map entries; aclser has no flagged mask at all.
  ASSERT_NE(l2->resourceIdToDataMaskMap(), nullptr);
  EXPECT_THAT(l2->resourceIdToDataMaskMap()->dataMaskCol(),
              UnorderedElementsAre(Pair(table(0x10), maskedL2()), Pair(table(0x11), maskedL2())));
  EXPECT_EQ(acl->resourceIdToDataMaskMap(), nullptr);
  std::vector<std::string> expected = {"Creating schan requester", "Found existing dal for 1"};
  for (const char* id : {"0x10", "0x11", "0x40", "0x30"})
    expected.push_back(std::string("Setting requester dal for resource type tableResource id ") +
                       id);
  const auto messages = trace.messages("ZorvekDemuxDalCreator");
  for (const std::string& m : expected) EXPECT_EQ(std::ranges::count(messages, m), 1) << m;
}

// Without remote resources, or with XP_FORCE_LOCAL_SHADOW_ACCESS set (even empty), the tree is
// the S-channel DAL alone: no route, and createRequester is never called.
TEST_F(DemuxDalCreatorAssemblyTest, NamesTheSchanQueueAndBuildsNoRemoteDalWhenNoneIsWanted) {
  for (const auto& [named, slice, queue, force] : {std::tuple(true, "", "fwd-Schan-Queue", false),
                                                   {true, "s1", "fwd-s1-Schan-Queue", true},
                                                   {false, "", "-Schan-Queue", false},
                                                   {false, "s1", "-s1-Schan-Queue", false}}) {
    const ScopedEnv env("XP_FORCE_LOCAL_SHADOW_ACCESS", force ? "" : nullptr);
    fill(force ? remote : nullptr, "");
    if (!named) creator->requesterNameDel(kMe);
    creator->sliceIdIs(slice);
    const Kel::Ptr<DemuxDal> dal = build();
    EXPECT_EQ(dal->defaultDal()->requester()->name(), queue);
    EXPECT_EQ(std::pair(dal->resourceIdToDalMap()->size(), creator->nextDalId()),
              std::pair(std::size_t{0}, DalId(1)));
  }
}

enum class CopSource { external, local, localFedByLog, logPathWithoutLog };

class DemuxDalCreatorCoprocessorTest : public DemuxDalCreatorAssemblyTest,
                                       public ::testing::WithParamInterface<CopSource> {};

TEST_P(DemuxDalCreatorCoprocessorTest, PicksTheCoprocessorStatus) {
  const CopSource source = GetParam();
  const bool external = source == CopSource::external,
             fedByLog = source == CopSource::localFedByLog;
  const bool withPath = fedByLog || source == CopSource::logPathWithoutLog;
  fill(remote, withPath ? kLogPath : "");
  auto log = Kel::allocate<Corvane::CoprocessorStatusAttrLog>(Kel::Name("log"));
  log->setRecordIs("cop0", Corvane::Coprocessor(4, 1));
  if (fedByLog) db->entityIs(kLogPath, log);
  auto supplied = Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("supplied"));
  supplied->coprocessorIs("copX", Corvane::Coprocessor(9, 2));
  if (external) creator->coprocessorStatusIs(supplied);

  const auto schan = Kel::dynamicPtrCast<RequesterDalSchan>(build()->defaultDal());
  std::vector<Corvane::Coprocessor> attached;  // by the S-channel requester
  if (external) attached = {Corvane::Coprocessor(9, 2)};
  if (fedByLog) attached = {Corvane::Coprocessor(4, 1)};
  EXPECT_THAT(schan->schanRequester()->attachedCoprocessors(), ElementsAreArray(attached));
  const Kel::Ptr<Corvane::CoprocessorStatus> local = creator->localCoprocessorStatus();
  EXPECT_EQ(schan->coprocessorStatus(), external ? supplied : local);
  EXPECT_EQ(local == nullptr, external);
  EXPECT_TRUE(!local || local->name() == "dalCoprocessorStatus");
  EXPECT_EQ(creator->coprocessorStatusAttrLog(), fedByLog ? log : nullptr);
  // The adapter comes with the path, whether or not a log is published there.
  ASSERT_EQ(creator->coprocessorStatusAdapterSm() != nullptr, withPath);
  if (withPath) {
    EXPECT_EQ(creator->coprocessorStatusAdapterSm()->coprocessorStatus(), local);
  }
}

INSTANTIATE_TEST_SUITE_P(Sources, DemuxDalCreatorCoprocessorTest,
                         ::testing::Values(CopSource::external, CopSource::local,
                                           CopSource::localFedByLog, CopSource::logPathWithoutLog));

// ---------------------------------------------------------------------------------------
// Assertions

using DemuxDalCreatorAssemblyDeathTest = DemuxDalCreatorAssemblyTest;

// demuxDal() makes a local status whenever no external one is set, so copStatus is null only
// when an observer of the creator withdraws the local status while it is being set.
class LocalStatusWithdrawer : public DemuxDalCreator::NotifieeConst {
 public:
  void onLocalCoprocessorStatus() override { creator->localCoprocessorStatusIs(nullptr); }
  DemuxDalCreator* creator = nullptr;  // observed, not owned
};

TEST_F(DemuxDalCreatorAssemblyDeathTest, BrokenAssumptionsAbortWithTheirText) {
  creator->serializerInfo(SerializerId(2))->agentIdIs(kMe);
  const std::string ownedByMe = assertion("sInfo->agentId() != requesterAgentId()");
  EXPECT_DEATH(creator->doMounts(group), ownedByMe);
  EXPECT_DEATH(creator->demuxDal(), ownedByMe);
  fill(remote, "");
  mount();
  creator->nextDalIdIs(DalId(255));
  EXPECT_DEATH(creator->createRequester(SerializerId(1)), assertion("nextDalId()"));
  EXPECT_DEATH(creator->demuxDal(), assertion("nextDalId()"));
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
