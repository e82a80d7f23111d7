// simtool::Workload: a seeded run of reads, writes and bulk accesses over every resource of
// every device of a simulated switch, made through the DemuxDal the way an agent makes them,
// with restarts of serializers part-way.
//
//   simtool::Workload workload(sw, dal, options);   // throws BadInput
//   workload.run(progress);                           // accesses, restarts, completion
//   simtool::ChipCheck check = simtool::checkChip(sw, workload.written());
//
// Routes: before the first access every resource of every device is routed once through
// dal->dalSelector, so the report counts accesses by the DAL that the DemuxDal itself picks.
// Devices: the DAL's requester DALs write only device 0, so writes and bulk writes go to
// device 0; reads and bulk reads go to any device.
// Bulk writes to a table behind a remote DAL move exactly one entry by default: that DAL's
// local shadow keeps one entry per write, and only what the shadow keeps is replayed after a
// restart (WorkloadOptions::remoteBulkEntries moves more).
// Every access carries the optional argument of its offset; bulk accesses name their buffer
// in it, and the buffers stay alive until the commands that use them have run.
//
// Used from one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Mix.h"
#include "Progress.h"
#include "sim/SimSwitch.h"

namespace simtool {

using sim::DeviceId;
using sim::DeviceOffset;
using sim::S32;
using sim::U32;
using sim::U64;
using sim::U8;

enum class AccessKind { read, write, bulkRead, bulkWrite };
constexpr std::size_t kAccessKinds = 4;
// "read", "write", "bulkRead", "bulkWrite"
const char* accessKindName(AccessKind kind);
using KindCounts = std::array<U64, kAccessKinds>;

struct WorkloadOptions {
  std::string source;  // names the topology in messages
  U64 accesses = 10000;
  // When above 0: accesses are made for that many seconds instead (restarts at restartAt of
  // the time), however many that is.
  U64 seconds = 0;
  U64 seed = 1;
  Mix mix;
  std::vector<std::string> restarts;  // serializer names, restarted in this order
  double restartAt = 0.5;             // fraction of the accesses made before the restarts
  // Entries of a bulk write to a table behind a remote DAL: 1 keeps every write in the shadow;
  // more shows what a restart loses of a bulk write (the shadow keeps its first entry only,
  // unless its DAL keeps every one: localShadowKeepsBulkEntries).
  U32 remoteBulkEntries = 1;
};

// One DAL of the tree and what the workload sent it.
struct Route {
  Kel::Ptr<Zorvek::RequesterDal> dal;
  std::vector<std::string> resources;  // names of the resources it serves, first seen first
  KindCounts accesses{};
};

struct Restart {
  std::string serializer;
  U64 atAccess;         // accesses made before it
  U64 restartCount;     // the serializer's count after it
  U64 replayedEntries;  // writes the remote DALs queued in reply
};

// The last data the agent wrote to one entry, and the bytes of it the agent may write (null:
// every byte).
struct WrittenEntry {
  DeviceId devId;
  const sim::ResourceLayout* layout;
  U32 entry;
  std::vector<U8> data;
  const std::vector<U8>* dataMask;
};
// Keyed by (device, offset of the entry).
using WrittenEntries = std::map<std::pair<unsigned, DeviceOffset>, WrittenEntry>;

// Throws BadInput for a restart of a serializer that the topology does not have.
void checkRestarts(const sim::Topology& topology, const WorkloadOptions& options);

class Workload {
 public:
  // Routes every resource and checks that the options can run on this switch: throws
  // BadInput for a restart of an unknown serializer, or a kind of access in the mix that no
  // resource can take (writes without a device 0, bulk accesses without tables), or an
  // entry larger than the largest access the DAL makes.
  Workload(sim::SimSwitch& sw, Kel::Ptr<Zorvek::DemuxDal> dal, WorkloadOptions options);

  // Makes the accesses, restarts the serializers when their point is reached, then waits
  // until every command has run.
  void run(Progress& progress);
  // Called before each access with the number of accesses made, and once more when they are
  // all made, before the final wait: what the agent's activity loop does between accesses.
  void betweenAccessesIs(std::function<void(U64 made)> between) { between_ = std::move(between); }

  const WorkloadOptions& options() const { return options_; }
  // The default DAL first, then the remote DALs in the order their resources were met.
  const std::vector<Route>& routes() const { return routes_; }
  const std::vector<Restart>& restarts() const { return restartsDone_; }
  const KindCounts& accesses() const { return accesses_; }
  const KindCounts& failedAccesses() const { return failed_; }
  U64 failedAccessCount() const;
  double seconds() const { return seconds_; }
  const WrittenEntries& written() const { return written_; }

 private:
  struct Target {
    DeviceId devId;
    const sim::ResourceLayout* layout;
    std::size_t route;
    const std::vector<U8>* dataMask;  // null: the DAL writes whole entries
  };

  void addTargets(DeviceId devId);
  std::size_t routeOf(const Kel::Ptr<Zorvek::RequesterDal>& dal);
  const std::vector<U8>* dataMaskOf(const sim::ResourceLayout& layout, std::size_t route) const;
  void checkRunnable() const;

  AccessKind nextKind();
  const Target& pick(const std::vector<Target>& targets);
  U32 pickEntry(const Target& t);
  std::vector<U8> randomBytes(std::size_t n);
  S32 access(AccessKind kind);
  S32 read(const Target& t);
  S32 write(const Target& t);
  S32 bulk(const Target& t, AccessKind kind);
  void remember(const Target& t, U32 entry, const U8* data);
  void restartAll(U64 atAccess);
  U64 remoteCommandIndexes() const;
  // Waits for every command queued so far and releases the bulk buffers.
  void settle();

  sim::SimSwitch& sw_;
  std::function<void(U64)> between_;
  Kel::Ptr<Zorvek::DemuxDal> dal_;
  WorkloadOptions options_;
  std::mt19937_64 rng_;
  std::vector<Route> routes_;
  std::vector<Target> readTargets_, writeTargets_, bulkReadTargets_, bulkWriteTargets_;
  std::vector<std::vector<U8>> bulkBuffers_;
  std::vector<Restart> restartsDone_;
  KindCounts accesses_{};
  KindCounts failed_{};
  double seconds_ = 0;
  WrittenEntries written_;
};

}  // namespace simtool
