// Named trace handles with levels 0-9, and the framework's text trace sink.
//
// Each handle has two level masks: the text levels (enabled(level): the text sink, with
// source file, line and function) and the ring levels (ringEnabled(level): the binary ring
// buffer of Kwisp). Both are set from the environment when the handle is created and can be
// changed by code at any time:
//
//   KEL_TRACE=ZorvekDemuxDal/0-9,ZorvekRequesterDal/8    text levels ("*" names every handle,
//   KWISP_TRACE=*/0-3                                      a bare name means levels 0-9)
//   KEL_TRACE_FILE=/tmp/trace.txt                          text sink file (default: stderr)
//
// Trace points are written with DUWISP_TRACE (Duwisp/Duwisp.h). A disabled level costs one
// test of a bit in the handle: no formatting, no allocation.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/Export.h"

namespace Kel {

constexpr unsigned kTraceLevels = 10;
constexpr std::uint32_t kAllTraceLevels = (1u << kTraceLevels) - 1;

class KEL_EXPORT TraceHandle {
 public:
  // Creates and registers the handle; the levels come from KEL_TRACE / KWISP_TRACE and from
  // any setting applied earlier with traceLevelsIs / ringLevelsIs.
  explicit TraceHandle(std::string name);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& name() const { return name_; }
  bool enabled(unsigned level) const noexcept { return (text_ >> level) & 1u; }
  bool ringEnabled(unsigned level) const noexcept { return (ring_ >> level) & 1u; }
  bool anyEnabled(unsigned level) const noexcept { return ((text_ | ring_) >> level) & 1u; }

  std::uint32_t levels() const { return text_; }
  void levelsIs(std::uint32_t mask) { text_ = mask & kAllTraceLevels; }
  std::uint32_t ringLevels() const { return ring_; }
  void ringLevelsIs(std::uint32_t mask) { ring_ = mask & kAllTraceLevels; }

 private:
  std::string name_;
  std::uint32_t text_ = 0;
  std::uint32_t ring_ = 0;
};

// Defines th(), the trace handle of a source file, named `name` and created on first use, so
// that a trace point run while the program is still loading finds it made. Written once per
// file, in its unnamed namespace:
//
//   namespace {
//   KEL_FILE_TRACE_HANDLE("ZorvekDemuxDal")
//   }
#define KEL_FILE_TRACE_HANDLE(name)    \
  ::Kel::TraceHandle& th() {           \
    static ::Kel::TraceHandle h(name); \
    return h;                          \
  }

// The registered handle of that name, or null.
KEL_EXPORT TraceHandle* traceHandle(std::string_view name);

// Applies a level setting ("Name/0-9,Other/8,*/3") to the text (or ring) levels of every
// handle it names, now and for handles created later. Throws std::invalid_argument on a
// malformed setting.
KEL_EXPORT void traceLevelsIs(std::string_view setting);
KEL_EXPORT void ringLevelsIs(std::string_view setting);
// Parses the level part of a setting entry ("3", "0-9") into a mask; throws on bad input.
KEL_EXPORT std::uint32_t parseTraceLevels(std::string_view levels);

// Where the text sink writes: a file (appended), or standard error for an empty path.
KEL_EXPORT void traceFileIs(const std::string& path);

// Writes one text trace line: "<handle>/<level> <file>:<line> <function>: <message>".
KEL_EXPORT void traceText(const TraceHandle& handle, unsigned level, const char* file, int line,
                          const char* function, std::string_view message);

struct TraceRecord {
  std::string handle;
  unsigned level;
  std::string file;
  int line;
  std::string function;
  std::string message;
};

// While alive, captures every text trace line (they are not written to the sink). Used by
// tests to assert a message; captures nest (the innermost one receives the records).
class KEL_EXPORT TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<TraceRecord>& records() const { return records_; }
  // The messages captured, optionally only those of one handle.
  std::vector<std::string> messages(std::string_view handle = {}) const;
  bool contains(std::string_view text) const;
  void clear() { records_.clear(); }

 private:
  friend void traceText(const TraceHandle&, unsigned, const char*, int, const char*,
                        std::string_view);
  std::vector<TraceRecord> records_;
  TraceCapture* outer_;
};

}  // namespace Kel
