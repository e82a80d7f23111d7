#include "Kel/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

namespace Kel {

namespace {

struct LevelEntry {
  std::string name;  // "*" for every handle
  std::uint32_t mask;
};

struct TraceState {
  std::mutex mutex;
  std::vector<TraceHandle*> handles;
  std::vector<LevelEntry> textLevels;
  std::vector<LevelEntry> ringLevels;
  bool envRead = false;
  FILE* file = nullptr;  // null: stderr
  TraceCapture* capture = nullptr;
};

TraceState& state() {
  static TraceState* s = new TraceState;  // outlives every static handle
  return *s;
}

std::vector<LevelEntry> parseLevels(std::string_view setting) {
  std::vector<LevelEntry> out;
  while (!setting.empty()) {
    const std::size_t comma = setting.find(',');
    std::string_view entry = setting.substr(0, comma);
    setting = comma == std::string_view::npos ? std::string_view() : setting.substr(comma + 1);
    if (entry.empty()) continue;
    const std::size_t slash = entry.find('/');
    std::string_view name = entry.substr(0, slash);
    if (name.empty()) throw std::invalid_argument("trace level entry without a handle name");
    const std::uint32_t mask = slash == std::string_view::npos
                                   ? kAllTraceLevels
                                   : parseTraceLevels(entry.substr(slash + 1));
    out.push_back({std::string(name), mask});
  }
  return out;
}

std::uint32_t maskFor(const std::vector<LevelEntry>& setting, const std::string& name) {
  std::uint32_t mask = 0;
  for (const LevelEntry& e : setting)
    if (e.name == "*" || e.name == name) mask |= e.mask;
  return mask;
}

// Reads KEL_TRACE and KWISP_TRACE once, when the first handle is created. A malformed
// variable is reported and ignored: tracing must never stop an agent from starting.
void readEnvironment(TraceState& s) {
  if (s.envRead) return;
  s.envRead = true;
  auto load = [](const char* var, std::vector<LevelEntry>& into) {
    const char* v = std::getenv(var);
    if (!v) return;
    try {
      auto entries = parseLevels(v);
      into.insert(into.end(), entries.begin(), entries.end());
    } catch (const std::invalid_argument& e) {
      std::fprintf(stderr, "%s ignored: %s\n", var, e.what());
    }
  };
  load("KEL_TRACE", s.textLevels);
  load("KWISP_TRACE", s.ringLevels);
  if (const char* f = std::getenv("KEL_TRACE_FILE"); f && *f) s.file = std::fopen(f, "a");
}

void applyLevels(std::string_view setting, bool ring) {
  auto entries = parseLevels(setting);
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  readEnvironment(s);
  auto& stored = ring ? s.ringLevels : s.textLevels;
  stored.insert(stored.end(), entries.begin(), entries.end());
  for (TraceHandle* h : s.handles) {
    const std::uint32_t mask = maskFor(entries, h->name());
    if (!mask) continue;
    if (ring)
      h->ringLevelsIs(h->ringLevels() | mask);
    else
      h->levelsIs(h->levels() | mask);
  }
}

const char* baseName(const char* path) {
  const char* b = path;
  for (const char* p = path; *p; ++p)
    if (*p == '/') b = p + 1;
  return b;
}

}  // namespace

std::uint32_t parseTraceLevels(std::string_view levels) {
  auto digit = [&](char c) {
    if (c < '0' || c > '9')
      throw std::invalid_argument("bad trace level in '" + std::string(levels) + "'");
    return static_cast<unsigned>(c - '0');
  };
  if (levels.size() == 1) return 1u << digit(levels[0]);
  if (levels.size() == 3 && levels[1] == '-') {
    const unsigned lo = digit(levels[0]), hi = digit(levels[2]);
    if (lo > hi)
      throw std::invalid_argument("empty trace level range '" + std::string(levels) + "'");
    return ((1u << (hi + 1)) - 1) & ~((1u << lo) - 1);
  }
  throw std::invalid_argument("bad trace levels '" + std::string(levels) + "' (want N or N-M)");
}

TraceHandle::TraceHandle(std::string name) : name_(std::move(name)) {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  readEnvironment(s);
  text_ = maskFor(s.textLevels, name_);
  ring_ = maskFor(s.ringLevels, name_);
  s.handles.push_back(this);
}

TraceHandle::~TraceHandle() {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  std::erase(s.handles, this);
}

TraceHandle* traceHandle(std::string_view name) {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  for (TraceHandle* h : s.handles)
    if (h->name() == name) return h;
  return nullptr;
}

void traceLevelsIs(std::string_view setting) { applyLevels(setting, false); }
void ringLevelsIs(std::string_view setting) { applyLevels(setting, true); }

void traceFileIs(const std::string& path) {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  if (s.file) std::fclose(s.file);
  s.file = nullptr;
  if (path.empty()) return;
  s.file = std::fopen(path.c_str(), "a");
  if (!s.file) throw std::runtime_error("cannot open trace file " + path);
}

void traceText(const TraceHandle& handle, unsigned level, const char* file, int line,
               const char* function, std::string_view message) {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  if (s.capture) {
    s.capture->records_.push_back(
        {handle.name(), level, baseName(file), line, function, std::string(message)});
    return;
  }
  FILE* out = s.file ? s.file : stderr;
  std::fprintf(out, "%s/%u %s:%d %s: %.*s\n", handle.name().c_str(), level, baseName(file), line,
               function, static_cast<int>(message.size()), message.data());
  // The lines before an assertion's abort are the ones most wanted: never leave them buffered.
  std::fflush(out);
}

TraceCapture::TraceCapture() {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  outer_ = s.capture;
  s.capture = this;
}

TraceCapture::~TraceCapture() {
  TraceState& s = state();
  std::lock_guard lock(s.mutex);
  s.capture = outer_;
}

std::vector<std::string> TraceCapture::messages(std::string_view handle) const {
  std::vector<std::string> out;
  for (const TraceRecord& r : records_)
    if (handle.empty() || r.handle == handle) out.push_back(r.message);
  return out;
}

bool TraceCapture::contains(std::string_view text) const {
  for (const TraceRecord& r : records_)
    if (r.message.find(text) != std::string::npos) return true;
  return false;
}

}  // namespace Kel
