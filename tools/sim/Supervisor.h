// simtool::Supervisor: the processes of `zorvek-sim run --processes`. It starts a private
// redis-server (the switch's state database), creates the chips in shared memory, names the
// command rings of this process's requesters, and starts one zorvek-serializer per
// serializer of the topology; this process is the DAL's agent. Everything it started goes
// with it, on every way out of the run: the serializers are stopped (SIGTERM, then SIGKILL),
// redis-server is stopped and its directory removed, and every shared-memory segment named
// after this process is unlinked.
//
//   simtool::Supervisor supervisor(topology, options.topologyPath, options.serializerBin, loop);
//   sim::SimSwitch sw(topology, supervisor.switchProcesses());
//   ... sw.restart("l2ser") ...            // a new process, the replay heard, the count back
//   report.processes = supervisor.processLines();
//
// Kills: killsIs() plans SIGKILLs of serializers at random accesses of the workload (seeded);
// tick(), called between accesses, makes those due, starts a new process at once, and turns
// the activity loop so that the DAL hears each restart and replays; it times each kill until
// its replay has run. settle() waits, after the workload, for the last replays.
//
// Used from the loop's thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ChildProcess.h"
#include "ChipCheck.h"
#include "Kel/ActivityLoop.h"
#include "Report.h"
#include "SkorraRedis/RedisServer.h"
#include "Zorvek/QueueRequester.h"
#include "sim/ChipSegment.h"
#include "sim/SimSwitch.h"

namespace simtool {

class Supervisor {
 public:
  // "NAME[:COUNT]" of --kill; throws BadInput naming the flag.
  struct KillPlan {
    std::string serializer;
    U64 count;
  };
  static KillPlan killPlan(const std::string& text, const sim::Topology& topology);

  // Throws BadInput when redis-server or the serializer program cannot be found (an empty
  // `serializerBin` looks for zorvek-serializer next to this program, then on the PATH), and
  // std::runtime_error when a process does not start.
  // With a `traceDir`, every serializer process keeps its trace ring in a file there
  // ("<name>-<pid>.kwisp"), which outlives its kill.
  Supervisor(const sim::Topology& topology, std::string topologyPath, std::string serializerBin,
             Kel::ActivityLoop& loop, std::string traceDir = {});
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // The URL of the run's state database.
  std::string stateDatabaseUrl() const { return redis_->url(); }
  // What the switch of this process shares with the serializers, and how it restarts one.
  sim::SimSwitch::Processes switchProcesses();
  // Stops the serializer's process, starts a new one (cold), and turns the loop until this
  // process heard of its new restart count, which it returns.
  sim::U64 restart(std::string_view name);
  // Turns the loop until `done()` holds or `limit` passes; returns done(). Throws
  // std::runtime_error when a serializer process ended by itself meanwhile.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
  // Every process started, those replaced by a restart first.
  std::vector<ProcessLine> processLines();

  // Plans the kills over the workload's accesses (or its seconds, for a timed one); follows
  // the requesters of the switch's DAL.
  void killsIs(const std::vector<KillPlan>& plans, const WorkloadOptions& workload,
               const sim::SimSwitch& sw,
               const std::vector<Kel::Ptr<Zorvek::Requester>>& requesters);
  // Between accesses: the kills due, a turn of the loop, a memory sample every second.
  void tick(U64 made);
  // Turns the loop until every killed serializer's last replay has run. Throws
  // std::runtime_error when one has not within the limit.
  void settle();
  // Per serializer killed, with the entries the chip check found lost in its tables.
  std::vector<KillLine> killLines(const ChipCheck& check) const;
  // zorvek-sim, redis-server and the serializers, once there are enough samples to tell.
  std::vector<MemoryLine> memoryLines() const;

 private:
  struct Serializer {
    const sim::SerializerDef* def;
    std::unique_ptr<ChildProcess> process;
  };
  // A serializer whose process the run kills, and the requester that follows it.
  struct Followed {
    Serializer* serializer;
    Kel::Ptr<Zorvek::QueueRequester> requester;
    KillLine line;
    std::optional<std::chrono::steady_clock::time_point> killedAt;  // replay not run yet
    U64 replayEnd = 0;  // the last command of the replay heard since, 0 before one
  };
  void start(Serializer& s);
  void kill(Followed& f);
  // One turn of the loop, which brings restarts and the replays they set off.
  void turn();
  void sampleMemory();
  sim::U64 restartCount(const sim::SerializerDef& def) const;
  void checkProcesses();

  const sim::Topology& topology_;
  std::string topologyPath_;
  std::string serializerBin_;
  Kel::ActivityLoop& loop_;
  std::string traceDir_;
  std::string prefix_;  // of every shared-memory segment of the run
  std::unique_ptr<Skorra::RedisServer> redis_;
  Kel::Ptr<Skorra::Database> database_;
  std::optional<sim::ChipSegment> chips_;
  std::vector<Serializer> serializers_;
  std::vector<ProcessLine> replaced_;
  std::vector<Followed> followed_;
  // (access, or microseconds into a timed run; followed), in order.
  std::vector<std::pair<U64, std::size_t>> killPoints_;
  std::size_t nextKill_ = 0;
  bool timed_ = false;
  std::optional<std::chrono::steady_clock::time_point> started_;  // at the first tick
  std::chrono::steady_clock::time_point nextSample_;
  std::vector<U64> selfKiB_, redisKiB_;
  U64 serializersKiB_ = 0;
};

}  // namespace simtool
