// The state database shared by agent processes through a real redis-server: agents forked
// from the test meet in it as a serializer and a requester do on a switch.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <vector>

#include "Corvane/CoprocessorStatus.h"
#include "Orv/WatchList.h"
#include "SkorraRedis/RedisBackend.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/RequesterDalRemote.h"
#include "Zorvek/SerializerStatus.h"
#include "redis/AgentHarness.h"
#include "sim/SimDalHelper.h"
#include "sim/TestGeometry.h"

namespace Skorra::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Zorvek::AgentId;
using Zorvek::DeviceId;
using Zorvek::DeviceOffset;
using Zorvek::SerializerStatus;
using Zorvek::U16;
using Zorvek::U32;
using Zorvek::U64;
using Zorvek::U8;

constexpr const char* kQueue = "a7-s1-Queue";

TEST(RedisUrlTest, ABadUrlIsRefusedNamingItAndWhatIsWrong) {
  const std::pair<const char*, const char*> rows[] = {
      {"redis://localhost:6379", "unknown scheme"},
      {"unix://run/redis.sock", "the socket path must be absolute"},
      {"tcp://localhost", "no host and port"},
      {"tcp://:6379", "no host and port"},
      {"tcp://localhost:0", "the port must be a number from 1 to 65535"},
      {"tcp://localhost:63x", "the port must be a number from 1 to 65535"}};
  for (const auto& [url, why] : rows)
    EXPECT_THAT([url = url] { redisAddress(url); },
                ThrowsMessage<DatabaseError>(
                    StrEq(std::string("Skorra: bad state database URL \"") + url + "\": " + why +
                          "; expected unix:///PATH or tcp://HOST:PORT")));
}

TEST(RedisUrlTest, AServerThatDoesNotAnswerIsNamed) {
  Kel::ActivityLoop loop;
  EXPECT_THAT(
      [&] { redisDatabase("unix:///nonexistent/redis.sock", loop); },
      ThrowsMessage<DatabaseError>(StartsWith(
          "Skorra: cannot connect to the state database at \"unix:///nonexistent/redis.sock\": ")));
}

// In a forked agent: waits for the test's next step; false when the test has finished.
bool awaitStep(int fd) {
  char c;
  return read(fd, &c, 1) == 1;
}

// The test talks to the agent it forks through a pipe: each byte it sends lets the agent
// take its next step.
class TwoAgentsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(pipe2(steps, O_CLOEXEC), 0); }
  void TearDown() override { close(steps[1]); }
  // Forks `agent`, which gets the reading end.
  pid_t fork(const std::function<int(int)>& agent) {
    const pid_t pid = forkAgent([&] {
      close(steps[1]);
      return agent(steps[0]);
    });
    close(steps[0]);
    return pid;
  }
  void step() { ASSERT_EQ(write(steps[1], "s", 1), 1); }

  RedisServer server;
  int steps[2] = {-1, -1};
};

// Serves every queue it is attached to, in the status it publishes.
struct StatusConsumer : Zorvek::QueueConsumer {
  explicit StatusConsumer(Kel::Ptr<SerializerStatus> s) : status(std::move(s)) {}
  bool commandExecute(const Zorvek::RequesterQueue&, Zorvek::QueueCommand&) override {
    return true;
  }
  void queueAttached(Zorvek::RequesterQueue& queue) override {
    status->servedQueueIs(queue.name());
  }
  Kel::Ptr<SerializerStatus> status;
};

