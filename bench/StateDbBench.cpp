// The state database across processes: the time from an attribute set in one agent process
// to the observer's callback in another (a SerializerStatus's restart count, shared through
// redis-server, applied on the follower's activity loop), against a bare hiredis PUBLISH
// from the first process to a subscriber polling its socket in the second: the delivery
// that any change between processes pays. Both run against one private redis-server, in
// alternating rounds of the same run, one change at a time (the next is sent once the
// previous arrived). The clock is the monotonic clock, which both processes share.
//
// Prints the median and the 99th percentile of each side, and the ratio of the medians
// (goal <= 1.5) in the form bench/run reads.
#include <hiredis.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <vector>

#include "SkorraRedis/RedisBackend.h"
#include "Zorvek/SerializerStatus.h"
#include "redis/AgentHarness.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 10;
constexpr int kPerRound = 200;
constexpr int kSamples = kRounds * kPerRound;
constexpr double kGoal = 1.5;

// What the two processes share: when each change was sent, and the last one that arrived.
struct Shared {
  std::atomic<long long> sentNs[2 * kSamples];
  std::atomic<int> arrived{-1};
  std::atomic<bool> statusPublished{false};
};

long long nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// Sample `n` of round `r`: the first kPerRound of a round are bare, the rest the status.
int sample(int round, int i, bool status) {
  return round * 2 * kPerRound + (status ? kPerRound : 0) + i;
}

void awaitArrival(const Shared& shared, int n) {
  while (shared.arrived.load(std::memory_order_acquire) != n) sched_yield();
}

int publisher(const std::string& url, Shared& shared) {
  redisContext* bare = redisConnectUnix(url.substr(7).c_str());
  Skorra::test::Agent s1(url, {{"s1/status", "wi"}});
  const auto status = Kel::allocate<Zorvek::SerializerStatus>(Kel::Name("s1"));
  s1.at<Kel::Dir>("s1/status")->entityIs(Kel::String(Zorvek::SerializerStatus::kEntryName), status);
  shared.statusPublished.store(true, std::memory_order_release);
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < kPerRound; ++i) {
      const int n = sample(round, i, false);
      shared.sentNs[n].store(nowNs(), std::memory_order_release);
      freeReplyObject(redisCommand(bare, "PUBLISH bench %d", n));
      awaitArrival(shared, n);
    }
    for (int i = 0; i < kPerRound; ++i) {
      const int n = sample(round, i, true);
      shared.sentNs[n].store(nowNs(), std::memory_order_release);
      status->restartCountIs(Zorvek::U64(n));
      awaitArrival(shared, n);
    }
  }
  redisFree(bare);
  return 0;
}

struct Follower : Zorvek::SerializerStatus::NotifieeConst {
  Follower(const Kel::Ptr<const Zorvek::SerializerStatus>& status, Shared& shared,
           std::vector<long long>& latencies)
      : shared_(shared), latencies_(latencies) {
    notifierIs(status);
  }
  void onRestartCount() override {
    const int n = int(notifier()->restartCount());
    latencies_.push_back(nowNs() - shared_.sentNs[n].load(std::memory_order_acquire));
    shared_.arrived.store(n, std::memory_order_release);
  }
  Shared& shared_;
  std::vector<long long>& latencies_;
};

long long percentile(std::vector<long long> v, double p) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, std::size_t(p * double(v.size())))];
}

}  // namespace

int main() {
  Skorra::test::RedisServer server;
  auto* shared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (shared) Shared();
  const pid_t child = Skorra::test::forkAgent([&] { return publisher(server.url(), *shared); });

  // The follower: a bare subscriber and an agent that mounted the status read-only.
  redisContext* bare = redisConnectUnix(server.socket().c_str());
  freeReplyObject(redisCommand(bare, "SUBSCRIBE bench"));
  Skorra::test::Agent agent(server.url(), {{"s1/status", "ri"}});
  while (!shared->statusPublished.load(std::memory_order_acquire)) sched_yield();
  const auto dir = agent.at<const Kel::Dir>("s1/status");
  Skorra::test::runUntil(agent.loop, [&] { return dir->entities() == 1; });
  std::vector<long long> bareNs, statusNs;
  const auto follower = Kel::allocate<Follower>(
      agent.at<const Zorvek::SerializerStatus>("s1/status/serializerStatus"), *shared, statusNs);
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < kPerRound; ++i) {
      pollfd pfd{bare->fd, POLLIN, 0};
      void* reply = nullptr;
      while (!reply) {
        poll(&pfd, 1, -1);
        redisBufferRead(bare);
        redisGetReplyFromReader(bare, &reply);
      }
      const int n = std::atoi(static_cast<redisReply*>(reply)->element[2]->str);
      bareNs.push_back(nowNs() - shared->sentNs[n].load(std::memory_order_acquire));
      freeReplyObject(reply);
      shared->arrived.store(n, std::memory_order_release);
    }
    const int last = sample(round, kPerRound - 1, true);
    Skorra::test::runUntil(
        agent.loop, [&] { return shared->arrived.load() == last; }, std::chrono::seconds(60));
  }
  const int status = Skorra::test::exitOf(child, std::chrono::seconds(60));
  redisFree(bare);
  if (status != 0 || statusNs.size() != std::size_t(kSamples) ||
      bareNs.size() != std::size_t(kSamples)) {
    std::fprintf(stderr, "StateDbBench: the publisher exited with %d after %zu of %d changes\n",
                 status, statusNs.size(), kSamples);
    return 1;
  }
  const double bareMedian = double(percentile(bareNs, 0.5));
  const double statusMedian = double(percentile(statusNs, 0.5));
  const double ratio = statusMedian / bareMedian;
  std::printf("latency statusSet->observer: median %.1f us, p99 %.1f us\n", statusMedian / 1e3,
              double(percentile(statusNs, 0.99)) / 1e3);
  std::printf("latency barePublish->subscriber: median %.1f us, p99 %.1f us\n", bareMedian / 1e3,
              double(percentile(bareNs, 0.99)) / 1e3);
  std::printf(
      "ratio StateDb/statusSet / StateDb/barePublish = %.2f (goal <= %.2f: %s); ns per "
      "access %.0f / %.0f\n",
      ratio, kGoal, ratio <= kGoal ? "met" : "MISSED", statusMedian, bareMedian);
  return 0;
}
