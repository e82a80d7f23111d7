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
// Used from the loop's thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ChildProcess.h"
#include "Kel/ActivityLoop.h"
#include "Report.h"
#include "SkorraRedis/RedisServer.h"
#include "sim/ChipSegment.h"
#include "sim/SimSwitch.h"

namespace simtool {

class Supervisor {
 public:
  // Throws BadInput when redis-server or the serializer program cannot be found (an empty
  // `serializerBin` looks for zorvek-serializer next to this program, then on the PATH), and
  // std::runtime_error when a process does not start.
  Supervisor(const sim::Topology& topology, std::string topologyPath, std::string serializerBin,
             Kel::ActivityLoop& loop);
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

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

 private:
  struct Serializer {
    const sim::SerializerDef* def;
    std::unique_ptr<ChildProcess> process;
  };
  void start(Serializer& s);
  sim::U64 restartCount(const sim::SerializerDef& def) const;
  void checkProcesses();

  const sim::Topology& topology_;
  std::string topologyPath_;
  std::string serializerBin_;
  Kel::ActivityLoop& loop_;
  std::string prefix_;  // of every shared-memory segment of the run
  std::unique_ptr<Skorra::RedisServer> redis_;
  Kel::Ptr<Skorra::Database> database_;
  std::optional<sim::ChipSegment> chips_;
  std::vector<Serializer> serializers_;
  std::vector<ProcessLine> replaced_;
};

}  // namespace simtool
