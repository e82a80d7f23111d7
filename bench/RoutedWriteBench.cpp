// A single write routed by the DemuxDal to the remote DAL of the table's owner (ownership
// check on, traces off, the remote DAL's local shadow updated, the write enqueued) against
// the same unavoidable work done by hand: the two helper calls, one map lookup, the
// ownership query, the environment lookup, the copy into a preallocated shadow entry and
// the requester call.
#include "BenchSupport.h"

namespace bench {
namespace {

void demuxDalWrite(benchmark::State& state) {
  RoutedEntries e;
  U8 data[RoutedEntries::kSize] = {1, 2, 3, 4, 5, 6, 7, 8};
  e.writeAll(data);  // every entry in use, as in the baseline
  tracesOff();
  const U64 commandsBefore = e.tree.remoteRequester->cmdIndex();
  U32 i = 0;
  for (auto _ : state) {
    data[0] = static_cast<U8>(i);
    const Zorvek::S32 rc =
        e.tree.demux->dalWrite(e.mask, e.offsets[i], RoutedEntries::kSize, data, e.optArg(i));
    benchmark::DoNotOptimize(rc);
    i = (i + 1) % RoutedEntries::kCount;
  }
  if (e.tree.remoteRequester->cmdIndex() - commandsBefore != static_cast<U64>(state.iterations()))
    state.SkipWithError("a write did not reach the remote requester");
}

void baselineWrite(benchmark::State& state) {
  RoutedEntries e;
  U8 data[RoutedEntries::kSize] = {1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<U8> shadow(std::size_t{RoutedEntries::kCount} * RoutedEntries::kSize);
  const Kel::Ptr<Zorvek::Requester> requester = e.tree.remoteRequester;
  tracesOff();
  U32 i = 0;
  for (auto _ : state) {
    data[0] = static_cast<U8>(i);
    const PhysicalResourceId rid = e.routeByHand(i);
    std::memcpy(&shadow[std::size_t{i} * RoutedEntries::kSize], data, RoutedEntries::kSize);
    const S64 cmdIndex =
        requester->write(e.mask, rid, e.offsets[i], data, nullptr, RoutedEntries::kSize, false);
    benchmark::DoNotOptimize(cmdIndex);
    benchmark::ClobberMemory();
    i = (i + 1) % RoutedEntries::kCount;
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
