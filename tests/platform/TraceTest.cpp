// Tracing: trace handles and their level specs, the text sink and its capture, the Kwisp ring
// (render, decode, dump files and their corruption) and Duwisp trace points over both sinks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Duwisp/Duwisp.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "Zorvek/Types.h"

namespace {

using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::IsEmpty;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

std::string tempPath(const char* name) {
  return ::testing::TempDir() + name + "." + std::to_string(getpid());
}

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

struct LevelsCase {
  const char* levels;
  std::uint32_t mask;
};

class TraceLevelsTest : public ::testing::TestWithParam<LevelsCase> {};

TEST_P(TraceLevelsTest, ParsesALevelOrARange) {
  EXPECT_EQ(Kel::parseTraceLevels(GetParam().levels), GetParam().mask);
}

INSTANTIATE_TEST_SUITE_P(Levels, TraceLevelsTest,
                         ::testing::Values(LevelsCase{"3", 0x8}, LevelsCase{"0-9", 0x3ff},
                                           LevelsCase{"2-4", 0x1c}, LevelsCase{"7-7", 0x80}));

TEST(TraceHandleTest, SpecsSetTheLevelsOfNamedHandlesNowAndLater) {
  Kel::TraceHandle a("TraceTestA"), b("TraceTestB"), c("TraceTestC");
  Kel::traceLevelsIs("TraceTestA/0-9,,TraceTestB/8");
  Kel::ringLevelsIs("TraceTestC");  // a bare name means every level
  EXPECT_EQ(a.levels(), Kel::kAllTraceLevels);
  EXPECT_EQ(b.levels(), 1u << 8);
  EXPECT_EQ(c.levels(), 0u);
  EXPECT_EQ(c.ringLevels(), Kel::kAllTraceLevels);
  EXPECT_EQ(a.ringLevels(), 0u);
  Kel::TraceHandle later("TraceTestB");
  EXPECT_EQ(later.levels(), 1u << 8);
  EXPECT_EQ(Kel::traceHandle("TraceTestC"), &c);
  EXPECT_EQ(Kel::traceHandle("TraceTestNone"), nullptr);
}

TEST(TraceHandleTest, BadSpecsThrowAndChangeNothing) {
  Kel::TraceHandle d("TraceTestD");
  for (const char* spec : {"/3", "TraceTestD/", "TraceTestD/x", "TraceTestD/10", "TraceTestD/5-3",
                           "TraceTestD/1/2", "TraceTestD/0-", "TraceTestD/3,/4"}) {
    EXPECT_THROW(Kel::traceLevelsIs(spec), std::invalid_argument) << spec;
    EXPECT_THROW(Kel::ringLevelsIs(spec), std::invalid_argument) << spec;
  }
  EXPECT_EQ(d.levels(), 0u);
  EXPECT_EQ(d.ringLevels(), 0u);
}

// Specs stay in force for every handle created later in the process, so "*" is tried in a
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
      ::testing::ExitedWithCode(0), "levels 8 8");
}

TEST(TraceHandleTest, EnabledFollowsTheTextAndRingMasks) {
  Kel::TraceHandle h("TraceTestEnabled");
  h.levelsIs(1u << 3);
  h.ringLevelsIs(1u << 5);
  EXPECT_TRUE(h.enabled(3));
  EXPECT_FALSE(h.enabled(5));
  EXPECT_TRUE(h.ringEnabled(5));
  EXPECT_FALSE(h.ringEnabled(3));
  EXPECT_TRUE(h.anyEnabled(3) && h.anyEnabled(5));
  EXPECT_FALSE(h.anyEnabled(4));
  h.levelsIs(~0u);
  EXPECT_EQ(h.levels(), Kel::kAllTraceLevels);
}

TEST(TraceCaptureTest, RecordsEveryFieldInTheInnermostCapture) {
  Kel::TraceHandle h("TraceTestCapture");
  Kel::TraceCapture outer;
  {
    Kel::TraceCapture inner;
    Kel::traceText(h, 4, "/src/dal/Some.cpp", 12, "fn", "inner message");
    EXPECT_THAT(inner.records(), ElementsAre(FieldsAre("TraceTestCapture", 4u, "Some.cpp", 12, "fn",
                                                       "inner message")));
    EXPECT_TRUE(inner.contains("er me"));
    EXPECT_THAT(inner.messages("TraceTestOther"), IsEmpty());
  }
  Kel::traceText(h, 9, "Plain.cpp", 1, "g", "outer message");
  EXPECT_THAT(outer.messages("TraceTestCapture"), ElementsAre("outer message"));
  EXPECT_EQ(outer.records()[0].file, "Plain.cpp");
}

