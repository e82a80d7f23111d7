// Serializers as processes, measured from the DAL's agent (this process) with the serializers
// in zorvek-serializer processes, a private redis-server and the chips in shared memory, as
// zorvek-sim run --processes runs them (simtool::Supervisor). The topology is the embedded
// default with a table l2Host of 131072 entries (l2ser's), so that 100,000 distinct entries
// fit in it. Three figures, each beside a baseline of the same run:
//
// - Commands per second to a serializer process: rounds of 100,000 DemuxDal::dalWrite of
//   distinct l2Host entries (routed, shadowed, queued through the ring, run on the chip by
//   l2ser), each round ending with waitForCompletion; against rounds of the same count of
//   16-byte write records through a bare ring (bench/BareRing.h) between this process and a
//   forked consumer process that reads each record. Goal: 1.3 or less.
// - A waitForCompletion round trip: one remote dalWrite and waitForCompletion per iteration;
//   against one record through the bare ring and the wait until the consumer took it.
//   Reported as a reference.
// - The replay of 100,000 entries to a restarted serializer process: with 100,000 l2Host
//   entries in the remote DAL's shadow, l2ser's process is stopped and a new one started
//   (SimSwitch::restart, as --restart does), timed from the call until waitForCompletion
//   returns; less the same for aclser, which has nothing to replay, it is the replay's time.
//   Against 100,000 direct QueueRequester writes of the same entries to the same serializer
//   process.
//
// Each side's figure is its fastest round. Prints lines in the form bench/run reads.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "BareRing.h"
#include "Supervisor.h"
#include "Zorvek/QueueRequester.h"

namespace {

using namespace Zorvek;
using namespace Zorvek::bench;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 5;
constexpr U64 kWrites = 100000;
constexpr U64 kRoundTrips = 2000;
constexpr U32 kL2Entries = 131072;
constexpr double kGoal = 1.30;
const PhysicalResourceId kL2Host(ResourceType::tableResource_, 16);

double nsSince(Clock::time_point start, U64 count) {
  return double(
             std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count()) /
         double(count);
}

void printRatio(const char* subject, const char* baseline, double s, double b, bool goal) {
  const double ratio = s / b;
  char verdict[64];
  if (goal)
    std::snprintf(verdict, sizeof verdict, "goal <= %.2f: %s", kGoal,
                  ratio <= kGoal ? "met" : "MISSED");
  else
    std::snprintf(verdict, sizeof verdict, "reference");
  std::printf("ratio %s / %s = %.2f (%s); ns per access %.1f / %.1f\n", subject, baseline, ratio,
              verdict, s, b);
}

// The embedded default with a larger l2Host, written where the serializer processes read it.
sim::Topology benchTopology(const std::string& path) {
  sim::Topology t = sim::Topology::embeddedDefault();
  for (sim::DeviceDef& d : t.devices)
    for (sim::TableDef& table : d.tables)
      if (table.id == kL2Host.id()) table.entryCount = kL2Entries;
  std::ofstream(path) << t.toJson();
  return sim::Topology::load(path);
}

// The bare ring's consumer: the throughput rounds, then the round trips.
int bareConsumer(BareRing& bare) {
  for (int round = 0; round < kRounds; ++round) bareConsume(bare, kWrites);
  for (int round = 0; round < kRounds; ++round) bareConsume(bare, kRoundTrips);
  return 0;
}

class Bench {
 public:
  Bench(const sim::Topology& topology, const std::string& topologyPath)
      : supervisor_(topology, topologyPath, ZORVEK_SERIALIZER_BIN, loop_),
        sw_(topology, supervisor_.switchProcesses()),
        dal_(sw_.buildDal()) {
    supervisor_.runUntil([&] { return dal_->ready(); }, std::chrono::seconds(20));
    const sim::ResourceLayout* l2 = sw_.chip(DeviceId(0))->geometry()->layout(kL2Host);
    for (U32 e = 0; e < kWrites; ++e) {
      offsets_.push_back(l2->entryOffset(e));
      args_.push_back(sw_.optArg(DeviceId(0), offsets_.back()));
    }
    requester_ =
        Kel::dynamicPtrCast<QueueRequester>(dal_->dalSelector(offsets_[0], &args_[0])->requester());
  }
  bool ready() const { return dal_->ready() && requester_ && requester_->ring(); }

  // One dalWrite of entry `e`, its data made of `n`.
  void write(U64 e, U64 n) {
    U8 data[kData];
    std::memcpy(data, &n, 8);
    std::memcpy(data + 8, &e, 8);
    dal_->dalWrite(oneDeviceMask(DeviceId(0)), offsets_[e], kData, data, &args_[e]);
  }
  void complete() { dal_->waitForCompletion(DeviceId(0)); }

