// DemuxDalCreator assembly over a private state database: the mounts doMounts requests, the
// queue requesters createRequester makes, and the DAL tree demuxDal() builds from a creator
// filled by hand, with the environment variables that change it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Corvane/CoprocessorStatus.h"
#include "Kel/Dir.h"
#include "Kel/Trace.h"
#include "Orv/WatchList.h"
#include "Skorra/Database.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/DemuxDalCreator.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/RequesterDalRemote.h"
#include "Zorvek/RequesterDalSchan.h"
#include "Zorvek/SchanRequester.h"

namespace Zorvek {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr AgentId kMe = 1;
constexpr const char* kLogPath = "platform/coprocessor/log";
constexpr const char* kWatchListPath = "platform/debug/watchlist";

PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }
LogicalResourceId logical(U64 id) { return {ResourceType::tableResource_, id}; }

RequesterDataMask maskedL2() {
  RequesterDataMask mask(true);
  mask.maskByteIs(0, 0xff);
  mask.maskByteIs(1, 0x0f);
  return mask;
}

// Sets (or, for null, unsets) an environment variable for one scope, then restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// Every text level of the creator's trace handle, captured for one scope.
class CreatorTrace {
 public:
  CreatorTrace() {
    if (const Kel::TraceHandle* h = Kel::traceHandle(kHandle)) saved_ = h->levels();
    Kel::traceLevelsIs(std::string(kHandle) + "/0-9");
  }
  ~CreatorTrace() { Kel::traceHandle(kHandle)->levelsIs(saved_); }
  long count(const std::string& message) const {
    const auto messages = capture_.messages(kHandle);
    return std::count(messages.begin(), messages.end(), message);
  }

 private:
  static constexpr const char* kHandle = "ZorvekDemuxDalCreator";
  std::uint32_t saved_ = 0;
  Kel::TraceCapture capture_;
};

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
const std::vector<Skorra::Mount> kRemoteDirs = {
    dir("ser/l2ser/config", "wi"), dir("ser/l2ser/status", "ri"),  dir("ser/l2ser/config", "wi"),
    dir("ser/l2ser/status", "ri"), dir("ser/aclser/config", "wi"), dir("ser/aclser/status", "ri")};

std::vector<Skorra::Mount> cat(std::vector<Skorra::Mount> a, const std::vector<Skorra::Mount>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct MountCase {
  const char* name;
  bool remoteResources, ownSerializer, simulation;  // simulation: with serializer 2
  const char* logPath;
  std::vector<Skorra::Mount> expected;
};
void PrintTo(const MountCase& c, std::ostream* os) { *os << c.name; }

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
  EXPECT_THAT(group->mounts(), ElementsAreArray(c.expected));
}

// As a serializer the agent reads its configuration and writes its status; the simulation
// serializer is mounted as a remote one.
const std::vector<Skorra::Mount> kEverything = cat(
    {dir("ser/fwdser/config", "ri"), dir("ser/fwdser/status", "wi"), dir("ser/aclser/config", "wi"),
     dir("ser/aclser/status", "ri"), kLogMount, kWatchListMount},
    kRemoteDirs);

INSTANTIATE_TEST_SUITE_P(
    Cases, DemuxDalCreatorMountTest,
    ::testing::Values(
        MountCase{"Everything", true, true, true, kLogPath, kEverything},
        MountCase{"WatchListOnly", false, false, false, "", {kWatchListMount}},
        MountCase{"LogAndWatchList", false, false, false, kLogPath, {kLogMount, kWatchListMount}},
        MountCase{"SimulationOff", true, false, false, "", cat({kWatchListMount}, kRemoteDirs)}),
    [](const auto& info) { return std::string(info.param.name); });

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

struct RequesterCase {
  const char* serializerName;
  const char* queueName;
  const char* kickName;
  bool trackErrors;
};
void PrintTo(const RequesterCase& c, std::ostream* os) { *os << c.queueName; }

