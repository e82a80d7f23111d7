// A single read routed by the DemuxDal to the remote DAL and served by its local shadow
// (ownership check on, traces off) against the same unavoidable work done by hand: the two
// helper calls, one map lookup, the ownership query, the environment lookup and the copy
// out of a preallocated shadow entry.
#include "BenchSupport.h"

namespace bench {
namespace {

constexpr U32 kEntries = 1024;
constexpr U32 kEntrySize = 8;

void demuxDalRead(benchmark::State& state) {
  DalTree tree;
  const auto args = tree.optArgs(kRouteTable, kEntries);
  const auto offsets = tree.offsets(kRouteTable, kEntries);
  const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
  U8 data[kEntrySize] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (U32 i = 0; i < kEntries; ++i)
    tree.demux->dalWrite(mask, offsets[i], kEntrySize, data, const_cast<sim::SimOptArg*>(&args[i]));
  tracesOff();
  const U64 readsBefore = tree.remoteDal->cacheReadHits();
  U32 i = 0;
  for (auto _ : state) {
    const Zorvek::S32 rc = tree.demux->dalRead(DeviceId(0), offsets[i], kEntrySize, data,
                                               const_cast<sim::SimOptArg*>(&args[i]));
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(data);
    i = (i + 1) % kEntries;
  }
  if (tree.remoteDal->cacheReadHits() - readsBefore != static_cast<U64>(state.iterations()))
    state.SkipWithError("a read was not served by the local shadow");
}

void baselineRead(benchmark::State& state) {
  DalTree tree;
  const auto args = tree.optArgs(kRouteTable, kEntries);
  const auto offsets = tree.offsets(kRouteTable, kEntries);
  U8 data[kEntrySize];
  const std::vector<U8> shadow(std::size_t{kEntries} * kEntrySize, 7);
  tracesOff();
  U32 i = 0;
  for (auto _ : state) {
    void* optArg = const_cast<sim::SimOptArg*>(&args[i]);
    const DeviceOffset offset = offsets[i];
    const PhysicalResourceId rid = tree.helper->resourceId(offset, optArg);
    const PhysicalResourceId normalized = tree.helper->normalizedResourceId(rid);
    const auto found = tree.map->dals().find(normalized);
    const AgentId owner = tree.creator->ownerAgentIdForPhysicalResource(normalized);
    const char* forced = std::getenv("XP_FORCE_LOCAL_SHADOW_ACCESS");
    std::memcpy(data, &shadow[std::size_t{i} * kEntrySize], kEntrySize);
    benchmark::DoNotOptimize(found);
    benchmark::DoNotOptimize(owner);
    benchmark::DoNotOptimize(forced);
    benchmark::DoNotOptimize(data);
    benchmark::ClobberMemory();
    i = (i + 1) % kEntries;
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::run(
      argc, argv,
      {{"ShadowRead/baseline", bench::baselineRead}, {"ShadowRead/demuxDal", bench::demuxDalRead}},
      {{"ShadowRead/demuxDal", "ShadowRead/baseline", 1.5, 1}});
}
