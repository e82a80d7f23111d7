#include "Kel/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kel {

void assertionFailed(const char* text, const char* file, int line, const char* function) {
  std::fprintf(stderr, "Assertion failed: %s, file %s, line %d, function %s\n", text, file, line,
               function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kel