class DemuxDalCreatorRequesterTest : public DemuxDalCreatorAssemblyTest,
                                     public ::testing::WithParamInterface<RequesterCase> {};

TEST_P(DemuxDalCreatorRequesterTest, MakesNamedQueuesWithConsecutiveDalIds) {
  const RequesterCase& c = GetParam();
  creator->serializerInfo(SerializerId(1))->nameIs(c.serializerName);
  creator->trackErrorsIs(c.trackErrors);
  mount();
  auto published = Kel::allocate<QueuePublished>(creator);
  published->notifierIs(db->dirIs("ser/l2ser/config"));
  // Two calls for one serializer: the same names, consecutive DAL ids.
  const Kel::Ptr<QueueRequester> requesters[] = {createRequester(1), createRequester(1)};
  for (U8 i = 0; i < 2; ++i) {
    const QueueRequester& r = *requesters[i];
    EXPECT_EQ(r.name(), c.queueName);
    EXPECT_EQ(r.kickName(), c.kickName);
    EXPECT_EQ(r.kickFifoName(), "kick-l2ser");  // the serializer's own, unchanged
    EXPECT_TRUE(r.agentId() == kMe && r.queueSize() == 1024u);
    EXPECT_EQ(r.dalId(), DalId(i));
    EXPECT_EQ(r.processingStatus(), creator->dalProcessingStatusCol()->processingStatus(DalId(i)));
    EXPECT_TRUE(r.configDir() && r.statusDir());
    EXPECT_EQ(r.watchLog().watchList(), watchList);
  }
  EXPECT_EQ(creator->nextDalId(), DalId(2));
  EXPECT_THAT(published->errorTracking, ElementsAre(c.trackErrors, c.trackErrors));
}

INSTANTIATE_TEST_SUITE_P(
    Names, DemuxDalCreatorRequesterTest,
    ::testing::Values(RequesterCase{"l2ser", "fwd-l2ser-Queue", "Kick-fwd-l2ser-Requester", true},
                      RequesterCase{"", "fwd--Queue", "Kick-fwd--Requester", false}));

TEST_F(DemuxDalCreatorAssemblyTest, UnmountedDirectoriesGiveARequesterThatIsNeverReady) {
  describe(4, 5, "spare", {});  // serves nothing this agent reaches: never mounted
  mount();
  const Kel::Ptr<QueueRequester> r = createRequester(4);
  EXPECT_TRUE(!r->configDir() && !r->statusDir() && !r->queue());
  auto status = Kel::allocate<SerializerStatus>(Kel::Name("spare"));
  status->servedQueueIs("fwd-spare-Queue");
  db->entityIs("ser/spare/status/" + std::string(SerializerStatus::kEntryName), status);
  EXPECT_FALSE(r->ready());
  U8 data[4] = {1, 2, 3, 4};
  EXPECT_LT(r->write(oneDeviceMask(DeviceId(0)), table(0x10), 0, data, nullptr, 4, false), 0);
}

// ---------------------------------------------------------------------------------------
// demuxDal()

// The route of every physical id: id -> the name of its DAL.
std::map<U64, std::string> routes(const ResourceIdToDalMap& map) {
  std::map<U64, std::string> out;
  for (const auto& [rid, dal] : map) out[rid.id()] = dal->name();
  return out;
}

Kel::Ptr<RequesterDalRemote> remoteDal(const DemuxDal& dal, U64 tableId) {
  return Kel::dynamicPtrCast<RequesterDalRemote>(dal.resourceIdToDalMap()->dal(table(tableId)));
}

