// A single write routed by the DemuxDal to the remote DAL of the table's owner (ownership
// check on, traces off, the remote DAL's local shadow updated, the write enqueued) against
// the same unavoidable work done by hand: the two helper calls, one map lookup, the
// ownership query, the environment lookup, the copy into a preallocated shadow entry and
// the requester call.
#include "BenchSupport.h"

namespace bench {
namespace {

constexpr U32 kEntries = 1024;
constexpr U32 kEntrySize = 8;

void demuxDalWrite(benchmark::State& state) {
  DalTree tree;
  const auto args = tree.optArgs(kRouteTable, kEntries);
  const auto offsets = tree.offsets(kRouteTable, kEntries);
  const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
  U8 data[kEntrySize] = {1, 2, 3, 4, 5, 6, 7, 8};
  // Every entry is in use before timing starts, as in the baseline.
  for (U32 i = 0; i < kEntries; ++i)
    tree.demux->dalWrite(mask, offsets[i], kEntrySize, data, const_cast<sim::SimOptArg*>(&args[i]));
  tracesOff();
  const U64 commandsBefore = tree.remoteRequester->cmdIndex();
  U32 i = 0;
  for (auto _ : state) {
    data[0] = static_cast<U8>(i);
    const Zorvek::S32 rc = tree.demux->dalWrite(mask, offsets[i], kEntrySize, data,
                                                const_cast<sim::SimOptArg*>(&args[i]));
    benchmark::DoNotOptimize(rc);
    i = (i + 1) % kEntries;
  }
  if (tree.remoteRequester->cmdIndex() - commandsBefore != static_cast<U64>(state.iterations()))
    state.SkipWithError("a write did not reach the remote requester");
}

void baselineWrite(benchmark::State& state) {
  DalTree tree;
  const auto args = tree.optArgs(kRouteTable, kEntries);
  const auto offsets = tree.offsets(kRouteTable, kEntries);
  const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
  U8 data[kEntrySize] = {1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<U8> shadow(std::size_t{kEntries} * kEntrySize);
  const Kel::Ptr<Zorvek::Requester> requester = tree.remoteRequester;
  tracesOff();
  U32 i = 0;
  for (auto _ : state) {
    data[0] = static_cast<U8>(i);
    void* optArg = const_cast<sim::SimOptArg*>(&args[i]);
    const DeviceOffset offset = offsets[i];
    const PhysicalResourceId rid = tree.helper->resourceId(offset, optArg);
    const PhysicalResourceId normalized = tree.helper->normalizedResourceId(rid);
    const auto found = tree.map->dals().find(normalized);
    const AgentId owner = tree.creator->ownerAgentIdForPhysicalResource(normalized);
    const char* forced = std::getenv("XP_FORCE_LOCAL_SHADOW_ACCESS");
    std::memcpy(&shadow[std::size_t{i} * kEntrySize], data, kEntrySize);
    const S64 cmdIndex = requester->write(mask, rid, offset, data, nullptr, kEntrySize, false);
    benchmark::DoNotOptimize(found);
    benchmark::DoNotOptimize(owner);
    benchmark::DoNotOptimize(forced);
    benchmark::DoNotOptimize(cmdIndex);
    benchmark::ClobberMemory();
    i = (i + 1) % kEntries;
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::run(argc, argv,
                    {{"RoutedWrite/baseline", bench::baselineWrite},
                     {"RoutedWrite/demuxDal", bench::demuxDalWrite}},
                    {{"RoutedWrite/demuxDal", "RoutedWrite/baseline", 1.5, 1}});
}
