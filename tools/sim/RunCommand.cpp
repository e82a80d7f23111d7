#include <fstream>
#include <stdexcept>

#include "ChipCheck.h"
#include "ChromeTrace.h"
#include "Commands.h"
#include "DumpFormat.h"
#include "ExitCode.h"
#include "Kel/ActivityLoop.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "Report.h"

namespace simtool {

namespace {

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

int runOnLoop(const RunOptions& options, const sim::Topology& topology, std::ostream& out) {
  sim::SimSwitch sw(topology);
  const Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();
  Workload workload(sw, dal, options.workload);
  if (dal->ready()) {
    Progress progress(options.workload.accesses, Progress::wanted(options.workload.accesses));
    workload.run(progress);
  }
  RunReport report =
      makeReport(options.workload.source, sw, *dal, workload, checkChip(sw, workload.written()));
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

  // The agent's DAL code runs on its activity loop, as in every agent program: here the
  // whole run is one task of it.
  Kel::ActivityLoop loop;
  int exitCode = kSuccess;
  loop.post([&] {
    exitCode = runOnLoop(options, topology, out);
    loop.stop();
  });
  loop.run();
  return exitCode;
}

}  // namespace simtool