// The serializer s1 in its own process: publishes its status, serves the queue a7-s1-Queue
// as its registration arrives (a reaction to another agent's change, which is shared in its
// turn), then restarts at each step.
int serializerAgent(const std::string& url, int steps) {
  Agent s1(url, {{"s1/config", "ri"}, {"s1/status", "wi"}});
  StatusConsumer consumer(Kel::allocate<SerializerStatus>(Kel::Name("s1")));
  const auto config = s1.at<const Kel::Dir>("s1/config");
  const auto attacher = Kel::allocate<Zorvek::QueueAttacher>(config, &consumer);
  // Published once the attacher follows the directory: the test registers its queue then.
  s1.at<Kel::Dir>("s1/status")
      ->entityIs(Kel::String(SerializerStatus::kEntryName), consumer.status);
  if (!runUntil(s1.loop, [&] { return consumer.status->servedQueue(kQueue); })) return 2;
  while (awaitStep(steps)) consumer.status->restartCountInc(1);
  return 0;
}

TEST_F(TwoAgentsTest, ASerializerInAnotherProcessMakesTheRequesterReadyAndItsRestartAReplay) {
  using namespace sim::test;
  const pid_t s1 = fork([&](int fd) { return serializerAgent(server.url(), fd); });
  Agent agent(server.url(), {{"s1/config", "wi"}, {"s1/status", "ri"}});
  const auto statusDir = agent.at<const Kel::Dir>("s1/status");
  ASSERT_TRUE(runUntil(agent.loop, [&] { return statusDir->entities() == 1; }));
  const auto queue = Kel::allocate<Zorvek::QueueRequester>(
      kQueue, AgentId(7), 8, Zorvek::DalId(1), nullptr, nullptr, Zorvek::IoMemType::queueMemory_,
      agent.at<Kel::Dir>("s1/config"), agent.at<const Kel::Dir>("s1/status"), "s1-kick",
      std::string("Kick-") + kQueue);
  ASSERT_TRUE(runUntil(agent.loop, [&] { return queue->ready(); }));

  const auto geometry = testGeometry();
  const auto helper = Kel::allocate<sim::SimDalHelper>();
  helper->deviceIs(DeviceId(0), geometry);
  const auto dal = Zorvek::requesterDalRemoteFactory(kQueue, queue, nullptr);
  dal->helperIs(helper);
  dal->remoteResourceIs(kRoute0, true);
  dal->initLocalCache(DeviceId(0), false);
  for (U32 entry : {0u, 2u}) {
    const DeviceOffset offset = geometry->layout(kRoute0)->entryOffset(entry);
    const Entry data = filled(U8(0x10 + entry));
    sim::SimOptArg optArg;
    helper->setOptArg(DeviceId(0), kRoute0, offset, &optArg);
    ASSERT_EQ(dal->dalWrite(Zorvek::oneDeviceMask(DeviceId(0)), offset, U16(data.size()),
                            data.data(), &optArg),
              0);
  }
  const auto registered = agent.at<const Zorvek::RequesterQueue>("s1/config/a7-s1-Queue");
  ASSERT_EQ(registered->depth(), 2u);

  step();  // s1 restarts
  ASSERT_TRUE(runUntil(agent.loop, [&] { return queue->serializerRestartCount() == 1; }));
  EXPECT_EQ(registered->depth(), 4u);  // the two entries, written again
  EXPECT_TRUE(queue->ready());
  close(steps[1]);
  EXPECT_EQ(exitOf(s1), 0);
}

