// simtool::RunReport: what `zorvek-sim run` found, gathered once from the switch, the DAL
// tree and the workload, then printed as text or as JSON.
//
//   simtool::RunReport report = simtool::makeReport(source, sw, *dal, workload, check);
//   simtool::printText(report, std::cout);    // or printJson
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ChipCheck.h"
#include "Workload.h"

namespace simtool {

// One DAL of the tree: the resources routed to it, what the workload sent it and its cache
// statistics.
struct DalLine {
  std::string name;
  bool ready;
  std::vector<std::string> resources;
  KindCounts accesses;
  U64 readHits, readMisses, writeHits, writeMisses;
};

// One requester: the commands it was handed (its running command index), and what became of
// them: for a queue, what its serializer executed and rejected; for the S-channel, what
// completed and what the chip refused. Held back: S-channel commands not issued yet.
struct RequesterLine {
  std::string name;
  std::string serializer;  // "S-channel" for the default DAL's requester
  U64 commands;
  U64 executed;
  U64 failed;
  U64 heldBack;
  // Commands that a killed serializer process never ran (dropped, or discarded by its next
  // process): its replay wrote again what the shadow keeps, and the chip check judges.
  U64 lostToKills = 0;
};

// A process of a run whose serializers are processes: its name (a serializer's, or
// "redis-server"), its pid, and its state when the report was made ("running", "stopped for
// a restart", "exited with status 1"). One that ended by itself fails the run. Processes
// killed by --kill are counted in the kill lines instead.
struct ProcessLine {
  std::string name;
  long pid;
  std::string state;
  bool failed;
};

// What the kills of one serializer came to.
struct KillLine {
  std::string serializer;
  U64 kills = 0;
  U64 replays = 0;                        // restarts the DAL heard, each a replay of its shadow
  U64 replayedEntries = 0;                // writes the replays queued
  std::vector<double> killToReplayMs;     // per kill whose replay ran before the next kill
  U64 lostEntries = 0;                    // entries written whose table lost them (chip check)
  std::vector<std::string> traceFiles{};  // the killed processes' trace rings (--trace-dir)
};

// The resident memory of a process of the run, sampled every second: after the warm-up (the
// first fifth of the samples), at the end, and the highest after the warm-up. The
// serializers' line covers every serializer process, killed ones too (highest only).
struct MemoryLine {
  std::string name;
  U64 afterWarmUpKiB = 0;
  U64 atEndKiB = 0;
  U64 highestKiB = 0;
  bool grew = false;  // kept growing after the warm-up: fails the run
};

// --kill-dal: the DAL's agent killed after `accessesBeforeKill` accesses and started again
// cold. In the serializers' tables: the entries the agent owned when it died (none would
// prove nothing: fails), those it still owns after its cold start (0 passes), and entries
// other agents own, and of those the ones whose bytes changed (0 passes).
struct DalKillLine {
  long pid = -1;
  U64 accessesBeforeKill = 0;
  U64 ownedAtKill = 0;
  U64 leftOwned = 0;
  U64 otherEntries = 0;
  U64 otherEntriesChanged = 0;
};

struct RunReport {
  std::string topology;  // the file, or "embedded default"
  std::size_t devices;
  std::size_t serializers;
  sim::AgentId dalAgent;
  std::string requesterName;
  bool ready;
  WorkloadOptions options;
  KindCounts accesses;
  KindCounts failedAccesses;
  double seconds;
  std::vector<DalLine> dals{};
  std::vector<RequesterLine> requesters{};
  std::vector<Restart> restarts;
  ChipCheck check;
  std::vector<ProcessLine> processes{};  // empty when everything ran in this process
  std::vector<KillLine> kills{};         // per serializer killed by --kill
  bool shadowBulkEntries = false;        // the remote DALs kept every bulk entry
  std::vector<MemoryLine> memory{};      // runs of --processes long enough to sample
  std::optional<DalKillLine> dalKill{};
  std::string stateDump{};           // laid out; empty unless asked for
  std::vector<std::string> trace{};  // decoded ring records; empty unless asked for
  U64 traceRecords = 0;              // records in the ring

  double accessesPerSecond() const;
  // Why the run failed, one line each; empty when everything passed.
  std::vector<std::string> failures() const;
  bool ok() const { return failures().empty(); }
};

// Gathers the report of a run (the workload may not have run, for a DAL that was not
// ready).
RunReport makeReport(const std::string& topology, const sim::SimSwitch& sw,
                     const Zorvek::DemuxDal& dal, const Workload& workload, ChipCheck check);

void printText(const RunReport& report, std::ostream& out);
void printJson(const RunReport& report, std::ostream& out);

}  // namespace simtool
