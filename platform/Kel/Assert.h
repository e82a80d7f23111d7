// Assertions of the framework and of everything built on it. They are on in every build
// (NDEBUG does not remove them): a broken invariant prints the failed expression's text and
// the source location to standard error and aborts the process.
//
//   KEL_ASSERT(targetMask.targets() == 1);         // text is the expression as written
//   KEL_ASSERT_TEXT(ok, "size == entrySizeBytes");   // text given explicitly
#pragma once

#include "Kel/Export.h"

namespace Kel {

// Prints "Assertion failed: <text>, file <file>, line <line>, function <function>" to
// standard error and aborts. Never returns.
[[noreturn]] KEL_EXPORT void assertionFailed(const char* text, const char* file, int line,
                                             const char* function);

}  // namespace Kel

#define KEL_ASSERT_TEXT(cond, text)                               \
  do {                                                            \
    if (!(cond)) [[unlikely]]                                     \
      ::Kel::assertionFailed(text, __FILE__, __LINE__, __func__); \
  } while (0)

#define KEL_ASSERT(cond) KEL_ASSERT_TEXT(cond, #cond)