TEST_F(DemuxDalCreatorAssemblyTest, BuildsOneRemoteDalPerSerializerBehindTheSchanDefault) {
  CreatorTrace trace;
  const Kel::Ptr<DemuxDal> dal = build();
  EXPECT_EQ(dal->name(), "demuxDal");
  EXPECT_EQ(dal->demuxDalCreator(), creator);
  EXPECT_EQ(dal->dalProcessingStatusCol(), creator->dalProcessingStatusCol());
  const auto schan = Kel::dynamicPtrCast<RequesterDalSchan>(dal->defaultDal());
  ASSERT_NE(schan, nullptr);
  EXPECT_EQ(schan->name(), "SchanRequesterDal");
  EXPECT_EQ(schan->requester()->name(), "fwd-Schan-Queue");
  EXPECT_EQ(schan->requester()->dalId(), DalId(0));
  EXPECT_TRUE(schan->schanRequester()->queueSize() == 1024u &&
              schan->schanRequester()->ownerAgentId() == kMe);

  EXPECT_THAT(routes(*dal->resourceIdToDalMap()),
              ElementsAre(Pair(0x10, "fwd-l2ser-Queue"), Pair(0x11, "fwd-l2ser-Queue"),
                          Pair(0x30, "fwd-aclser-Queue"), Pair(0x40, "fwd-l2ser-Queue")));
  const Kel::Ptr<RequesterDalRemote> l2 = remoteDal(*dal, 0x10), acl = remoteDal(*dal, 0x30);
  EXPECT_EQ(remoteDal(*dal, 0x40), l2);
  EXPECT_EQ(l2->requester()->dalId(), DalId(1));
  EXPECT_EQ(acl->requester()->dalId(), DalId(2));
  EXPECT_EQ(l2->remoteResources().size(), 3u);
  EXPECT_TRUE(l2->remoteResource(table(0x11)) && l2->remoteResource(table(0x40)));
  EXPECT_EQ(acl->remoteResources().size(), 1u);
  // Only the flagged mask makes map entries; aclser has no flagged mask at all.
  ASSERT_NE(l2->resourceIdToDataMaskMap(), nullptr);
  EXPECT_THAT(l2->resourceIdToDataMaskMap()->dataMaskCol(),
              UnorderedElementsAre(Pair(table(0x10), maskedL2()), Pair(table(0x11), maskedL2())));
  EXPECT_EQ(acl->resourceIdToDataMaskMap(), nullptr);
  EXPECT_EQ(creator->dalProcessingStatusCol()->processingStatuses().size(), 3u);
  EXPECT_EQ(creator->nextDalId(), DalId(3));
  EXPECT_TRUE(dal->okToReadFromShadow() && l2->okToWriteToShadow());

  EXPECT_EQ(trace.count("Creating schan requester"), 1);
  EXPECT_EQ(trace.count("Found existing dal for 1"), 1);
  for (const char* id : {"0x10", "0x11", "0x40", "0x30"})
    EXPECT_EQ(
        trace.count(std::string("Setting requester dal for resource type tableResource id ") + id),
        1)
        << id;
}

struct SchanNameCase {
  const char* requesterName;  // null: no entry for the agent
  const char* sliceId;
  const char* queueName;
};
void PrintTo(const SchanNameCase& c, std::ostream* os) { *os << c.queueName; }

class DemuxDalCreatorSchanNameTest : public DemuxDalCreatorAssemblyTest,
                                     public ::testing::WithParamInterface<SchanNameCase> {};

TEST_P(DemuxDalCreatorSchanNameTest, NamesTheSchanQueue) {
  fill(nullptr, "");
  if (!GetParam().requesterName) creator->requesterNameDel(kMe);
  creator->sliceIdIs(GetParam().sliceId);
  EXPECT_EQ(build()->defaultDal()->requester()->name(), GetParam().queueName);
}

INSTANTIATE_TEST_SUITE_P(Names, DemuxDalCreatorSchanNameTest,
                         ::testing::Values(SchanNameCase{"fwd", "", "fwd-Schan-Queue"},
                                           SchanNameCase{"fwd", "s1", "fwd-s1-Schan-Queue"},
                                           SchanNameCase{nullptr, "", "-Schan-Queue"},
                                           SchanNameCase{nullptr, "s1", "-s1-Schan-Queue"}));

