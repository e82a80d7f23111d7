#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ChipCheck.h"
#include "ChromeTrace.h"
#include "Commands.h"
#include "DalAgentKill.h"
#include "DumpFormat.h"
#include "ExitCode.h"
#include "Interrupt.h"
#include "Kel/ActivityLoop.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "Report.h"
#include "SkorraRedis/RedisBackend.h"
#include "Supervisor.h"
#include "Zorvek/RequesterDalRemote.h"

namespace simtool {

namespace {

constexpr auto kReadyLimit = std::chrono::seconds(20);

// The trace ring file of this process in `dir`: "<name>-<pid>.kwisp".
std::string ringFileOf(const std::string& dir, const std::string& name) {
  return dir + "/" + name + "-" + std::to_string(getpid()) + ".kwisp";
}

sim::Topology loadTopology(const RunOptions& options) {
  if (options.topologyPath.empty()) return sim::Topology::embeddedDefault();
  return sim::Topology::load(options.topologyPath);
}

// Refuses a trace file that cannot be written before anything runs, so that a run is never
// lost for want of its dump.
void checkTraceFile(const std::string& path) {
  if (path.empty()) return;
  std::ofstream probe(path, std::ios::app);
  if (!probe) throw BadInput("--trace-file " + path + ": cannot write the file");
}

void writeTraceFile(const std::string& path, TraceFormat format) {
  if (format == TraceFormat::ring) {
    Kwisp::dump(path);
    return;
  }
  std::ofstream file(path, std::ios::trunc);
  if (!(file << chromeTrace(Kwisp::records())))
    throw std::runtime_error("cannot write the trace to " + path);
}

std::vector<std::string> lastRecords(std::size_t n) {
  std::vector<std::string> records = Kwisp::decode();
  if (records.size() > n) records.erase(records.begin(), records.end() - static_cast<long>(n));
  return records;
}

// Runs the workload through the DAL of `sw`, checks the chip and prints the report.
int runSwitch(const RunOptions& options, sim::SimSwitch& sw, const Kel::Ptr<Zorvek::DemuxDal>& dal,
              Supervisor* supervisor, const DalAgentKill* dalKill, std::ostream& out) {
  Workload workload(sw, dal, options.workload);
  for (const Route& route : workload.routes())
    if (auto remote = Kel::dynamicPtrCast<Zorvek::RequesterDalRemote>(route.dal))
      remote->localShadowKeepsBulkEntriesIs(options.shadowBulkEntries);
  if (supervisor && !options.kills.empty()) {
    std::vector<Supervisor::KillPlan> plans;
    for (const std::string& k : options.kills)
      plans.push_back(Supervisor::killPlan(k, sw.topology()));
    std::vector<Kel::Ptr<Zorvek::Requester>> requesters;
    for (const Route& route : workload.routes()) requesters.push_back(route.dal->requester());
    supervisor->killsIs(plans, options.workload, sw, requesters);
  }
  if (supervisor) workload.betweenAccessesIs([supervisor](U64 made) { supervisor->tick(made); });
  if (dal->ready()) {
    Progress progress(options.workload.accesses,
                      !options.workload.seconds && Progress::wanted(options.workload.accesses));
    workload.run(progress);
    if (supervisor) {
      // The last kills' replays run after the accesses: the check waits for them.
      supervisor->settle();
      for (const sim::DeviceDef& d : sw.topology().devices) dal->waitForCompletion(DeviceId(d.id));
    }
  }
  if (dalKill) {
    // The cold start's frees went to rings that a serializer may open only now: the check
    // waits until each ran.
    supervisor->runUntil(
        [&] {
          return std::ranges::all_of(workload.routes(), [](const Route& route) {
            const auto* q =
                dynamic_cast<const Zorvek::QueueRequester*>(route.dal->requester().ptr());
            return !q || !q->ring() || q->ring()->lastExecutedIndex() + 1 >= q->cmdIndex();
          });
        },
        kReadyLimit);
  }
  RunReport report =
      makeReport(options.workload.source, sw, *dal, workload, checkChip(sw, workload.written()));
  report.shadowBulkEntries = options.shadowBulkEntries;
  if (dalKill) report.dalKill = dalKill->check();
  if (supervisor) {
    report.processes = supervisor->processLines();
    report.kills = supervisor->killLines(report.check);
    report.memory = supervisor->memoryLines();
    for (RequesterLine& r : report.requesters)
      for (const KillLine& k : report.kills)
        if (r.serializer == k.serializer && k.kills)
          r.lostToKills = r.commands - r.executed - r.failed;
  }
  if (options.dump) report.stateDump = formatDump(stateDump(*dal));
  if (options.trace) {
    report.trace = lastRecords(options.traceRecords);
    report.traceRecords = Kwisp::recordCount();
  }
  if (!options.traceFile.empty()) writeTraceFile(options.traceFile, options.traceFormat);

  if (options.json)
    printJson(report, out);
  else
    printText(report, out);
  return report.ok() ? kSuccess : kCheckFailed;
}

int runOnLoop(const RunOptions& options, const sim::Topology& topology, Kel::ActivityLoop& loop,
              std::ostream& out) {
  if (!options.processes) {
    sim::SimSwitch sw(topology);
    return runSwitch(options, sw, sw.buildDal(), nullptr, nullptr, out);
  }
  // The supervisor goes last: the switch withdraws its queues and rings first.
  Supervisor supervisor(topology, options.topologyPath, options.serializerBin, loop,
                        options.traceDir);
  std::optional<DalAgentKill> dalKill;
  RunOptions restarted = options;
  if (options.killDal) {
    dalKill.emplace(topology, supervisor.switchProcesses().chips);
    dalKill->run(options.workload, [&](const std::function<void(U64)>& made) {
      // The DAL's agent in a process of its own: its loop, its state database connection.
      if (!options.traceDir.empty()) Kwisp::ringFileIs(ringFileOf(options.traceDir, "zorvek-sim"));
      Kel::ActivityLoop agentLoop;
      sim::SimSwitch::Processes processes = supervisor.switchProcesses();
      processes.database = Skorra::redisDatabase(supervisor.stateDatabaseUrl(), agentLoop);
      sim::SimSwitch agentSw(topology, processes);
      const Kel::Ptr<Zorvek::DemuxDal> agentDal = agentSw.buildDal();
      while (!agentDal->ready()) agentLoop.runOnce(std::chrono::milliseconds(5));
      Workload workload(agentSw, agentDal, options.workload);
      workload.betweenAccessesIs([&](U64 n) {
        made(n);
        agentLoop.runOnce(std::chrono::milliseconds(0));
      });
      Progress none(0, false);
      workload.run(none);
    });
    // Started again, the agent makes no access: its cold start is what is checked.
    restarted.workload.accesses = 0;
  }
  sim::SimSwitch sw(topology, supervisor.switchProcesses());
  const Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
  // Ready once every serializer process serves its queue; the report says which is not.
  supervisor.runUntil([&] { return dal->ready(); }, kReadyLimit);
  return runSwitch(restarted, sw, dal, &supervisor, dalKill ? &*dalKill : nullptr, out);
}

}  // namespace

int runCommand(RunOptions options, std::ostream& out) {
  const sim::Topology topology = loadTopology(options);
  checkTraceFile(options.traceFile);
  const bool ring = options.trace || !options.traceFile.empty() || !options.traceDir.empty();
  if (ring) {
    Kel::ringLevelsIs("*/0-9");
    Kwisp::clear();
  }
  if (!options.traceDir.empty()) {
    if (!options.processes)
      throw BadInput("--trace-dir " + options.traceDir + ": needs --processes");
    if (!std::filesystem::is_directory(options.traceDir) ||
        access(options.traceDir.c_str(), W_OK) != 0)
      throw BadInput("--trace-dir " + options.traceDir +
                     ": not a directory this process can write");
    Kwisp::ringFileIs(ringFileOf(options.traceDir, "zorvek-sim"));
  }
  options.workload.source =
      options.topologyPath.empty() ? "embedded default" : options.topologyPath;
  checkRestarts(topology, options.workload);
  if (!options.kills.empty() && !options.processes)
    throw BadInput("--kill " + options.kills.front() + ": kills need --processes");
  for (const std::string& k : options.kills) Supervisor::killPlan(k, topology);
  if (options.killDal && !options.processes) throw BadInput("--kill-dal: needs --processes");
  if (options.killDal &&
      (!options.kills.empty() || !options.workload.restarts.empty() || options.workload.seconds))
    throw BadInput("--kill-dal: runs without --kill, --restart and --seconds");

  // The agent's DAL code runs on its activity loop, as in every agent program: here the
  // whole run is one task of it.
  Kel::ActivityLoop loop;
  const InterruptCatcher interrupts;
  int exitCode = kSuccess;
  loop.post([&] {
    exitCode = runOnLoop(options, topology, loop, out);
    loop.stop();
  });
  loop.run();
  return exitCode;
}

}  // namespace simtool
