#include "Commands.h"

#include <fstream>
#include <iterator>

#include "ChromeTrace.h"
#include "ExitCode.h"
#include "Kwisp/Kwisp.h"
#include "sim/Topology.h"

namespace simtool {

int topologyCommand(std::ostream& out) {
  out << sim::Topology::embeddedDefault().toJson();
  return kSuccess;
}

int checkCommand(const std::string& path, std::ostream& out, std::ostream& err) {
  try {
    sim::Topology::load(path);
  } catch (const sim::TopologyError& e) {
    err << e.what() << "\n";
    return kCheckFailed;
  }
  out << path << ": ok\n";
  return kSuccess;
}

int traceCommand(const std::string& path, TraceFormat format, std::ostream& out) {
  std::vector<Kwisp::Record> records;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw BadInput(path + ": cannot read the file");
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  try {
    records = Kwisp::decodeRecords(bytes);
  } catch (const Kwisp::DecodeError& e) {
    throw BadInput(path + ": not a dumped trace ring: " + e.what());
  }
  if (format == TraceFormat::chrome) {
    out << chromeTrace(records);
  } else {
    for (const Kwisp::Record& r : records) out << Kwisp::lineOf(r) << "\n";
  }
  return kSuccess;
}

}  // namespace simtool