TEST(TraceSinkTest, WritesEachLineToTheTraceFileAtOnce) {
  const std::string path = tempPath("TraceSinkTest.txt");
  std::remove(path.c_str());
  Kel::TraceHandle h("TraceTestFile");
  Kel::traceFileIs(path);
  Kel::traceText(h, 2, "/src/Some.cpp", 12, "fn", "hello");
  Kel::traceText(h, 0, "Other.cpp", 3, "g", "again");
  // Read while the sink is still open: a line must not wait in a buffer.
  EXPECT_EQ(readFile(path),
            "TraceTestFile/2 Some.cpp:12 fn: hello\nTraceTestFile/0 Other.cpp:3 g: again\n");
  Kel::traceFileIs("");
  EXPECT_THAT([] { Kel::traceFileIs("/nonexistent-dir/trace.txt"); },
              ThrowsMessage<std::runtime_error>(
                  StrEq("cannot open trace file /nonexistent-dir/trace.txt")));
  std::remove(path.c_str());
}

// Kwisp.
Kel::TraceHandle& ringTh() {
  static Kel::TraceHandle h("TraceTestRing");
  return h;
}

Kwisp::Value str(std::string_view s) { return {Kwisp::Tag::string, 0, s}; }
Kwisp::Value num(std::uint64_t v) { return {Kwisp::Tag::unsignedInt, v, {}}; }
Kwisp::Value sgn(std::int64_t v) {
  return {Kwisp::Tag::signedInt, static_cast<std::uint64_t>(v), {}};
}
Kwisp::Value flag(bool v) { return {Kwisp::Tag::boolean, v, {}}; }

// A decoded line without its timestamp (the second field).
std::string withoutStamp(const std::string& line) {
  const std::size_t first = line.find(' ');
  return line.substr(0, first) + line.substr(line.find(' ', first + 1));
}

std::vector<std::string> decoded() {
  std::vector<std::string> out;
  for (const std::string& line : Kwisp::decode()) out.push_back(withoutStamp(line));
  return out;
}

struct RenderCase {
  const char* format;
  std::vector<Kwisp::Value> values;
  const char* text;
};

class KwispRenderTest : public ::testing::TestWithParam<RenderCase> {};

TEST_P(KwispRenderTest, FillsTheFormat) {
  const RenderCase& c = GetParam();
  EXPECT_EQ(Kwisp::render(c.format, c.values.data(), c.values.size()), c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, KwispRenderTest,
    ::testing::Values(RenderCase{"a %x b %s", {num(255), num(255)}, "a ff b 255"},
                      RenderCase{"%s %x", {sgn(-5), sgn(-1)}, "-5 ffffffffffffffff"},
                      RenderCase{"%s/%x", {flag(true), flag(false)}, "True/False"},
                      RenderCase{"[%s]", {str("text")}, "[text]"},
                      RenderCase{"100%% %s", {num(1)}, "100% 1"},
                      RenderCase{"%x %s %s", {num(16)}, "10 <missing> <missing>"},
                      RenderCase{"%d %", {}, "%d %"}));

class KwispTest : public ::testing::Test {
 protected:
  void SetUp() override { Kwisp::clear(16); }
  void TearDown() override { Kwisp::clear(Kwisp::kDefaultSlots); }
};

TEST_F(KwispTest, RingRoundTripDecodesEveryArgumentKind) {
  const Kwisp::Descriptor d(ringTh(), 3, "/src/Ring.cpp", 7, "fn", "s=%s i=%s u=0x%x b=%s");
  const std::string s = "abc";
  const Kwisp::Value values[] = {str(s), sgn(-7), num(42), flag(true)};
  Kwisp::record(d, values, 4);
  const std::vector<std::string> lines = Kwisp::decode();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], ::testing::MatchesRegex("0 [0-9]+\\.[0-9]{9} .*"));
  EXPECT_EQ(withoutStamp(lines[0]), "0 TraceTestRing/3 Ring.cpp:7 fn: s=abc i=-7 u=0x2a b=True");
  EXPECT_EQ(Kwisp::recordCount(), 1u);
}

TEST_F(KwispTest, DescriptorTextsAreKeptWhenTheTracePointIsGone) {
  std::string format = "kept %s", function = "someFunction";
  {
    const Kwisp::Descriptor d(ringTh(), 1, "Gone.cpp", 5, function.c_str(), format.c_str());
    const Kwisp::Value v = num(3);
    Kwisp::record(d, &v, 1);
  }
  format.assign(format.size(), '#');
  function.assign(function.size(), '#');
  EXPECT_THAT(decoded(), ElementsAre("0 TraceTestRing/1 Gone.cpp:5 someFunction: kept 3"));
}

