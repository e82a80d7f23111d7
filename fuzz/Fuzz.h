// Shared by the libFuzzer targets of this folder: each target feeds its input to one text
// parser, accepts only the parser's documented exception type as a rejection (any other
// exception escapes and libFuzzer reports it as a crash), and checks what an accepted input
// must satisfy with require().
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzz {

// Aborts (a crash libFuzzer records with its input) when a property of a parse is broken.
inline void require(bool ok, const char* property) {
  if (ok) return;
  std::fprintf(stderr, "fuzz property broken: %s\n", property);
  std::abort();
}

inline std::string_view text(const unsigned char* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace fuzz
