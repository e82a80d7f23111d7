#include "Mix.h"

#include <charconv>

namespace simtool {

std::string Mix::text() const {
  return std::to_string(read) + ":" + std::to_string(write) + ":" + std::to_string(bulk);
}

std::optional<Mix> parseMix(std::string_view text) {
  unsigned weights[3];
  const char* p = text.data();
  const char* end = text.data() + text.size();
  for (int k = 0; k < 3; ++k) {
    if (k > 0 && (p == end || *p++ != ':')) return std::nullopt;
    const auto [next, ec] = std::from_chars(p, end, weights[k]);
    if (ec != std::errc() || next == p) return std::nullopt;
    p = next;
  }
  const Mix mix{weights[0], weights[1], weights[2]};
  if (p != end || mix.total() == 0) return std::nullopt;
  return mix;
}

}  // namespace simtool