enum class CopSource { external, local, localFedByLog, logPathWithoutLog };

struct CopCase {
  const char* name;
  CopSource source;
  std::vector<Corvane::Coprocessor> attached;  // by the S-channel requester
};
void PrintTo(const CopCase& c, std::ostream* os) { *os << c.name; }

class DemuxDalCreatorCoprocessorTest : public DemuxDalCreatorAssemblyTest,
                                       public ::testing::WithParamInterface<CopCase> {};

TEST_P(DemuxDalCreatorCoprocessorTest, PicksTheCoprocessorStatus) {
  const CopCase& c = GetParam();
  const bool external = c.source == CopSource::external;
  const bool withPath =
      c.source == CopSource::localFedByLog || c.source == CopSource::logPathWithoutLog;
  fill(remote, withPath ? kLogPath : "");
  auto log = Kel::allocate<Corvane::CoprocessorStatusAttrLog>(Kel::Name("log"));
  log->setRecordIs("cop0", Corvane::Coprocessor(4, 1));
  if (c.source == CopSource::localFedByLog) db->entityIs(kLogPath, log);
  auto supplied = Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("supplied"));
  supplied->coprocessorIs("copX", Corvane::Coprocessor(9, 2));
  if (external) creator->coprocessorStatusIs(supplied);

  const auto schan = Kel::dynamicPtrCast<RequesterDalSchan>(build()->defaultDal());
  EXPECT_THAT(schan->schanRequester()->attachedCoprocessors(), ElementsAreArray(c.attached));
  const Kel::Ptr<Corvane::CoprocessorStatus> local = creator->localCoprocessorStatus();
  EXPECT_EQ(schan->coprocessorStatus(), external ? supplied : local);
  EXPECT_EQ(local == nullptr, external);
  EXPECT_TRUE(!local || local->name() == "dalCoprocessorStatus");
  EXPECT_EQ(creator->coprocessorStatusAttrLog(),
            c.source == CopSource::localFedByLog ? log : nullptr);
  // The adapter comes with the path, whether or not a log is published there.
  ASSERT_EQ(creator->coprocessorStatusAdapterSm() != nullptr, withPath);
  if (withPath) {
    EXPECT_EQ(creator->coprocessorStatusAdapterSm()->coprocessorStatus(), local);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Sources, DemuxDalCreatorCoprocessorTest,
    ::testing::Values(CopCase{"External", CopSource::external, {Corvane::Coprocessor(9, 2)}},
                      CopCase{"Local", CopSource::local, {}},
                      CopCase{
                          "LocalFedByLog", CopSource::localFedByLog, {Corvane::Coprocessor(4, 1)}},
                      CopCase{"LogPathWithoutLog", CopSource::logPathWithoutLog, {}}),
    [](const auto& info) { return std::string(info.param.name); });

struct EnvCase {
  const char* name;
  bool remoteResources;
  const char* forceLocalShadow;  // XP_FORCE_LOCAL_SHADOW_ACCESS; null: unset
  const char* skipHwAccess;      // XP_SKIP_HW_ACCESS
  const char* simulationVmid;    // SIMULATION_VMID
  std::size_t routes;
  bool hwAccessAllowed, verifyEnabled;
};
void PrintTo(const EnvCase& c, std::ostream* os) { *os << c.name; }

class DemuxDalCreatorEnvTest : public DemuxDalCreatorAssemblyTest,
                               public ::testing::WithParamInterface<EnvCase> {};

