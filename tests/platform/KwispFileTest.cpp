// The trace ring in a file: a process killed with SIGKILL, at a seeded point and also in the
// middle of a record, leaves a file that decodes to every record it completed, in order,
// its arguments intact, nothing garbled.
#include <gmock/gmock.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "platform/ForkTools.h"

namespace {

using namespace ::testing;
using Zorvek::test::Child;

KEL_FILE_TRACE_HANDLE("KwispFileTest")

std::string filePath(unsigned seed) {
  return "/tmp/zorvek-test-" + std::to_string(getpid()) + "-" + std::to_string(seed) + ".kwisp";
}

Kwisp::Value num(std::uint64_t v) { return {Kwisp::Tag::unsignedInt, v, {}}; }
Kwisp::Value str(std::string_view s) { return {Kwisp::Tag::string, 0, s}; }

// Records `complete` records (a descriptor made before the move to the file, then one made
// after it from record 10 on), starts one more and dies in the middle of it.
int recordAndDie(const std::string& path, unsigned complete) {
  const Kwisp::Descriptor before(th(), 2, "Before.cpp", 1, "f", "entry %s of %s");
  Kwisp::ringFileIs(path);
  const Kwisp::Descriptor after(th(), 3, "After.cpp", 2, "g", "write %x at %s");
  for (unsigned i = 0; i < complete; ++i) {
    const std::string name = "table" + std::to_string(i);
    const Kwisp::Value values[] = {num(i), str(name)};
    Kwisp::record(i < 10 ? before : after, values, 2);
  }
  Kwisp::RecordWriter unfinished(after);
  unfinished.number(Kwisp::Tag::unsignedInt, 0xdead);
  raise(SIGKILL);
  return 1;
}

TEST(KwispFileTest, ARingFileDecodesAfterItsProcessWasKilledMidRecord) {
  std::mt19937 rng(7);
  for (unsigned seed = 0; seed < 6; ++seed) {
    // Fewer records than slots, and more: the ring also wraps.
    const unsigned complete = std::uniform_int_distribution<unsigned>(11, 20000)(rng);
    SCOPED_TRACE("records completed: " + std::to_string(complete));
    const std::string path = filePath(seed);
    Child child([&] { return recordAndDie(path, complete); });
    ASSERT_EQ(WTERMSIG(child.exitStatus()), SIGKILL);
    const std::vector<std::string> lines = Kwisp::decodeFile(path);
    std::remove(path.c_str());
    const unsigned kept = std::min<unsigned>(complete, unsigned(Kwisp::kDefaultSlots) - 1);
    ASSERT_EQ(lines.size(), kept);
    const unsigned last = complete - 1;
    EXPECT_THAT(lines.back(), EndsWith("KwispFileTest/3 After.cpp:2 g: write " +
                                       (std::ostringstream() << std::hex << last).str() +
                                       " at table" + std::to_string(last)));
    EXPECT_THAT(lines.front(), StartsWith(std::to_string(complete - kept) + " "));
    if (complete == kept) {
      EXPECT_THAT(lines.front(), EndsWith("KwispFileTest/2 Before.cpp:1 f: entry 0 of table0"));
    }
  }
}

TEST(KwispFileTest, AFileThatCannotBeMadeIsNamed) {
  EXPECT_THAT([] { Kwisp::ringFileIs("/nonexistent/dir/ring.kwisp"); },
              ThrowsMessage<std::runtime_error>(StartsWith(
                  "Kwisp: cannot make the trace ring file /nonexistent/dir/ring.kwisp: ")));
}

}  // namespace
