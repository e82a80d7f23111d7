// Tracing: trace handles and their level strings, the text sink and its capture, the Kwisp ring
// (render, decode, dump files and their corruption) and Duwisp trace points over both sinks.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "Duwisp/Duwisp.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "ZorvekTypes/Types.h"

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
Kel::TraceHandle& th() {
  static Kel::TraceHandle h("TraceTestPoint");
  return h;
}

// Bad level strings throw and change nothing; good ones also reach handles created later.
TEST(TraceHandleTest, LevelStringsSetTheLevelsOfNamedHandlesNowAndLater) {
  Kel::TraceHandle a("TraceTestA"), b("TraceTestB"), c("TraceTestC"), d("TraceTestD");
  for (const char* levels : {"/3", "TraceTestD/", "TraceTestD/x", "TraceTestD/10", "TraceTestD/5-3",
                             "TraceTestD/1/2", "TraceTestD/0-", "TraceTestD/3,/4"}) {
    EXPECT_THROW(Kel::traceLevelsIs(levels), std::invalid_argument) << levels;
    EXPECT_THROW(Kel::ringLevelsIs(levels), std::invalid_argument) << levels;
  }
  Kel::traceLevelsIs("TraceTestA/2-4,,TraceTestB/8");
  Kel::ringLevelsIs("TraceTestC");  // a bare name means every level
  Kel::TraceHandle later("TraceTestB");
  EXPECT_EQ(std::tuple(a.levels(), a.ringLevels(), b.levels(), c.levels(), c.ringLevels(),
                       later.levels(), d.levels() | d.ringLevels()),
            std::tuple(0x1cu, 0u, 1u << 8, 0u, Kel::kAllTraceLevels, 1u << 8, 0u));
  EXPECT_TRUE(Kel::traceHandle("TraceTestC") == &c && !Kel::traceHandle("TraceTestNone"));
}

// Level strings stay in force for every handle created later in the process, so "*" is tried in a
// child process.
TEST(TraceHandleDeathTest, StarNamesEveryHandle) {
  EXPECT_EXIT(
      {
        Kel::TraceHandle before("TraceTestStar");
        Kel::traceLevelsIs("*/3");
        Kel::TraceHandle after("TraceTestAfterStar");
        std::fprintf(stderr, "levels %x %x\n", before.levels(), after.levels());
        std::exit(0);
      },
      ExitedWithCode(0), "levels 8 8");
}

// The sink writes each line to the trace file at once; a capture (which takes the lines
// instead) records every field, in the innermost capture only.
TEST(TraceSinkTest, CaptureAndTraceFileGetEachLine) {
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
  Kel::TraceCapture outer;
  {
    Kel::TraceCapture inner;
    Kel::traceText(th(), 4, "/src/dal/Some.cpp", 12, "fn", "inner message");
    EXPECT_THAT(inner.records(), ElementsAre(FieldsAre("TraceTestPoint", 4u, "Some.cpp", 12, "fn",
                                                       "inner message")));
    EXPECT_TRUE(inner.contains("er me") && inner.messages("TraceTestOther").empty());
  }
  Kel::traceText(th(), 9, "Plain.cpp", 1, "g", "outer message");
  EXPECT_THAT(outer.messages("TraceTestPoint"), ElementsAre("outer message"));
}

Kwisp::Value str(std::string_view s) { return {Kwisp::Tag::string, 0, s}; }
Kwisp::Value num(std::uint64_t v) { return {Kwisp::Tag::unsignedInt, v, {}}; }
Kwisp::Value sgn(std::int64_t v) { return {Kwisp::Tag::signedInt, std::uint64_t(v), {}}; }
Kwisp::Value flag(bool v) { return {Kwisp::Tag::boolean, v, {}}; }

// Decoded lines without their timestamps (the second field of each line).
std::vector<std::string> withoutStamps(const std::vector<std::string>& lines) {
  std::vector<std::string> out;
  for (const std::string& line : lines)
    out.push_back(line.substr(0, line.find(' ')) + line.substr(line.find(' ', line.find(' ') + 1)));
  return out;
}
std::vector<std::string> decoded() { return withoutStamps(Kwisp::decode()); }

// The timestamps of decoded lines ("<seconds>.<nanoseconds>"), in nanoseconds.
std::vector<std::uint64_t> stamps(const std::vector<std::string>& lines) {
  std::vector<std::uint64_t> out;
  for (const std::string& line : lines) {
    const std::size_t at = line.find(' ') + 1, dot = line.find('.', at);
    out.push_back(std::stoull(line.substr(at, dot - at)) * 1000000000 +
                  std::stoull(line.substr(dot + 1, 9)));
  }
  return out;
}
std::uint64_t steadyNanoseconds() {
  using namespace std::chrono;
  return std::uint64_t(duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count());
}

struct KwispTest : ::testing::Test {
  void SetUp() override { Kwisp::clear(4); }
  void TearDown() override { Kwisp::clear(Kwisp::kDefaultSlots); }
};

