// The trace-event JSON of ring records: one named track per handle, instant events in
// microseconds carrying the decoded text and arguments; from hand-made records, from a run
// that writes it as its trace file, and from a dumped ring, which it must match record for
// record.
#include "ChromeTrace.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Commands.h"
#include "ExitCode.h"

namespace simtool {
namespace {

using namespace ::testing;
using Json = nlohmann::json;

// Track number -> handle, from the "thread_name" metadata events.
std::map<int, std::string> tracks(const Json& doc) {
  std::map<int, std::string> out;
  for (const Json& e : doc.at("traceEvents"))
    if (e.at("ph") == "M" && e.at("name") == "thread_name")
      out.emplace(e.at("tid").get<int>(), e.at("args").at("name").get<std::string>());
  return out;
}

std::vector<Json> instants(const Json& doc) {
  std::vector<Json> out;
  for (const Json& e : doc.at("traceEvents"))
    if (e.at("ph") == "i") out.push_back(e);
  return out;
}

Kwisp::Record record(std::uint64_t seq, std::uint64_t ns, const char* handle, unsigned level,
                     std::vector<std::string> arguments, const char* text) {
  return {.sequence = seq,
          .nanoseconds = ns,
          .handle = handle,
          .level = level,
          .file = "DemuxDal.cpp",
          .line = 40 + static_cast<int>(seq),
          .function = "dalWrite",
          .format = "offset %x size %s",
          .arguments = std::move(arguments),
          .text = text,
          .truncated = seq == 2};
}

TEST(ChromeTraceTest, OneTrackPerHandleAndOneInstantPerRecord) {
  const Json doc = Json::parse(chromeTrace({
      record(0, 1500, "ZorvekDemuxDal", 8, {"16", "8"}, "offset 10 size 8"),
      record(1, 2000, "ZorvekRequesterDal", 3, {"32", "4"}, "offset 20 size 4"),
      record(2, 1000002500, "ZorvekDemuxDal", 9, {"48"}, "offset 30 size <missing>"),
  }));
  EXPECT_THAT(tracks(doc), ElementsAre(Pair(1, "ZorvekDemuxDal"), Pair(2, "ZorvekRequesterDal")));
  const std::vector<Json> events = instants(doc);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].at("name"), "offset 10 size 8");
  EXPECT_EQ(events[0].at("s"), "t");
  EXPECT_DOUBLE_EQ(events[0].at("ts").get<double>(), 1.5);
  EXPECT_DOUBLE_EQ(events[2].at("ts").get<double>(), 1000002.5);
  EXPECT_EQ(events[0].at("tid"), 1);
  EXPECT_EQ(events[1].at("tid"), 2);
  EXPECT_EQ(events[2].at("tid"), 1);
  EXPECT_EQ(events[1].at("pid"), events[0].at("pid"));

  // Every decoded part of the record; "truncated" only where the record was cut short.
  EXPECT_EQ(events[1].at("args"), Json({{"text", "offset 20 size 4"},
                                        {"level", 3},
                                        {"location", "DemuxDal.cpp:41"},
                                        {"function", "dalWrite"},
                                        {"format", "offset %x size %s"},
                                        {"sequence", 1},
                                        {"arguments", {"32", "4"}}}));
  EXPECT_EQ(events[2].at("args").at("truncated"), true);
}

std::string readFile(const std::string& path) {
  std::ifstream f(path);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// A short run of the simulator, its trace written in `format` to `path`.
void runWithTraceFile(const std::string& path, TraceFormat format) {
  RunOptions options;
  options.workload.accesses = 200;
  options.traceFile = path;
  options.traceFormat = format;
  std::ostringstream report;
  ASSERT_EQ(runCommand(options, report), kSuccess) << report.str();
}

TEST(ChromeTraceTest, ARunWritesItAsItsTraceFile) {
  const std::string path = testing::TempDir() + "chrome-trace-run.json";
  runWithTraceFile(path, TraceFormat::chrome);
  const Json doc = Json::parse(readFile(path));
  std::remove(path.c_str());
  EXPECT_THAT(tracks(doc), Contains(Pair(_, "ZorvekDemuxDal")));
  EXPECT_THAT(instants(doc), Not(IsEmpty()));
}

TEST(ChromeTraceTest, ADumpedRingConvertsRecordForRecord) {
  const std::string path = testing::TempDir() + "chrome-trace-ring.bin";
  runWithTraceFile(path, TraceFormat::ring);
  std::ostringstream text, chrome;
  EXPECT_EQ(traceCommand(path, TraceFormat::text, text), kSuccess);
  EXPECT_EQ(traceCommand(path, TraceFormat::chrome, chrome), kSuccess);
  std::remove(path.c_str());

  std::vector<std::string> lines;
  std::istringstream in(text.str());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  const std::vector<Json> events = instants(Json::parse(chrome.str()));
  ASSERT_EQ(events.size(), lines.size());
  ASSERT_THAT(lines, Not(IsEmpty()));
  // Each line ends with the text its event is named by.
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_THAT(lines[i], EndsWith(": " + events[i].at("name").get<std::string>())) << i;
}

}  // namespace
}  // namespace simtool
