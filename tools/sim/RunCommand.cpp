#include <fstream>
#include <stdexcept>

#include "ChipCheck.h"
#include "ChromeTrace.h"
#include "Commands.h"
#include "DumpFormat.h"
#include "ExitCode.h"
#include "Interrupt.h"
#include "Kel/ActivityLoop.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "Report.h"
#include "Supervisor.h"
#include "Zorvek/RequesterDalRemote.h"

namespace simtool {

namespace {

constexpr auto kReadyLimit = std::chrono::seconds(20);

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
              Supervisor* supervisor, std::ostream& out) {
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
  RunReport report =
      makeReport(options.workload.source, sw, *dal, workload, checkChip(sw, workload.written()));
  report.shadowBulkEntries = options.shadowBulkEntries;
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
    return runSwitch(options, sw, sw.buildDal(), nullptr, out);
  }
  // The supervisor goes last: the switch withdraws its queues and rings first.
  Supervisor supervisor(topology, options.topologyPath, options.serializerBin, loop);
  sim::SimSwitch sw(topology, supervisor.switchProcesses());
  const Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
  // Ready once every serializer process serves its queue; the report says which is not.
  supervisor.runUntil([&] { return dal->ready(); }, kReadyLimit);
  return runSwitch(options, sw, dal, &supervisor, out);
}

}  // namespace

int runCommand(RunOptions options, std::ostream& out) {
  const sim::Topology topology = loadTopology(options);
  checkTraceFile(options.traceFile);
  const bool ring = options.trace || !options.traceFile.empty();
  if (ring) {
    Kel::ringLevelsIs("*/0-9");
    Kwisp::clear();
  }
  options.workload.source =
      options.topologyPath.empty() ? "embedded default" : options.topologyPath;
  checkRestarts(topology, options.workload);
  if (!options.kills.empty() && !options.processes)
    throw BadInput("--kill " + options.kills.front() + ": kills need --processes");
  for (const std::string& k : options.kills) Supervisor::killPlan(k, topology);

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
