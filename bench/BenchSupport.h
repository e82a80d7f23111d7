// What the benchmarks share: a requester that only hands out command indexes, a DemuxDal
// tree over the simulated device helper built from the factories the way the creator
// builds it, and a main that runs each subject beside its baseline in the same process and
// prints their ratio.
//
//   int main(int argc, char** argv) {
//     return bench::run(argc, argv, {{"Write/baseline", baseline}, {"Write/demuxDal", subject}},
//                       {{"Write/demuxDal", "Write/baseline", 1.5, 1}});
//   }
//
// A ratio compares the CPU time of the fastest repetition of each side (the one least
// disturbed by the rest of the machine). `--iterations=N` runs every benchmark exactly N times,
// which is what the instruction counts under callgrind use.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "Kel/Trace.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/DemuxDalCreator.h"
#include "Zorvek/Requester.h"
#include "Zorvek/RequesterDalRemote.h"
#include "sim/Geometry.h"
#include "sim/SimDalHelper.h"

namespace bench {

using Zorvek::AgentId;
using Zorvek::DeviceId;
using Zorvek::DeviceOffset;
using Zorvek::PhysicalAddr;
using Zorvek::PhysicalResourceId;
using Zorvek::ResourceType;
using Zorvek::S64;
using Zorvek::TargetMask;
using Zorvek::U32;
using Zorvek::U64;
using Zorvek::U8;

// A requester whose commands do nothing but take the next command index (and publish it as
// the channel's last enqueued index, as every requester does). When `dma` is set, the bulk
// commands also move their entries between the physical address and `dma`, as the DMA
// engine behind a real requester would.
class IndexRequester : public Zorvek::Requester {
 public:
  IndexRequester(AgentId agentId, Zorvek::DalId dalId, U8* dma = nullptr)
      : Requester("benchQueue", agentId, dalId, Kel::allocate<Zorvek::DalProcessingStatus>(dalId)),
        dma_(dma) {}

  void waitForCmdIndex(U64) override {}
  S64 read(DeviceId, const PhysicalResourceId&, DeviceOffset, void*, U32) override {
    return next();
  }
  S64 write(const TargetMask&, const PhysicalResourceId&, DeviceOffset, void*, const void*, U32,
            bool) override {
    return next();
  }
  S64 blockingWrite(const TargetMask&, const PhysicalResourceId&, DeviceOffset, void*, const void*,
                    U32, bool) override {
    return next();
  }
  S64 bulkRead(DeviceId, const PhysicalResourceId&, DeviceOffset, const PhysicalAddr& physAddr,
               U32 entrySize, U32 numEntries) override {
    if (dma_) std::memcpy(reinterpret_cast<U8*>(physAddr), dma_, U64{entrySize} * numEntries);
    return next();
  }
  S64 bulkWrite(const TargetMask&, const PhysicalResourceId&, DeviceOffset,
                const PhysicalAddr& physAddr, const void*, U32 entrySize, U32 numEntries) override {
    if (dma_) std::memcpy(dma_, reinterpret_cast<const U8*>(physAddr), U64{entrySize} * numEntries);
    return next();
  }

 protected:
  ~IndexRequester() override = default;

 private:
  S64 next() { return static_cast<S64>(takeCmdIndex()); }
  U8* dma_;
};

// The tables of the simulated device. l3Route, counters and hostRoutes belong to another
// agent's serializer; counters is not cacheable (its bulk reads always reach the hardware)
// and is large enough for a full bulk access; hostRoutes holds the entries of a replay.
constexpr U64 kRouteTable = 0x20;
constexpr U64 kCounterTable = 0x60;
constexpr U64 kHostTable = 0x70;
constexpr U32 kHostEntries = 100000;
constexpr AgentId kMyAgent = 1;
constexpr AgentId kRemoteAgent = 2;

inline PhysicalResourceId table(U64 id) { return {ResourceType::tableResource_, id}; }

// The DAL tree of one agent: the default DAL, one remote DAL serving the remote tables, the
// routing map and the DemuxDal over them, with ownership known to the creator.
struct DalTree {
  Kel::Ptr<sim::Geometry> geometry;
  Kel::Ptr<sim::SimDalHelper> helper;
  Kel::Ptr<Zorvek::DemuxDalCreator> creator;
  Kel::Ptr<Zorvek::Requester> remoteRequester;
  Kel::Ptr<Zorvek::RequesterDalRemote> remoteDal;
  Kel::Ptr<Zorvek::ResourceIdToDalMap> map;
  Kel::Ptr<Zorvek::DemuxDal> demux;
  std::vector<U8> dma = std::vector<U8>(Zorvek::maxBulkTransactionSizeInBytes());

