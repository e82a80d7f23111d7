// simtool::DalAgentKill: the DAL's own agent killed and started again cold
// (zorvek-sim run --processes --kill-dal).
//
// Before the agent starts, every other agent of the topology owns entries of its serializer's
// tables: every other entry, each filled with bytes of its own. The DAL's agent then runs in a
// child process (its own state database connection, rings and DAL; the chips it maps are
// the run's), makes the workload's accesses, and is killed with SIGKILL at a random access
// (seeded by the workload's seed). zorvek-sim then starts the agent again in its own process
// with a cold start: initLocalCache(device, true) asks every serializer to free what the
// agent owned. check() then finds, in every table a serializer owns, no entry of the agent
// left and every entry another agent still owns as that agent wrote it.
//
//   simtool::DalAgentKill kill(topology, chips);
//   kill.run(workload, [&] { ... the agent's child: build the DAL, run the workload ... });
//   ... build the DAL again (cold) and wait for completion ...
//   DalKillLine line = kill.check();
#pragma once

#include <sys/types.h>

#include <functional>

#include "Report.h"
#include "sim/SimChip.h"
#include "sim/Topology.h"

namespace simtool {

class DalAgentKill {
 public:
  DalAgentKill(const sim::Topology& topology, Kel::Ptr<sim::SimChipSet> chips);

  // Fills the other agents' entries, forks `agent` (handed a function to call before each
  // access with the accesses made), and kills it with SIGKILL once it made a random number of
  // accesses between a quarter and three quarters of `workload.accesses`. Throws
  // std::runtime_error when the child ended by itself first.
  void run(const WorkloadOptions& workload,
           const std::function<void(const std::function<void(U64)>& made)>& agent);
  // What the chips hold now.
  DalKillLine check() const;

 private:
  // The bytes another agent wrote to an entry.
  static std::vector<U8> entryBytes(sim::AgentId agent, U32 entry, U32 size);
  // Calls `visit(chip, layout of a table instance, its serializer's agent)` for every table
  // instance a serializer owns.
  void forEachTable(const std::function<void(sim::SimChip&, const sim::ResourceLayout&,
                                             sim::AgentId)>& visit) const;

  const sim::Topology& topology_;
  Kel::Ptr<sim::SimChipSet> chips_;
  long pid_ = -1;
  U64 killedAt_ = 0;
  U64 ownedAtKill_ = 0;
};

}  // namespace simtool
