// Memory figures of the access path, from the heap itself: a counting operator new keeps the
// usable size of every live block (malloc_usable_size: allocator rounding included, its
// per-block header not).
//
//   local-cache entry: heap and CacheTable::memoryBytes() per entry in use of a local shadow
//                      table of 16-byte entries, everything the table holds included
//                      (goal: entry size + 32 bytes);
//   routed resource:   heap per table resource routed by a DemuxDal to a remote DAL (the
//                      map entry, the readiness reactor, the remote DAL's resource entry),
//                      then per local cache created for it by initLocalCache (empty table),
//                      and per ownership entry of the creator.
// A per-resource figure is the difference between two trees divided by the difference in
// resources, so the fixed costs of a tree drop out.
#include <malloc.h>

#include <cstdio>
#include <new>

#include "BenchSupport.h"
#include "Zorvek/CacheTable.h"

namespace {

std::size_t liveBytes = 0;

}  // namespace

void* operator new(std::size_t n) {
  void* p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  liveBytes += malloc_usable_size(p);
  return p;
}
void operator delete(void* p) noexcept {
  if (!p) return;
  liveBytes -= malloc_usable_size(p);
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

namespace bench {
namespace {

constexpr U32 kEntrySize = 16;

struct CacheFigures {
  double heap;
  double memoryBytes;
};

CacheFigures cacheTableBytes(U32 entries) {
  const std::size_t before = liveBytes;
  const auto table = Kel::allocate<Zorvek::CacheTable>(
      kMyAgent, Zorvek::CacheTableIndex(DeviceId(0), bench::table(kHostTable)), entries,
      kEntrySize);
  for (U32 i = 0; i < entries; ++i) table->entryIs(i * kEntrySize, table->initialEntryData(), true);
  return {double(liveBytes - before), double(table->memoryBytes())};
}

struct TreeFigures {
  std::size_t routing;  // map, DALs, DemuxDal, routes
  std::size_t caches;   // the local caches initLocalCache creates
  std::size_t creator;  // the creator's ownership entries
};

// A DemuxDal routing `tables` tables of 64 entries to one remote DAL.
TreeFigures treeBytes(U32 tables) {
  std::vector<sim::TableDef> defs;
  for (U32 t = 0; t < tables; ++t)
    defs.push_back({Kel::Name("t"), 0x1000 + t, 8, 8, 64, 1, true, false});
  const auto geometry =
      Kel::allocate<sim::Geometry>(Kel::Name("memChip"), defs, std::vector<sim::RegisterDef>{});
  const auto helper = Kel::allocate<sim::SimDalHelper>();
  helper->deviceIs(DeviceId(0), geometry);
  const auto remoteRequester = Kel::allocate<IndexRequester>(kMyAgent, Zorvek::DalId(1));
  const auto defaultRequester = Kel::allocate<IndexRequester>(kMyAgent, Zorvek::DalId(0));

  TreeFigures f{};
  std::size_t mark = liveBytes;
  const auto creator = Zorvek::demuxDalCreatorFactory(kMyAgent, nullptr, "");
  creator->serializerInfoIs(Zorvek::SerializerId(1))->agentIdIs(kRemoteAgent);
  for (U32 t = 0; t < tables; ++t) {
    const Zorvek::LogicalResourceId logical(ResourceType::tableResource_, 0x1000 + t);
    creator->serializerIdMapIs(logical, Zorvek::SerializerId(1));
    creator->physicalToLogicalResourceMapIs(table(0x1000 + t), logical);
  }
  f.creator = liveBytes - mark;

  mark = liveBytes;
  const auto map = Zorvek::resourceIdToDalMapFactory();
  const auto remoteDal =
      Zorvek::requesterDalRemoteFactory(Kel::Name("remote"), remoteRequester, nullptr);
  for (U32 t = 0; t < tables; ++t) {
    map->dalIs(table(0x1000 + t), remoteDal);
    remoteDal->remoteResourceIs(table(0x1000 + t), true);
  }
  const auto defaultDal =
      Zorvek::requesterDalRemoteFactory(Kel::Name("default"), defaultRequester, nullptr);
  const auto demux =
      Zorvek::demuxDalFactory(Kel::Name("demuxDal"), creator, defaultDal, map, nullptr);
  demux->helperIs(helper);
  f.routing = liveBytes - mark;

  mark = liveBytes;
  demux->initLocalCache(DeviceId(0), false);
  f.caches = liveBytes - mark;
  return f;
}

void report(const char* what, double bytes, double goal) {
  if (goal > 0)
    std::printf("memory %s = %.1f bytes (goal <= %.1f: %s)\n", what, bytes, goal,
                bytes <= goal ? "met" : "MISSED");
  else
    std::printf("memory %s = %.1f bytes\n", what, bytes);
}

}  // namespace
}  // namespace bench

int main() {
  using namespace bench;
  treeBytes(1);  // trace handles and other one-time statics are allocated here, not below
  tracesOff();
  for (U32 entries : {1000u, 100000u}) {
    const CacheFigures f = cacheTableBytes(entries);
    const std::string name = "localCacheEntry/" + std::to_string(entries) + "entries";
    report((name + "/heap").c_str(), f.heap / entries, kEntrySize + 32);
    report((name + "/memoryBytes").c_str(), f.memoryBytes / entries, kEntrySize + 32);
  }
  const TreeFigures few = treeBytes(100);
  const TreeFigures many = treeBytes(400);
  report("routedResource/route", double(many.routing - few.routing) / 300, 0);
  report("routedResource/localCache", double(many.caches - few.caches) / 300, 0);
  report("routedResource/creatorOwnership", double(many.creator - few.creator) / 300, 0);
  return 0;
}
