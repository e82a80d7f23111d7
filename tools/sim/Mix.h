// simtool::Mix: how a workload divides its accesses between reads, writes and bulk
// accesses, written "read:write:bulk" as relative weights ("30:60:10", "1:1:0").
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace simtool {

struct Mix {
  unsigned read = 30;
  unsigned write = 60;
  unsigned bulk = 10;  // half bulk reads, half bulk writes

  std::uint64_t total() const { return std::uint64_t{read} + write + bulk; }
  // "30:60:10"
  std::string text() const;
};

// The mix written as three whole numbers separated by ':' with a sum above 0; nothing for
// any other text.
std::optional<Mix> parseMix(std::string_view text);

}  // namespace simtool