  // The remote DAL sends its commands to `remote`, by default an IndexRequester whose bulk
  // commands move entries to and from `dma`.
  explicit DalTree(Kel::Ptr<Zorvek::Requester> remote = nullptr) {
    geometry = Kel::allocate<sim::Geometry>(
        Kel::Name("benchChip"),
        std::vector<sim::TableDef>{
            {Kel::Name("l2Host"), 0x10, 16, 16, 4096, 1, true, true},
            {Kel::Name("l3Route"), kRouteTable, 8, 8, 2048, 1, true, false},
            {Kel::Name("aclRule"), 0x30, 8, 16, 1024, 2, true, false},
            {Kel::Name("vlanXlate"), 0x40, 8, 8, 1024, 1, true, false},
            {Kel::Name("counters"), kCounterTable, 8, 8, 8192, 1, false, false},
            {Kel::Name("hostRoutes"), kHostTable, 16, 16, kHostEntries, 1, true, false}},
        std::vector<sim::RegisterDef>{{Kel::Name("globalCtrl"), 0x1, 4, true}});
    helper = Kel::allocate<sim::SimDalHelper>();
    helper->deviceIs(DeviceId(0), geometry);

    creator = Zorvek::demuxDalCreatorFactory(kMyAgent, nullptr, "");
    creator->serializerInfoIs(Zorvek::SerializerId(1))->agentIdIs(kRemoteAgent);
    map = Zorvek::resourceIdToDalMapFactory();
    remoteRequester =
        remote ? remote : Kel::allocate<IndexRequester>(kMyAgent, Zorvek::DalId(1), dma.data());
    remoteRequester->readyIs(true);
    remoteDal = Zorvek::requesterDalRemoteFactory(Kel::Name("remote"), remoteRequester, nullptr);
    for (U64 id : {kRouteTable, kCounterTable, kHostTable}) {
      const Zorvek::LogicalResourceId logical(ResourceType::tableResource_, id);
      creator->serializerIdMapIs(logical, Zorvek::SerializerId(1));
      creator->physicalToLogicalResourceMapIs(table(id), logical);
      map->dalIs(table(id), remoteDal);
      remoteDal->remoteResourceIs(table(id), true);
    }
    const auto defaultRequester = Kel::allocate<IndexRequester>(kMyAgent, Zorvek::DalId(0));
    defaultRequester->readyIs(true);
    const auto defaultDal =
        Zorvek::requesterDalRemoteFactory(Kel::Name("default"), defaultRequester, nullptr);
    demux = Zorvek::demuxDalFactory(Kel::Name("demuxDal"), creator, defaultDal, map, nullptr);
    demux->helperIs(helper);
    demux->initLocalCache(DeviceId(0), false);
  }

  // The optional arguments of the first `count` entries of a table.
  std::vector<sim::SimOptArg> optArgs(U64 tableId, U32 count) const {
    std::vector<sim::SimOptArg> args(count);
    const sim::ResourceLayout* layout = geometry->layout(table(tableId));
    for (U32 i = 0; i < count; ++i)
      helper->setOptArg(DeviceId(0), table(tableId), layout->entryOffset(i), &args[i]);
    return args;
  }
  // The offsets of the first `count` entries of a table.
  std::vector<DeviceOffset> offsets(U64 tableId, U32 count) const {
    std::vector<DeviceOffset> out(count);
    const sim::ResourceLayout* layout = geometry->layout(table(tableId));
    for (U32 i = 0; i < count; ++i) out[i] = layout->entryOffset(i);
    return out;
  }
};

// The entries of the routed table that the single-access benchmarks walk, on a fresh tree.
struct RoutedEntries {
  static constexpr U32 kCount = 1024;
  static constexpr U32 kSize = 8;