TEST_F(TwoAgentsTest, AWriteThroughAReadOnlyMountIsRefusedAndChangesNothing) {
  const pid_t s1 = fork([&](int) { return serializerAgent(server.url(), -1); });
  Agent agent(server.url(), {{"s1/status", "ri"}});
  const auto statusDir = agent.at<Kel::Dir>("s1/status");
  ASSERT_TRUE(runUntil(agent.loop, [&] { return statusDir->entities() == 1; }));
  const auto status = agent.at<SerializerStatus>("s1/status/serializerStatus");

  EXPECT_THAT([&] { status->restartCountIs(9); },
              ThrowsMessage<MountError>(StrEq(
                  "Skorra: cannot write restartCount of \"s1/status/serializerStatus\": this agent "
                  "mounted it read-only (mode \"ri\")")));
  EXPECT_THAT([&] { status->servedQueueIs("q"); },
              ThrowsMessage<MountError>(StartsWith("Skorra: cannot write servedQueue")));
  EXPECT_THAT([&] { statusDir->entityDel(Kel::String(SerializerStatus::kEntryName)); },
              ThrowsMessage<MountError>(StartsWith("Skorra: cannot write")));
  EXPECT_EQ(status->restartCount(), 0u);
  EXPECT_FALSE(status->servedQueue("q"));
  RedisConnection redis(redisAddress(server.url()));
  EXPECT_EQ(redis.command({"HGET", "skorra:e:s1/status/serializerStatus", "restartCount"}).text(),
            "0");
  EXPECT_FALSE(redis.command({"HGET", "skorra:e:s1/status", "n:serializerStatus"}).isNil());
  kill(s1, SIGKILL);
  EXPECT_EQ(exitOf(s1), -1);
}

// The coprocessor status log and the debug watch list, published by another process before
// this agent mounts them (as entities, not directories), follow their writer afterwards: the
// coprocessors this agent sees attach and detach as the log grows.
TEST_F(TwoAgentsTest, TheCoprocessorLogAndTheWatchListFollowTheirWriter) {
  using Log = Corvane::CoprocessorStatusAttrLog;
  const Zorvek::PhysicalResourceId route(Zorvek::ResourceType::tableResource_, 0x10);
  const pid_t platform = fork([&](int fd) {
    Agent writer(server.url(), {{"platform", "wi"}});
    const auto log = Kel::allocate<Log>(Kel::Name("statusLog"));
    log->setRecordIs("cop0", Corvane::Coprocessor(1, 1));
    writer.db->entityIs("platform/coprocessor/statusLog", log);
    const auto watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
    writer.db->entityIs("platform/debug/watchlist", watchList);
    if (!awaitStep(fd)) return 2;
    log->setRecordIs("cop1", Corvane::Coprocessor(2, 1));
    log->delRecordIs("cop0");
    watchList->watchIs(DeviceId(0), route);
    return awaitStep(fd) ? 3 : 0;
  });
  RedisConnection redis(redisAddress(server.url()));
  Kel::ActivityLoop idle;
  ASSERT_TRUE(runUntil(idle, [&] {
    return !redis.command({"HGET", "skorra:e:platform/debug/watchlist", "type"}).isNil();
  }));
  Agent agent(server.url(), {});
  agent.group->doMount(
      Mount("platform/coprocessor/statusLog", "Corvane::CoprocessorStatusAttrLog", "r"));
  agent.group->doMount(Mount("platform/debug/watchlist", "Orv::WatchList", "r"));
  agent.group->completeMounts();
  const auto status = Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("status"));
  const auto adapter =
      Corvane::CoprocessorStatusAttrLogAdapterSm::CoprocessorStatusAttrLogAdapterSmIs(
          agent.at<const Log>("platform/coprocessor/statusLog"), status);
  const auto watchList = agent.at<const Orv::WatchList>("platform/debug/watchlist");
  ASSERT_NE(watchList, nullptr);
  EXPECT_EQ(status->coprocessor("cop0"), Corvane::Coprocessor(1, 1));
  EXPECT_FALSE(watchList->watch(DeviceId(0), route));

  step();
  ASSERT_TRUE(runUntil(agent.loop, [&] { return watchList->watch(DeviceId(0), route); }));
  EXPECT_EQ(status->coprocessor("cop1"), Corvane::Coprocessor(2, 1));
  EXPECT_FALSE(status->coprocessor("cop0").valid());
  EXPECT_EQ(adapter->recordsApplied(), 3u);
  close(steps[1]);
  EXPECT_EQ(exitOf(platform), 0);
}

