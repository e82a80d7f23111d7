// The replay of a remote DAL's local shadow after a serializer restart:
// pushLocalCacheToSerializer over 100,000 entries in use against 100,000 direct requester
// writes of the same entries (same offsets, same data pointers), in two settings:
//   queue: the requester the replay really talks to, a QueueRequester whose queue (1024
//          commands) is drained into a serializer that discards what it runs;
//   index: a requester that only hands out command indexes, so that the ratio shows the
//          replay's own work per entry (a reference: its baseline is a call that does
//          nothing a replay could skip, so it has no goal).
#include "BenchSupport.h"
#include "Orv/WatchList.h"
#include "Zorvek/CacheTable.h"
#include "Zorvek/QueueRequester.h"

namespace bench {
namespace {

constexpr U32 kEntrySize = 16;

class DiscardingSerializer : public Zorvek::QueueConsumer {
 public:
  bool commandExecute(const Zorvek::RequesterQueue&, Zorvek::QueueCommand&) override {
    return true;
  }
};

Kel::Ptr<Zorvek::Requester> makeRequester(bool queue, DiscardingSerializer* serializer) {
  if (!queue) return nullptr;  // the tree's IndexRequester
  const auto requester = Kel::allocate<Zorvek::QueueRequester>(
      "a1-s1-Queue", kMyAgent, 1024, Zorvek::DalId(1),
      Kel::allocate<Zorvek::DalProcessingStatus>(Zorvek::DalId(1)),
      Kel::allocate<Orv::WatchList>(Kel::Name("watchlist")), Zorvek::IoMemType::queueMemory_,
      Kel::allocate<Kel::Dir>(Kel::Name("config")), nullptr, "s1-kick", "Kick-a1-s1-Requester");
  requester->queue()->consumerIs(serializer);
  return requester;
}

// A tree whose host table has every entry in use and eligible for a replay.
struct ReplaySetup {
  DiscardingSerializer serializer;
  DalTree tree;
  std::vector<DeviceOffset> offsets = tree.offsets(kHostTable, kHostEntries);
  std::vector<U8*> data;

  explicit ReplaySetup(bool queue) : tree(makeRequester(queue, &serializer)) {
    const auto args = tree.optArgs(kHostTable, kHostEntries);
    const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
    const U8 entry[kEntrySize] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    for (U32 i = 0; i < kHostEntries; ++i)
      tree.demux->dalWrite(mask, offsets[i], kEntrySize, entry,
                           const_cast<sim::SimOptArg*>(&args[i]));
    const Kel::Ptr<Zorvek::CacheTable> table =
        tree.remoteDal->localCache(Zorvek::CacheTableIndex(DeviceId(0), bench::table(kHostTable)));
    for (DeviceOffset offset : offsets) data.push_back(table->entryDataPtr(offset));
    tracesOff();
  }
  ~ReplaySetup() {
    if (const auto queue = Kel::dynamicPtrCast<Zorvek::QueueRequester>(tree.remoteRequester))
      queue->queue()->consumerIs(nullptr);
  }
};

void replay(benchmark::State& state, bool queue) {
  ReplaySetup s(queue);
  for (auto _ : state) s.tree.remoteDal->pushLocalCacheToSerializer();
  state.SetItemsProcessed(state.iterations() * kHostEntries);
}

void directWrites(benchmark::State& state, bool queue) {
  ReplaySetup s(queue);
  const TargetMask mask = Zorvek::oneDeviceMask(DeviceId(0));
  const PhysicalResourceId rid = table(kHostTable);
  for (auto _ : state) {
    for (U32 i = 0; i < kHostEntries; ++i) {
      const S64 cmdIndex = s.tree.remoteRequester->write(mask, rid, s.offsets[i], s.data[i],
                                                         nullptr, kEntrySize, false);
      benchmark::DoNotOptimize(cmdIndex);
    }
  }
  state.SetItemsProcessed(state.iterations() * kHostEntries);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using bench::directWrites;
  using bench::replay;
  return bench::run(
      argc, argv,
      {{"Replay/queue/directWrites", [](benchmark::State& s) { directWrites(s, true); }},
       {"Replay/queue/pushLocalCache", [](benchmark::State& s) { replay(s, true); }},
       {"Replay/index/directWrites", [](benchmark::State& s) { directWrites(s, false); }},
       {"Replay/index/pushLocalCache", [](benchmark::State& s) { replay(s, false); }}},
      {{"Replay/queue/pushLocalCache", "Replay/queue/directWrites", 1.5, bench::kHostEntries},
       {"Replay/index/pushLocalCache", "Replay/index/directWrites", 0, bench::kHostEntries}});
}
