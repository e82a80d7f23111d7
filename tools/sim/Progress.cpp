#include "Progress.h"

#include <unistd.h>

#include <string>

namespace simtool {

namespace {
constexpr int kBarWidth = 40;
}

bool Progress::wanted(std::uint64_t total) {
  return total >= kMinTotal && isatty(STDERR_FILENO) == 1;
}

Progress::Progress(std::uint64_t total, bool enabled, std::FILE* out)
    : total_(total), enabled_(enabled && total > 0), out_(out) {}

void Progress::draw(std::uint64_t done) {
  const std::uint64_t percent = done * 100 / total_;
  const int filled = static_cast<int>(done * kBarWidth / total_);
  const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
  std::fprintf(out_, "\r[%s] %3llu%% %llu/%llu accesses", bar.c_str(),
               static_cast<unsigned long long>(percent), static_cast<unsigned long long>(done),
               static_cast<unsigned long long>(total_));
  std::fflush(out_);
  // The first count that reaches the next whole percent.
  nextDraw_ = ((percent + 1) * total_ + 99) / 100;
}

void Progress::finish() {
  if (!enabled_) return;
  enabled_ = false;
  // Carriage return, then erase to the end of the line: the report starts on a clean line.
  std::fputs("\r\033[K", out_);
  std::fflush(out_);
}

}  // namespace simtool
