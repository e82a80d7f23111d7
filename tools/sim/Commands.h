// The commands of zorvek-sim. Each returns the process's exit code (ExitCode.h) and writes
// its result to `out`; input it cannot use is thrown as BadInput or sim::TopologyError
// before anything runs, and Main turns that into one message and exit code 2.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "Workload.h"

namespace simtool {

// How trace records are written out: the binary ring as dumped (decoded later by `trace`),
// one decoded line each, or a trace-event JSON document for a viewer (ChromeTrace.h).
enum class TraceFormat { ring, text, chrome };

struct RunOptions {
  std::string topologyPath;  // empty: the embedded default
  WorkloadOptions workload;
  bool dump = false;
  bool trace = false;                           // print the decoded ring after the report
  std::size_t traceRecords = 40;                // how many of its last records
  std::string traceFile;                        // where to dump the ring; empty: nowhere
  TraceFormat traceFormat = TraceFormat::ring;  // of traceFile: ring or chrome
  bool json = false;
  bool shadowBulkEntries = false;  // every remote DAL's localShadowKeepsBulkEntries
  // Every serializer in a zorvek-serializer process of its own, sharing a private
  // redis-server and the chips in shared memory with this process, the DAL's agent.
  bool processes = false;
  std::string serializerBin;       // empty: zorvek-serializer next to zorvek-sim, or on the PATH
  std::vector<std::string> kills;  // --kill NAME[:COUNT], with --processes
  // With --processes: every process keeps its trace ring in a file there, which outlives
  // a kill ("<name>-<pid>.kwisp"; zorvek-sim trace decodes it).
  std::string traceDir;
  bool killDal = false;  // the DAL's agent in a child, killed, started again cold
};

// Builds the switch and its DAL, runs the workload and checks the chip; see RunOptions.
int runCommand(RunOptions options, std::ostream& out);
// Prints the embedded default topology as JSON.
int topologyCommand(std::ostream& out);
// Prints "FILE: ok" for a usable topology file (exit 0), the error otherwise (exit 1).
int checkCommand(const std::string& path, std::ostream& out, std::ostream& err);
// Prints the records of a ring dumped to a file, as text lines or as trace-event JSON.
int traceCommand(const std::string& path, TraceFormat format, std::ostream& out);

}  // namespace simtool
