// A soak of a simulated switch: rounds of accesses through the DemuxDal, a restart of every
// serializer (each one replayed by the remote DALs) and a new DAL tree every few rounds, while
// the resident memory of the process must stay flat once the shadows have filled.
//
// The suite runs a few rounds; ZORVEK_SOAK_SECONDS=600 soaks for ten minutes and prints the
// resident memory before and after. Built with AddressSanitizer, whose quarantine holds on
// to freed memory, or under valgrind, the rounds run but the memory is not judged.
#include <gtest/gtest.h>

#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "sim/SwitchWorkload.h"

namespace sim {
namespace {

// GCC and Clang both define this under -fsanitize=address.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

constexpr unsigned kRoundsPerTree = 16;
// A creator hands out 8-bit DAL ids, three per tree: the soak keeps the last of a few trees.
constexpr unsigned kTrees = 4;
// The warm-up ends once every tree has been built and has filled its shadows: what is
// measured after it is the steady state of accesses, restarts and replays.
constexpr unsigned kWarmUpRounds = kTrees * kRoundsPerTree;
constexpr unsigned kSuiteRounds = kWarmUpRounds + 2 * kRoundsPerTree;
// Allocators keep some freed memory; a leak of a few bytes per access or restart goes far
// past this within the suite's rounds already.
constexpr long kAllowedGrowthKiB = 2048;

// Memcheck's own bookkeeping grows the resident memory of the program it runs.
bool underValgrind() {
  const char* preload = std::getenv("LD_PRELOAD");
  return preload && std::strstr(preload, "vgpreload");
}

long residentKiB() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST(SimSwitchSoakTest, ResidentMemoryStaysFlat) {
  const char* seconds = std::getenv("ZORVEK_SOAK_SECONDS");
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atol(seconds) : 0);
  SimSwitch sw(Topology::embeddedDefault());
  Kel::Ptr<Zorvek::DemuxDal> dal;
  long before = 0;
  unsigned n = 0;
  for (; n < kSuiteRounds || std::chrono::steady_clock::now() < deadline; ++n) {
    if (n % kRoundsPerTree == 0 && n < kWarmUpRounds) dal = sw.buildDal();
    if (n == kWarmUpRounds) before = residentKiB();
    ASSERT_EQ(test::exerciseSwitch(sw, *dal, static_cast<U8>(n)), 0u) << "round " << n;
    for (const SerializerDef& s : sw.topology().serializers) sw.restart(s.name);
    dal->waitForCompletion(DeviceId(0));
  }
  const long after = residentKiB();
  std::printf("soak: %u rounds, %zu restarts, resident %ld KiB after warm-up, %ld KiB at the end\n",
              n, n * sw.topology().serializers.size(), before, after);
  if (!kAddressSanitizer && !underValgrind()) {
    EXPECT_LE(after - before, kAllowedGrowthKiB);
  }
}

}  // namespace
}  // namespace sim