TEST_F(KwispTest, ArgumentsBeyondTheSlotAreTruncatedAndFlagged) {
  const Kwisp::Descriptor longString(ringTh(), 2, "T.cpp", 1, "f", "%s");
  const std::string text(200, 'x');
  const Kwisp::Value s = str(text);
  Kwisp::record(longString, &s, 1);
  const Kwisp::Descriptor twelve(ringTh(), 2, "T.cpp", 2, "f",
                                 "%s %s %s %s %s %s %s %s %s %s %s %s");
  std::vector<Kwisp::Value> numbers;
  for (int i = 0; i < 12; ++i) numbers.push_back(num(i));
  Kwisp::record(twelve, numbers.data(), numbers.size());
  // 104 payload bytes: a 2-byte string header and 102 characters; eleven 9-byte numbers.
  EXPECT_THAT(
      decoded(),
      ElementsAre("0 TraceTestRing/2 T.cpp:1 f: " + std::string(102, 'x') + " [truncated]",
                  "1 TraceTestRing/2 T.cpp:2 f: 0 1 2 3 4 5 6 7 8 9 10 <missing> [truncated]"));
}

TEST_F(KwispTest, WrapAroundKeepsTheNewestRecordsInOrder) {
  Kwisp::clear(4);
  EXPECT_EQ(Kwisp::slotCount(), 4u);
  const Kwisp::Descriptor d(ringTh(), 8, "W.cpp", 3, "f", "n=%s");
  for (std::uint64_t i = 0; i < 10; ++i) {
    const Kwisp::Value v = num(i);
    Kwisp::record(d, &v, 1);
  }
  EXPECT_EQ(Kwisp::recordCount(), 10u);
  EXPECT_THAT(decoded(),
              ElementsAre("6 TraceTestRing/8 W.cpp:3 f: n=6", "7 TraceTestRing/8 W.cpp:3 f: n=7",
                          "8 TraceTestRing/8 W.cpp:3 f: n=8", "9 TraceTestRing/8 W.cpp:3 f: n=9"));
}

TEST_F(KwispTest, DumpedRingDecodesLikeTheLiveRing) {
  const Kwisp::Descriptor d(ringTh(), 4, "D.cpp", 9, "f", "%s %x");
  for (std::uint64_t i = 0; i < 3; ++i) {
    const Kwisp::Value v[] = {str("dumped"), num(i + 10)};
    Kwisp::record(d, v, 2);
  }
  const std::string path = tempPath("KwispTest.ring");
  Kwisp::dump(path);
  EXPECT_EQ(Kwisp::decodeFile(path), Kwisp::decode());
  EXPECT_EQ(Kwisp::decodeFile(path).size(), 3u);
  std::remove(path.c_str());
  EXPECT_THAT([&] { Kwisp::decodeFile(path); },
              ThrowsMessage<Kwisp::DecodeError>(StrEq("cannot open " + path)));
}

// Corruptions of a dump of two slots whose first holds record 0 with one number argument.
struct CorruptionCase {
  const char* name;
  void (*corrupt)(std::string& dump, std::size_t slot0);
  const char* error;
};

template <class T>
void putAt(std::string& dump, std::size_t at, T v) {
  std::memcpy(dump.data() + at, &v, sizeof v);
}

class KwispDumpTest : public KwispTest, public ::testing::WithParamInterface<CorruptionCase> {};

TEST_P(KwispDumpTest, CorruptionIsADecodeError) {
  Kwisp::clear(2);
  const Kwisp::Descriptor d(ringTh(), 4, "C.cpp", 9, "f", "%x");
  const Kwisp::Value v = num(1);
  Kwisp::record(d, &v, 1);
  const std::string path = tempPath("KwispDumpTest.ring");
  Kwisp::dump(path);
  std::string dump = readFile(path);
  std::remove(path.c_str());
  ASSERT_EQ(Kwisp::decodeBytes(dump).size(), 1u);
  GetParam().corrupt(dump, dump.size() - 2 * Kwisp::kSlotBytes);
  EXPECT_THAT([&] { Kwisp::decodeBytes(dump); },
              ThrowsMessage<Kwisp::DecodeError>(StrEq(GetParam().error)));
}

