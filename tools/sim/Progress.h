// simtool::Progress: a one-line progress bar on standard error for long workloads, drawn
// only when standard error is a terminal, so that logs and pipes never see it.
//
//   simtool::Progress progress(total, simtool::Progress::wanted(total));
//   for (U64 i = 0; i < total; ++i) { ...; progress.advanceTo(i + 1); }
//   progress.finish();                       // erases the bar
#pragma once

#include <cstdint>
#include <cstdio>

namespace simtool {

class Progress {
 public:
  // Workloads shorter than this finish before a bar would be of any use.
  static constexpr std::uint64_t kMinTotal = 50000;

  // True when a bar helps: standard error is a terminal and the workload is long.
  static bool wanted(std::uint64_t total);

  // Draws nothing when `enabled` is false. `out` is where the bar goes.
  Progress(std::uint64_t total, bool enabled, std::FILE* out = stderr);
  ~Progress() { finish(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Redraws when another percent is done; cheap otherwise.
  void advanceTo(std::uint64_t done) {
    if (enabled_ && done >= nextDraw_) draw(done);
  }
  // Erases the bar (once).
  void finish();

 private:
  void draw(std::uint64_t done);

  std::uint64_t total_;
  bool enabled_;
  std::FILE* out_;
  std::uint64_t nextDraw_ = 0;
};

}  // namespace simtool