// Keeps the restart counts a status notifies.
struct RestartCounts : SerializerStatus::NotifieeConst {
  explicit RestartCounts(const Kel::Ptr<const SerializerStatus>& status) { notifierIs(status); }
  void onRestartCount() override { seen.push_back(notifier()->restartCount()); }
  std::vector<U64> seen;
};

// A follower that loses its connection re-reads what changed meanwhile; a server that
// restarts empty is refilled by the writer, and the follower takes nothing it lost for deleted.
TEST_F(TwoAgentsTest, AFollowerThatLosesTheServerSeesEveryChangeOnce) {
  const pid_t writer = fork([&](int fd) {
    Agent s1(server.url(), {{"s1/status", "wi"}});
    const auto status = Kel::allocate<SerializerStatus>(Kel::Name("s1"));
    s1.at<Kel::Dir>("s1/status")->entityIs(Kel::String(SerializerStatus::kEntryName), status);
    if (!awaitStep(fd)) return 2;
    status->restartCountIs(1);
    status->restartCountIs(2);
    if (!awaitStep(fd)) return 3;
    status->restartCountIs(3);
    if (!awaitStep(fd)) return 4;
    status->restartCountIs(4);
    status->servedQueueIs("last");
    return awaitStep(fd) ? 5 : 0;
  });
  Agent follower(server.url(), {{"s1/status", "ri"}});
  const auto& backend = static_cast<const RedisBackend&>(*follower.db->backend());
  const auto statusDir = follower.at<Kel::Dir>("s1/status");
  ASSERT_TRUE(runUntil(follower.loop, [&] { return statusDir->entities() == 1; }));
  const auto status = follower.at<const SerializerStatus>("s1/status/serializerStatus");
  const auto counts = Kel::allocate<RestartCounts>(status);
  step();
  ASSERT_TRUE(runUntil(follower.loop, [&] { return counts->seen.size() == 2; }));

  // The follower's subscription is cut, and 3 is set before it notices.
  RedisConnection(redisAddress(server.url())).command({"CLIENT", "KILL", "TYPE", "pubsub"});
  step();
  ASSERT_TRUE(runUntil(follower.loop, [&] {
    return RedisConnection(redisAddress(server.url()))
               .command({"HGET", "skorra:e:s1/status/serializerStatus", "restartCount"})
               .text() == "3";
  }));
  ASSERT_TRUE(runUntil(follower.loop, [&] { return counts->seen.size() == 3; }));

  // The server restarts empty; the follower is back before the writer.
  server.stop();
  server.start();
  ASSERT_TRUE(runUntil(follower.loop, [&] { return backend.reconnects() == 2; }));
  EXPECT_EQ(statusDir->entity(Kel::String(SerializerStatus::kEntryName)), status);
  step();
  ASSERT_TRUE(runUntil(follower.loop, [&] { return status->servedQueue("last"); }));
  EXPECT_THAT(counts->seen, ElementsAre(1, 2, 3, 4));
  // What the server lost, its writer gave back: an agent that comes later finds it all.
  Agent late(server.url(), {{"s1/status", "ri"}});
  const auto again = late.at<const SerializerStatus>("s1/status/serializerStatus");
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->restartCount(), 4u);
  EXPECT_THAT(again->servedQueues(), ElementsAre("last"));
  close(steps[1]);
  EXPECT_EQ(exitOf(writer), 0);
}

TEST(RedisBackendTest, AServerThatStaysAwayStopsTheAgentWithAClearError) {
  RedisServer server;
  Agent agent(server.url(), {{"s1/status", "ri"}}, RedisRetry{3, 20ms});
  server.stop();
  EXPECT_THAT(
      [&] {
        runUntil(
            agent.loop, [] { return false; }, 5s);
      },
      ThrowsMessage<DatabaseError>(StartsWith(
          "Skorra: lost the state database at \"" + server.url() +
          "\" and could not reconnect (3 attempts, 20 ms apart): Skorra: cannot connect")));
}

}  // namespace
}  // namespace Skorra::test
