// A single read routed by the DemuxDal to the remote DAL and served by its local shadow
// (ownership check on, traces off) against the same unavoidable work done by hand: the two
// helper calls, one map lookup, the ownership query, the environment lookup and the copy
// out of a preallocated shadow entry.
#include "BenchSupport.h"

namespace bench {
namespace {

void demuxDalRead(benchmark::State& state) {
  RoutedEntries e;
  U8 data[RoutedEntries::kSize] = {1, 2, 3, 4, 5, 6, 7, 8};
  e.writeAll(data);
  tracesOff();
  const U64 readsBefore = e.tree.remoteDal->cacheReadHits();
  U32 i = 0;
  for (auto _ : state) {
    const Zorvek::S32 rc =
        e.tree.demux->dalRead(DeviceId(0), e.offsets[i], RoutedEntries::kSize, data, e.optArg(i));
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(data);
    i = (i + 1) % RoutedEntries::kCount;
  }
  if (e.tree.remoteDal->cacheReadHits() - readsBefore != static_cast<U64>(state.iterations()))
    state.SkipWithError("a read was not served by the local shadow");
}

void baselineRead(benchmark::State& state) {
  RoutedEntries e;
  U8 data[RoutedEntries::kSize];
  const std::vector<U8> shadow(std::size_t{RoutedEntries::kCount} * RoutedEntries::kSize, 7);
  tracesOff();
  U32 i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(e.routeByHand(i));
    std::memcpy(data, &shadow[std::size_t{i} * RoutedEntries::kSize], RoutedEntries::kSize);
    benchmark::DoNotOptimize(data);
    benchmark::ClobberMemory();
    i = (i + 1) % RoutedEntries::kCount;
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