TEST_P(DemuxDalCreatorEnvTest, ShapesTheTreeFromTheEnvironment) {
  const EnvCase& c = GetParam();
  const ScopedEnv force("XP_FORCE_LOCAL_SHADOW_ACCESS", c.forceLocalShadow);
  const ScopedEnv skip("XP_SKIP_HW_ACCESS", c.skipHwAccess);
  const ScopedEnv vmid("SIMULATION_VMID", c.simulationVmid);
  fill(c.remoteResources ? remote : nullptr, "");
  const Kel::Ptr<DemuxDal> dal = build();
  EXPECT_EQ(dal->resourceIdToDalMap()->size(), c.routes);
  // Without routes only the S-channel took a DAL id: createRequester was never called.
  EXPECT_EQ(creator->nextDalId(), DalId(c.routes ? 3 : 1));
  EXPECT_EQ(db->entity("ser/l2ser/config/fwd-l2ser-Queue") != nullptr, c.routes != 0);
  std::vector<Kel::Ptr<Dal>> tree = {dal, dal->defaultDal()};
  for (const auto& [rid, member] : *dal->resourceIdToDalMap()) tree.push_back(member);
  for (const Kel::Ptr<Dal>& d : tree) {
    EXPECT_EQ(d->hwAccessAllowed(), c.hwAccessAllowed) << d->name();
    EXPECT_EQ(d->verifyEnabled(), c.verifyEnabled) << d->name();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DemuxDalCreatorEnvTest,
    ::testing::Values(EnvCase{"Unset", true, nullptr, nullptr, nullptr, 4, true, false},
                      EnvCase{"NoRemoteResources", false, nullptr, nullptr, nullptr, 0, true,
                              false},
                      EnvCase{"ForcedLocalShadowEmpty", true, "", nullptr, nullptr, 0, true, false},
                      EnvCase{"ForcedLocalShadow", true, "1", nullptr, nullptr, 0, true, false},
                      EnvCase{"SkipHwAccessEmpty", true, nullptr, "", nullptr, 4, false, false},
                      EnvCase{"SimulationVmid", true, nullptr, nullptr, "7", 4, true, true}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------
// Assertions

using DemuxDalCreatorAssemblyDeathTest = DemuxDalCreatorAssemblyTest;

TEST_F(DemuxDalCreatorAssemblyDeathTest, RemoteResourceOwnedByTheAgentItself) {
  creator->serializerInfo(SerializerId(2))->agentIdIs(kMe);
  const char* text = "Assertion failed: sInfo->agentId\\(\\) != requesterAgentId\\(\\),";
  EXPECT_DEATH(creator->doMounts(group), text);
  EXPECT_DEATH(creator->demuxDal(), text);
}

TEST_F(DemuxDalCreatorAssemblyDeathTest, CreateRequesterWithoutOwnRequesterName) {
  creator->requesterNameDel(kMe);
  mount();
  EXPECT_DEATH(creator->createRequester(SerializerId(1)),
               "Assertion failed: requesterName\\( requesterAgentId\\(\\) \\) != \"\",");
}

TEST_F(DemuxDalCreatorAssemblyDeathTest, TakingDalId255WrapsTheCounter) {
  mount();
  creator->nextDalIdIs(DalId(255));
  EXPECT_DEATH(creator->createRequester(SerializerId(1)), "Assertion failed: nextDalId\\(\\),");
  EXPECT_DEATH(creator->demuxDal(), "Assertion failed: nextDalId\\(\\),");
}

// demuxDal() makes a local status whenever no external one is set, so copStatus is null only
// when an observer of the creator withdraws the local status while it is being set.
class LocalStatusWithdrawer : public DemuxDalCreator::NotifieeConst {
 public:
  explicit LocalStatusWithdrawer(DemuxDalCreator* creator) : creator_(creator) {}
  void onLocalCoprocessorStatus() override { creator_->localCoprocessorStatusIs(nullptr); }

 private:
  DemuxDalCreator* creator_;  // observed, not owned
};

TEST_F(DemuxDalCreatorAssemblyDeathTest, NoCoprocessorStatusLeft) {
  mount();
  auto withdrawer = Kel::allocate<LocalStatusWithdrawer>(creator.ptr());
  withdrawer->notifierIs(creator);
  EXPECT_DEATH(creator->demuxDal(), "Assertion failed: copStatus,");
}

}  // namespace
}  // namespace Zorvek
