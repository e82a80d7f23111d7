#include "ChromeTrace.h"

#include <map>

#include <nlohmann/json.hpp>

namespace simtool {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kPid = 1;

Json metadata(const char* name, int tid, const std::string& value) {
  return Json{
      {"name", name}, {"ph", "M"}, {"pid", kPid}, {"tid", tid}, {"args", {{"name", value}}}};
}

}  // namespace

std::string chromeTrace(const std::vector<Kwisp::Record>& records) {
  Json events = Json::array();
  events.push_back(metadata("process_name", 0, "Zorvek DAL trace ring"));
  std::map<std::string, int> tids;
  for (const Kwisp::Record& r : records) {
    auto [at, added] = tids.emplace(r.handle, static_cast<int>(tids.size()) + 1);
    if (added) events.push_back(metadata("thread_name", at->second, r.handle));
    Json args{{"text", r.text},
              {"level", r.level},
              {"location", r.file + ":" + std::to_string(r.line)},
              {"function", r.function},
              {"format", r.format},
              {"sequence", r.sequence},
              {"arguments", r.arguments}};
    if (r.truncated) args["truncated"] = true;
    events.push_back(Json{{"name", r.text},
                          {"cat", r.handle},
                          {"ph", "i"},
                          {"s", "t"},
                          {"ts", static_cast<double>(r.nanoseconds) / 1000.0},
                          {"pid", kPid},
                          {"tid", at->second},
                          {"args", std::move(args)}});
  }
  return Json{{"traceEvents", std::move(events)}, {"displayTimeUnit", "ns"}}.dump(1) + "\n";
}

}  // namespace simtool
