// zorvek-sim: runs the Zorvek DAL of an agent on a simulated switch. See `zorvek-sim --help`
// and the README's section on the simulator.
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "ExitCode.h"
#include "Interrupt.h"
#include "sim/Topology.h"

namespace {

using namespace simtool;

const CLI::Validator kMixValidator(
    [](const std::string& text) {
      return parseMix(text) ? std::string()
                            : "expected read:write:bulk, three whole numbers with a sum above "
                              "0, e.g. 30:60:10";
    },
    "READ:WRITE:BULK", "mix");

// The values of a format flag and what each means; the flag refuses any other.
using FormatNames = std::map<std::string, TraceFormat>;
const FormatNames kRunTraceFormats{{"ring", TraceFormat::ring}, {"chrome", TraceFormat::chrome}};
const FormatNames kTraceFormats{{"text", TraceFormat::text}, {"chrome", TraceFormat::chrome}};

CLI::Option* addFormatOption(CLI::App& app, const std::string& flag, std::string& value,
                             const FormatNames& names, const std::string& help) {
  std::vector<std::string> allowed;
  for (const auto& [name, format] : names) allowed.push_back(name);
  return app.add_option(flag, value, help)->check(CLI::IsMember(allowed))->capture_default_str();
}

void addRunOptions(CLI::App& run, RunOptions& o, std::string& mix, std::string& traceFormat) {
  run.add_option("--topology", o.topologyPath,
                 "Topology JSON file (default: the embedded default; see `topology`)");
  // Unsigned options would take "-5" as a huge count: negative numbers are refused first.
  run.add_option("--accesses", o.workload.accesses, "Accesses the workload makes")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  run.add_option("--seed", o.workload.seed, "Seed of the workload")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  run.add_option("--mix", mix, "Weights of reads, writes and bulk accesses")
      ->check(kMixValidator)
      ->capture_default_str();
  run.add_option("--restart", o.workload.restarts,
                 "Restart this serializer part-way; repeat for several")
      ->expected(1)
      ->take_all();
  run.add_option("--seconds", o.workload.seconds,
                 "Make accesses for that many seconds instead of --accesses (kills and restarts "
                 "spread over the time)");
  run.add_option("--remote-bulk-entries", o.workload.remoteBulkEntries,
                 "Entries of each bulk write to a table behind a remote DAL (its shadow keeps "
                 "the first only, unless --shadow-bulk-entries)")
      ->check(CLI::Range(1u, 64u))
      ->capture_default_str();
  run.add_flag("--shadow-bulk-entries", o.shadowBulkEntries,
               "Let the remote DALs' local shadows keep every entry of a bulk write, so that a "
               "restart replays them all");
  run.add_option("--restart-at", o.workload.restartAt,
                 "Fraction of the accesses made before the restarts")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  run.add_flag("--dump", o.dump, "Print the DemuxDal state dump after the report");
  run.add_flag("--trace", o.trace,
               "Record every trace point in the ring and print its last records after the report");
  run.add_option("--trace-records", o.traceRecords, "How many ring records --trace prints")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  run.add_option("--trace-file", o.traceFile,
                 "Record every trace point in the ring and dump the ring to this file "
                 "(decode it with `trace`)");
  addFormatOption(run, "--trace-format", traceFormat, kRunTraceFormats,
                  "What --trace-file holds: the dumped ring, or trace-event JSON for Perfetto's "
                  "UI or chrome://tracing");
  run.add_flag("--json", o.json, "Print the report as JSON");
  run.add_flag("--processes", o.processes,
               "Run every serializer as a zorvek-serializer process, with a private "
               "redis-server as the state database and the chips in shared memory");
  run.add_option("--kill", o.kills,
                 "With --processes: kill that serializer's process with SIGKILL COUNT times "
                 "(default 1) at random accesses (seeded by --seed), a new one started each time")
      ->type_name("NAME[:COUNT]");
  run.add_option("--trace-dir", o.traceDir,
                 "With --processes: keep every process's trace ring, every level on, in a file "
                 "in this directory (<name>-<pid>.kwisp), which outlives a kill; decode one "
                 "with zorvek-sim trace");
  run.add_flag("--kill-dal", o.killDal,
               "With --processes: run the DAL's agent in a child process, kill it with SIGKILL "
               "at a random access and start it again cold; check that the serializers freed "
               "its entries and kept the other agents' ones");
  run.add_option("--serializer-bin", o.serializerBin,
                 "The zorvek-serializer program of --processes (default: the one next to "
                 "zorvek-sim, else on the PATH)");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Runs the Zorvek DAL of an agent on a simulated switch.", "zorvek-sim"};
  app.require_subcommand(1);

  RunOptions runOptions;
  std::string mix = runOptions.workload.mix.text();
  std::string runTraceFormat = "ring";
  CLI::App* run = app.add_subcommand(
      "run", "Build the switch and the DAL, run a workload, restart serializers, check the chip");
  addRunOptions(*run, runOptions, mix, runTraceFormat);
  CLI::App* topology =
      app.add_subcommand("topology", "Print the embedded default topology as JSON");
  std::string file;
  CLI::App* check = app.add_subcommand("check", "Check a topology file");
  check->add_option("FILE", file, "Topology JSON file")->required();
  CLI::App* trace = app.add_subcommand("trace", "Decode a trace ring dumped by run --trace-file");
  trace->add_option("FILE", file, "Dumped ring")->required();
  std::string traceFormat = "text";
  addFormatOption(*trace, "--format", traceFormat, kTraceFormats,
                  "Decoded lines, or trace-event JSON for Perfetto's UI or chrome://tracing");

  CLI11_PARSE(app, argc, argv);

  try {
    if (*run) {
      runOptions.workload.mix = *parseMix(mix);
      runOptions.traceFormat = kRunTraceFormats.at(runTraceFormat);
      return runCommand(runOptions, std::cout);
    }
    if (*topology) return topologyCommand(std::cout);
    if (*check) return checkCommand(file, std::cout, std::cerr);
    if (*trace) return traceCommand(file, kTraceFormats.at(traceFormat), std::cout);
  } catch (const sim::TopologyError& e) {
    std::cerr << "zorvek-sim: " << e.what() << "\n";
    return kBadInput;
  } catch (const BadInput& e) {
    std::cerr << "zorvek-sim: " << e.what() << "\n";
    return kBadInput;
  } catch (const Interrupted&) {
    std::cerr << "zorvek-sim: interrupted; everything the run started is stopped\n";
    return kInterrupted;
  } catch (const std::exception& e) {
    std::cerr << "zorvek-sim: " << e.what() << "\n";
    return kRunFailed;
  }
  return kSuccess;
}