  DalTree tree;
  std::vector<sim::SimOptArg> args = tree.optArgs(kRouteTable, kCount);
  std::vector<DeviceOffset> offsets = tree.offsets(kRouteTable, kCount);
  TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));

  void* optArg(U32 i) { return &args[i]; }
  // Writes every entry through the DemuxDal, so that each is in use before timing starts.
  void writeAll(const U8* data) {
    for (U32 i = 0; i < kCount; ++i) tree.demux->dalWrite(mask, offsets[i], kSize, data, optArg(i));
  }
  // The lookups a routed access cannot avoid, done by hand for the baselines: the two helper
  // calls, the route map, the ownership query and the environment variable the routing
  // reads. Returns the resource of the entry.
  PhysicalResourceId routeByHand(U32 i) {
    const PhysicalResourceId rid = tree.helper->resourceId(offsets[i], optArg(i));
    const PhysicalResourceId normalized = tree.helper->normalizedResourceId(rid);
    const auto found = tree.map->dals().find(normalized);
    const AgentId owner = tree.creator->ownerAgentIdForPhysicalResource(normalized);
    const char* forced = std::getenv("XP_FORCE_LOCAL_SHADOW_ACCESS");
    benchmark::DoNotOptimize(found);
    benchmark::DoNotOptimize(owner);
    benchmark::DoNotOptimize(forced);
    return rid;
  }
};

// Turns off both sinks of every trace handle of the access path: the benchmarks measure
// accesses with tracing off, whatever KEL_TRACE and KWISP_TRACE say.
inline void tracesOff() {
  for (const char* name : {"ZorvekDemuxDal", "ZorvekRequesterDal", "ZorvekRequesterDalRemote",
                           "ZorvekRequesterDalSchan", "ZorvekDemuxDalCreator", "ZorvekQueue"}) {
    if (Kel::TraceHandle* h = Kel::traceHandle(name)) {
      h->levelsIs(0);
      h->ringLevelsIs(0);
    }
  }
}

struct Benchmark {
  std::string name;
  std::function<void(benchmark::State&)> fn;
};

// A subject measured against its baseline; `accesses` is how many accesses one iteration
// of either makes (for the time per access). A goal of 0 marks a ratio given for reference.
struct Ratio {
  std::string subject;
  std::string baseline;
  double goal;
  double accesses;
};

// Keeps the fastest CPU time per iteration of every benchmark, over its repetitions.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
      const double ns = r.GetAdjustedCPUTime() * nanosecondsPer(r.time_unit);
      auto [it, added] = fastest_.try_emplace(r.run_name.function_name, ns);
      if (!added) it->second = std::min(it->second, ns);
    }
  }
  // Nanoseconds per iteration, or a negative value when the benchmark did not run.
  double fastest(const std::string& name) const {
    auto it = fastest_.find(name);
    return it == fastest_.end() ? -1 : it->second;
  }

 private:
  static double nanosecondsPer(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond:
        return 1e9;
      case benchmark::kMillisecond:
        return 1e6;
      case benchmark::kMicrosecond:
        return 1e3;
      case benchmark::kNanosecond:
        break;
    }
    return 1;
  }
  std::map<std::string, double> fastest_;
};

// Runs the benchmarks, then prints one line per ratio:
//   "ratio <subject> / <baseline> = 1.23 (goal <= 1.50: met); ns per access 45.6 / 37.1"
// ("(reference)" in place of the goal for a ratio without one).
inline int run(int argc, char** argv, const std::vector<Benchmark>& benchmarks,
               const std::vector<Ratio>& ratios) {
  long iterations = 0;
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--iterations=", 13) == 0)
      iterations = std::strtol(argv[i] + 13, nullptr, 10);
    else
      args.push_back(argv[i]);
  }
  for (const Benchmark& b : benchmarks) {
    benchmark::internal::Benchmark* registered = benchmark::RegisterBenchmark(b.name.c_str(), b.fn);
    if (iterations > 0) registered->Iterations(iterations);
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const Ratio& r : ratios) {
    const double subject = reporter.fastest(r.subject);
    const double baseline = reporter.fastest(r.baseline);
    if (subject < 0 || baseline <= 0) continue;
    const double ratio = subject / baseline;
    char verdict[64] = "reference";
    if (r.goal > 0)
      std::snprintf(verdict, sizeof verdict, "goal <= %.2f: %s", r.goal,
                    ratio <= r.goal ? "met" : "MISSED");
    std::printf("ratio %s / %s = %.2f (%s); ns per access %.1f / %.1f\n", r.subject.c_str(),
                r.baseline.c_str(), ratio, verdict, subject / r.accesses, baseline / r.accesses);
  }
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
