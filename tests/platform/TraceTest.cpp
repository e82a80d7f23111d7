// Tracing: trace handles and their level strings, the text sink, the Kwisp ring (render and
// decode; the fuzz target feeds its decoder hostile dumps, the command-line test decodes a
// dumped file) and Duwisp trace points over both sinks.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Duwisp/Duwisp.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"

namespace {

using namespace ::testing;

std::string tempPath(const char* name) {
  return ::testing::TempDir() + name + "." + std::to_string(getpid());
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// The handle of the trace points of these tests.
KEL_FILE_TRACE_HANDLE("TraceTestPoint")

// Bad level strings throw and change nothing; good ones also reach handles created later.
TEST(TraceHandleTest, LevelStringsSetTheLevelsOfNamedHandlesNowAndLater) {
  Kel::TraceHandle a("TraceTestA"), b("TraceTestB"), c("TraceTestC");
  for (const char* levels : {"/3", "TraceTestC/", "TraceTestC/x", "TraceTestC/10", "TraceTestC/5-3",
                             "TraceTestC/1/2", "TraceTestC/0-", "TraceTestC/3,/4"}) {
    EXPECT_THROW(Kel::traceLevelsIs(levels), std::invalid_argument) << levels;
    EXPECT_THROW(Kel::ringLevelsIs(levels), std::invalid_argument) << levels;
  }
  Kel::traceLevelsIs("TraceTestA/2-4,,TraceTestB/8");
  Kel::ringLevelsIs("TraceTestC");  // a bare name means every level
  Kel::TraceHandle later("TraceTestB");
  EXPECT_EQ(a.levels(), 0x1cu);
  EXPECT_EQ(a.ringLevels(), 0u);
  EXPECT_EQ(b.levels(), 1u << 8);
  EXPECT_EQ(c.levels(), 0u);
  EXPECT_EQ(c.ringLevels(), Kel::kAllTraceLevels);
  EXPECT_EQ(later.levels(), 1u << 8);
}

// The sink writes each line to the trace file at once. (A capture, which takes the lines
// instead, is how every DAL test reads its traces.)
TEST(TraceSinkTest, TraceFileGetsEachLineAtOnce) {
  const std::string path = tempPath("TraceSinkTest.txt");
  std::remove(path.c_str());
  Kel::traceFileIs(path);
  Kel::traceText(th(), 2, "/src/Some.cpp", 12, "fn", "hello");
  Kel::traceText(th(), 0, "Other.cpp", 3, "g", "again");
  // Read while the sink is still open: a line must not wait in a buffer.
  EXPECT_EQ(readFile(path),
            "TraceTestPoint/2 Some.cpp:12 fn: hello\nTraceTestPoint/0 Other.cpp:3 g: again\n");
  Kel::traceFileIs("");
  EXPECT_THAT([] { Kel::traceFileIs("/nonexistent-dir/trace.txt"); },
              ThrowsMessage<std::runtime_error>(
                  StrEq("cannot open trace file /nonexistent-dir/trace.txt")));
  std::remove(path.c_str());
}

Kwisp::Value str(std::string_view s) { return {Kwisp::Tag::string, 0, s}; }
Kwisp::Value num(std::uint64_t v) { return {Kwisp::Tag::unsignedInt, v, {}}; }
Kwisp::Value sgn(std::int64_t v) { return {Kwisp::Tag::signedInt, std::uint64_t(v), {}}; }
Kwisp::Value flag(bool v) { return {Kwisp::Tag::boolean, v, {}}; }

// Decoded lines without their timestamps (the second field of each line).
std::vector<std::string> decoded() {
  std::vector<std::string> lines = Kwisp::decode();
  for (std::string& line : lines)
    line.erase(line.find(' '), line.find(' ', line.find(' ') + 1) - line.find(' '));
  return lines;
}

struct KwispTest : ::testing::Test {
  void SetUp() override { Kwisp::clear(4); }
  void TearDown() override { Kwisp::clear(Kwisp::kDefaultSlots); }
};

// Every argument kind under "%s" and "%x", "%%", and an unknown or lone "%" left as is. The
// descriptor keeps its own copies of the texts, which may be gone by decode time.
TEST_F(KwispTest, RingKeepsTheNewestRecordsInOrder) {
  std::string format = "s=%s i=%s/%x u=0x%x b=%s/%x 100%% %d %", function = "someFunction";
  {
    const Kwisp::Descriptor d(th(), 3, "/src/Ring.cpp", 7, function.c_str(), format.c_str());
    for (std::uint64_t i = 0; i < 6; ++i) {
      const Kwisp::Value values[] = {str("abc"),  sgn(-5),     sgn(-1),
                                     num(i + 10), flag(i % 2), flag(i % 2 == 0)};
      Kwisp::record(d, values, std::size(values));
    }
  }
  format.assign(format.size(), '#');
  function.assign(function.size(), '#');
  EXPECT_EQ(Kwisp::recordCount(), 6u);
  EXPECT_THAT(Kwisp::decode(), Each(MatchesRegex("[2-5] [0-9]+\\.[0-9]{9} .*")));
  const std::string p =
      " TraceTestPoint/3 Ring.cpp:7 someFunction: s=abc i=-5/ffffffffffffffff u=0x";
  EXPECT_THAT(
      decoded(),
      ElementsAre("2" + p + "c b=False/True 100% %d %", "3" + p + "d b=True/False 100% %d %",
                  "4" + p + "e b=False/True 100% %d %", "5" + p + "f b=True/False 100% %d %"));
  const std::string path = tempPath("KwispTest.ring");
  EXPECT_THAT([&] { Kwisp::decodeFile(path); },
              ThrowsMessage<Kwisp::DecodeError>(StrEq("cannot open " + path)));
}

TEST_F(KwispTest, ArgumentsBeyondTheSlotAreTruncatedAndFlagged) {
  const Kwisp::Descriptor longString(th(), 2, "T.cpp", 1, "f", "%s");
  const std::string text(200, 'x');
  Kwisp::record(longString, std::vector{str(text)}.data(), 1);
  const Kwisp::Descriptor twelve(th(), 2, "T.cpp", 2, "f", "%s %s %s %s %s %s %s %s %s %s %s %s");
  std::vector<Kwisp::Value> numbers;
  for (int i = 0; i < 12; ++i) numbers.push_back(num(i));
  Kwisp::record(twelve, numbers.data(), numbers.size());
  // 104 payload bytes: a 2-byte string header and 102 characters; eleven 9-byte numbers.
  EXPECT_THAT(
      decoded(),
      ElementsAre("0 TraceTestPoint/2 T.cpp:1 f: " + std::string(102, 'x') + " [truncated]",
                  "1 TraceTestPoint/2 T.cpp:2 f: 0 1 2 3 4 5 6 7 8 9 10 <missing> [truncated]"));
}

struct DuwispTest : KwispTest {
  void TearDown() override {
    th().levelsIs(0);
    th().ringLevelsIs(0);
    KwispTest::TearDown();
  }
};

// Each sink gets the point only while its own level is on. (What an off point costs is
// measured by the trace bench.)
TEST_F(DuwispTest, WritesEachSinkOnAtTheLevel) {
  const std::string message = "c=7 x=ff b=True";
  for (auto [text, ring] : {std::pair(true, true), {false, true}, {true, false}, {false, false}}) {
    SCOPED_TRACE(std::to_string(text) + std::to_string(ring));
    Kwisp::clear();
    th().levelsIs(text ? 1u << 5 : 0);
    th().ringLevelsIs(ring ? 1u << 5 : 0);
    Kel::TraceCapture capture;
    const int line = __LINE__ + 1;
    DUWISP_TRACE(th(), 5, "c=%s x=%x b=%s", 7, 255u, true);
    DUWISP_TRACE(th(), 6, "never %s", 8);
    EXPECT_THAT(capture.records(),
                AllOf(SizeIs(text), Each(FieldsAre("TraceTestPoint", 5u, "TraceTest.cpp", line,
                                                   "TestBody", message))));
    EXPECT_EQ(decoded(), std::vector<std::string>(
                             ring, "0 TraceTestPoint/5 TraceTest.cpp:" + std::to_string(line) +
                                       " TestBody: " + message));
  }
}

}  // namespace