  // A restart of the serializer `name`, from the call until every command it set off ran:
  // (nanoseconds, entries the replay queued). The replay is queued as this process hears the
  // new restart count, and at the pace of the serializer once the ring is full, so it is
  // timed whole; a restart of a serializer with nothing to replay times the rest.
  std::pair<double, U64> restart(const char* name) {
    const U64 before = requester_->cmdIndex();
    const auto start = Clock::now();
    sw_.restart(name);
    complete();
    return {nsSince(start, 1), requester_->cmdIndex() - before};
  }
  // kWrites direct writes of the same entries on the remote DAL's requester.
  double directWrites(U64 n) {
    const auto start = Clock::now();
    U8 data[kData];
    for (U64 e = 0; e < kWrites; ++e) {
      std::memcpy(data, &n, 8);
      std::memcpy(data + 8, &e, 8);
      requester_->write(oneDeviceMask(DeviceId(0)), kL2Host, offsets_[e], data, nullptr, kData,
                        false);
    }
    requester_->waitForCmdIndex(requester_->cmdIndex() - 1);
    return nsSince(start, kWrites);
  }

 private:
  Kel::ActivityLoop loop_;
  simtool::Supervisor supervisor_;
  sim::SimSwitch sw_;
  Kel::Ptr<DemuxDal> dal_;
  std::vector<DeviceOffset> offsets_;
  std::vector<sim::SimOptArg> args_;
  Kel::Ptr<QueueRequester> requester_;
};

}  // namespace

int main() {
  if (Skorra::programPath("redis-server").empty()) {
    std::printf("ProcessBench: not run: redis-server is not on the PATH\n");
    return 0;
  }
  // The bare ring and its consumer first, before any connection that a fork would share.
  void* mapped =
      mmap(nullptr, sizeof(BareRing), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* bare = new (mapped) BareRing();
  const pid_t child = fork();
  if (child == 0) _exit(bareConsumer(*bare));

  const std::string topologyPath = "/tmp/zorvek-bench-" + std::to_string(getpid()) + ".json";
  const sim::Topology topology = benchTopology(topologyPath);
  Bench bench(topology, topologyPath);
  if (!bench.ready()) {
    std::fprintf(stderr, "ProcessBench: the DAL did not get ready\n");
    kill(child, SIGKILL);
    return 1;
  }

  double writeBest = 1e30, bareBest = 1e30;
  U64 n = 0, bareNext = 0;
  for (int round = 0; round < kRounds; ++round) {
    auto start = Clock::now();
    bareProduce(*bare, bareNext, kWrites);
    bareBest = std::min(bareBest, nsSince(start, kWrites));
    bareNext += kWrites;
    start = Clock::now();
    for (U64 e = 0; e < kWrites; ++e) bench.write(e, ++n);
    bench.complete();
    writeBest = std::min(writeBest, nsSince(start, kWrites));
  }
  double tripBest = 1e30, bareTripBest = 1e30;
  for (int round = 0; round < kRounds; ++round) {
    auto start = Clock::now();
    for (U64 i = 0; i < kRoundTrips; ++i) bareProduce(*bare, bareNext++, 1);
    bareTripBest = std::min(bareTripBest, nsSince(start, kRoundTrips));
    start = Clock::now();
    for (U64 i = 0; i < kRoundTrips; ++i) {
      bench.write(i, ++n);
      bench.complete();
    }
    tripBest = std::min(tripBest, nsSince(start, kRoundTrips));
  }
  int status = 0;
  waitpid(child, &status, 0);

  double replayBest = 1e30, emptyBest = 1e30, directBest = 1e30;
  U64 replayed = 0;
  for (int round = 0; round < kRounds; ++round) {
    const auto [ns, entries] = bench.restart("l2ser");
    replayed = entries;
    replayBest = std::min(replayBest, ns);
    emptyBest = std::min(emptyBest, bench.restart("aclser").first);
    directBest = std::min(directBest, bench.directWrites(++n));
  }
  std::remove(topologyPath.c_str());

  std::printf("commands per second to a serializer process: DAL %.0f, bare ring %.0f\n",
              1e9 / writeBest, 1e9 / bareBest);
  printRatio("Processes/dalWrite", "Processes/bareRing", writeBest, bareBest, true);
  std::printf("waitForCompletion round trip: %.1f us, bare ring %.1f us\n", tripBest / 1e3,
              bareTripBest / 1e3);
  printRatio("Processes/roundTrip", "Processes/bareRoundTrip", tripBest, bareTripBest, false);
  const double replayPerEntry = (replayBest - emptyBest) / double(replayed);
  std::printf(
      "replay of %llu entries to a restarted serializer process: %.1f ms from the restart call "
      "(the process stopped, a new one started cold, the replay run); a restart with nothing "
      "to replay: %.1f ms; the replay itself: %.1f ms, %.0f entries/s\n",
      static_cast<unsigned long long>(replayed), replayBest / 1e6, emptyBest / 1e6,
      (replayBest - emptyBest) / 1e6, 1e9 / replayPerEntry);
  printRatio("Processes/replay", "Processes/directWrites", replayPerEntry, directBest, false);
  return status == 0 ? 0 : 1;
}
