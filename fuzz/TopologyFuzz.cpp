// The topology file (sim::Topology::parse). Rejections are sim::TopologyError only; an
// accepted topology prints as JSON that parses back to an equal topology.
#include <optional>

#include "fuzz/Fuzz.h"
#include "sim/Topology.h"

namespace {

std::optional<sim::Topology> parse(std::string_view json, const std::string& source) {
  try {
    return sim::Topology::parse(json, source);
  } catch (const sim::TopologyError&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const auto topology = parse(fuzz::text(data, size), "fuzz");
  if (!topology) return 0;
  fuzz::require(parse(topology->toJson(), "printed") == topology,
                "the printed topology parses back to an equal topology");
  return 0;
}