// Every argument kind under "%s" and "%x", "%%", and an unknown or lone "%" left as is. The
// descriptor keeps its own copies of the texts, which may be gone by decode time. Records
// are stamped with the time-stamp counter and decoded as steady-clock nanoseconds, which
// must fall between the clear and the decode.
TEST_F(KwispTest, RingRoundTripKeepsTheNewestRecordsInOrder) {
  const std::uint64_t start = steadyNanoseconds();
  Kwisp::clear(4);
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
  const std::vector<std::string> lines = Kwisp::decode();
  const std::uint64_t decodedAt = steadyNanoseconds();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_THAT(lines[0], MatchesRegex("2 [0-9]+\\.[0-9]{9} .*"));
  const std::vector<std::uint64_t> when = stamps(lines);
  EXPECT_TRUE(std::is_sorted(when.begin(), when.end()) && when.front() >= start &&
              when.back() <= decodedAt);
  const std::string p =
      " TraceTestPoint/3 Ring.cpp:7 someFunction: s=abc i=-5/ffffffffffffffff u=0x";
  EXPECT_THAT(
      decoded(),
      ElementsAre("2" + p + "c b=False/True 100% %d %", "3" + p + "d b=True/False 100% %d %",
                  "4" + p + "e b=False/True 100% %d %", "5" + p + "f b=True/False 100% %d %"));
  const std::string path = tempPath("KwispTest.ring");
  Kwisp::dump(path);
  const std::vector<std::string> fromFile = Kwisp::decodeFile(path);
  EXPECT_EQ(withoutStamps(fromFile), withoutStamps(lines));
  EXPECT_TRUE(stamps(fromFile).front() >= start && stamps(fromFile).back() <= steadyNanoseconds());
  std::remove(path.c_str());
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

TEST_F(KwispTest, CorruptedDumpIsADecodeError) {
  Kwisp::clear(2);
  const Kwisp::Descriptor d(th(), 4, "C.cpp", 9, "f", "%x");
  Kwisp::record(d, std::vector{num(1)}.data(), 1);
  const std::string path = tempPath("KwispDumpTest.ring");
  Kwisp::dump(path);
  const std::string dump = readFile(path);
  std::remove(path.c_str());
  ASSERT_EQ(Kwisp::decodeBytes(dump).size(), 1u);
  const std::size_t slot0 = dump.size() - 2 * Kwisp::kSlotBytes;  // holds record 0
  // At a byte of the file (or of slot 0), write `width` bytes of `value` (0: cut the file there).
  for (auto [inSlot, at, width, value, error] :
       std::vector<std::tuple<bool, int, int, std::uint32_t, const char*>>{
           {false, 3, 1, 'X', "not a Kwisp ring dump (bad magic)"},
           {false, 10, 0, 0, "truncated dump: version at byte 8"},
           {false, 18, 0, 0, "truncated dump: descriptor id at byte 16"},
           {false, 8, 4, 2, "unsupported Kwisp dump version 2"},
           {true, -4, 4, 3, "dump holds 256 slot bytes, header says 384"},
           {true, 16, 4, 99999, "record 0: unknown descriptor 99999"},
           {true, 24, 1, 'z', "record 0: unknown argument tag"},
           {true, 22, 2, 105, "record 0: payload size exceeds the slot"},
           {true, 22, 2, 5, "record 0: truncated number argument"}}) {
    std::string bytes = dump;
    const std::size_t pos = (inSlot ? slot0 : 0) + at;
    bytes.resize(width ? bytes.size() : pos);
    std::memcpy(bytes.data() + pos, &value, width);  // the dump is little-endian, as we are
    EXPECT_THAT([&] { Kwisp::decodeBytes(bytes); },
                ThrowsMessage<Kwisp::DecodeError>(StrEq(error)));
  }
}

// An argument that counts how often it is turned into text.
struct Counted {
  int v;
};
int streamed = 0;
std::ostream& operator<<(std::ostream& os, const Counted& c) {
  ++streamed;
  return os << "counted" << c.v;
}

struct DuwispTest : KwispTest {
  void TearDown() override {
    th().levelsIs(0);
    th().ringLevelsIs(0);
    KwispTest::TearDown();
  }
};

TEST_F(DuwispTest, WritesEachSinkOnAtTheLevelAndBuildsNothingOtherwise) {
  const std::string message = "c=counted7 x=ff b=True";
  for (auto [text, ring] : {std::pair(true, true), {false, true}, {true, false}, {false, false}}) {
    SCOPED_TRACE(std::to_string(text) + std::to_string(ring));
    streamed = 0;
    Kwisp::clear();
    th().levelsIs(text ? 1u << 5 : 0);
    th().ringLevelsIs(ring ? 1u << 5 : 0);
    Kel::TraceCapture capture;
    const int line = __LINE__ + 1;
    DUWISP_TRACE(th(), 5, "c=%s x=%x b=%s", Counted{7}, 255u, true);
    DUWISP_TRACE(th(), 6, "never %s", Counted{8});
    EXPECT_THAT(capture.records(),
                AllOf(SizeIs(text), Each(FieldsAre("TraceTestPoint", 5u, "TraceTest.cpp", line,
                                                   "TestBody", message))));
    EXPECT_EQ(decoded(), std::vector<std::string>(
                             ring, "0 TraceTestPoint/5 TraceTest.cpp:" + std::to_string(line) +
                                       " TestBody: " + message));
    EXPECT_EQ(streamed, text || ring ? 1 : 0);
  }
}

TEST_F(DuwispTest, ArgumentsPrintAsTheirKind) {
  th().levelsIs(1u << 2);
  Kel::TraceCapture capture;
  const char* unset = nullptr;
  DUWISP_TRACE(th(), 2, "%s %s %s %x %s %s", unset, std::string("str"), -3, short{-1},
               Zorvek::DeviceId(4), Zorvek::ResourceType::tableResource_);
  EXPECT_THAT(capture.messages(), ElementsAre("(null) str -3 ffffffffffffffff 4 1"));
}

}  // namespace