INSTANTIATE_TEST_SUITE_P(
    Corruptions, KwispDumpTest,
    ::testing::Values(
        CorruptionCase{"BadMagic", [](std::string& b, std::size_t) { b[3] = 'X'; },
                       "not a Kwisp ring dump (bad magic)"},
        CorruptionCase{"TruncatedHeader", [](std::string& b, std::size_t) { b.resize(10); },
                       "truncated dump: version at byte 8"},
        CorruptionCase{"TruncatedDescriptors", [](std::string& b, std::size_t) { b.resize(18); },
                       "truncated dump: descriptor id at byte 16"},
        CorruptionCase{"BadVersion",
                       [](std::string& b, std::size_t) { putAt<std::uint32_t>(b, 8, 2); },
                       "unsupported Kwisp dump version 2"},
        CorruptionCase{"WrongSlotCount",
                       [](std::string& b, std::size_t s) { putAt<std::uint32_t>(b, s - 4, 3); },
                       "dump holds 256 slot bytes, header says 384"},
        CorruptionCase{
            "UnknownDescriptor",
            [](std::string& b, std::size_t s) { putAt<std::uint32_t>(b, s + 16, 99999); },
            "record 0: unknown descriptor 99999"},
        CorruptionCase{"BadTag", [](std::string& b, std::size_t s) { b[s + 24] = 'z'; },
                       "record 0: unknown argument tag"},
        CorruptionCase{"PayloadBeyondSlot",
                       [](std::string& b, std::size_t s) { putAt<std::uint16_t>(b, s + 22, 105); },
                       "record 0: payload size exceeds the slot"},
        CorruptionCase{"ArgumentBeyondPayload",
                       [](std::string& b, std::size_t s) { putAt<std::uint16_t>(b, s + 22, 5); },
                       "record 0: truncated number argument"}),
    [](const auto& info) { return std::string(info.param.name); });

// Duwisp: one trace point, both sinks.
Kel::TraceHandle& duwispTh() {
  static Kel::TraceHandle h("TraceTestDuwisp");
  return h;
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

struct SinkCase {
  bool text, ring;
};

class DuwispTest : public ::testing::TestWithParam<SinkCase> {
 protected:
  void SetUp() override {
    streamed = 0;
    Kwisp::clear(8);
  }
  void TearDown() override {
    duwispTh().levelsIs(0);
    duwispTh().ringLevelsIs(0);
    Kwisp::clear(Kwisp::kDefaultSlots);
  }
};

TEST_P(DuwispTest, WritesEachSinkOnAtTheLevelAndBuildsNothingOtherwise) {
  duwispTh().levelsIs(GetParam().text ? 1u << 5 : 0);
  duwispTh().ringLevelsIs(GetParam().ring ? 1u << 5 : 0);
  Kel::TraceCapture capture;
  const int line = __LINE__ + 1;
  DUWISP_TRACE(duwispTh(), 5, "c=%s x=%x b=%s", Counted{7}, 255u, true);
  DUWISP_TRACE(duwispTh(), 6, "never %s", Counted{8});
  const std::string message = "c=counted7 x=ff b=True";
  if (GetParam().text)
    EXPECT_THAT(capture.records(), ElementsAre(FieldsAre("TraceTestDuwisp", 5u, "TraceTest.cpp",
                                                         line, "TestBody", message)));
  else
    EXPECT_THAT(capture.records(), IsEmpty());
  if (GetParam().ring)
    EXPECT_THAT(decoded(), ElementsAre("0 TraceTestDuwisp/5 TraceTest.cpp:" + std::to_string(line) +
                                       " TestBody: " + message));
  else
    EXPECT_EQ(Kwisp::recordCount(), 0u);
  EXPECT_EQ(streamed, GetParam().text || GetParam().ring ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Sinks, DuwispTest,
                         ::testing::Values(SinkCase{true, true}, SinkCase{false, true},
                                           SinkCase{true, false}, SinkCase{false, false}),
                         [](const auto& info) {
                           return std::string(info.param.text ? "Text" : "NoText") +
                                  (info.param.ring ? "Ring" : "NoRing");
                         });

TEST(DuwispArgTest, ArgumentsPrintAsTheirKind) {
  duwispTh().levelsIs(1u << 2);
  Kel::TraceCapture capture;
  const char* unset = nullptr;
  DUWISP_TRACE(duwispTh(), 2, "%s %s %s %x %s %s", unset, std::string("str"), -3, short{-1},
               Zorvek::DeviceId(4), Zorvek::ResourceType::tableResource_);
  duwispTh().levelsIs(0);
  EXPECT_THAT(capture.messages(), ElementsAre("(null) str -3 ffffffffffffffff 4 1"));
}

}  // namespace
