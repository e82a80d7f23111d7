#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <numeric>

#include <nlohmann/json.hpp>

#include "Zorvek/QueueRequester.h"
#include "Zorvek/SchanRequester.h"

namespace simtool {

namespace {

using Json = nlohmann::ordered_json;

// Mismatched entries printed in the text report; JSON lists them all.
constexpr std::size_t kMismatchesShown = 10;
// What a requester line names instead of a serializer for the S-channel.
const std::string kSchan = "S-channel";

std::string hexBytes(const std::vector<U8>& bytes) {
  std::string s;
  char two[3];
  for (U8 b : bytes) {
    std::snprintf(two, sizeof two, "%02x", b);
    s += two;
  }
  return s;
}

std::string joined(const std::vector<std::string>& names) {
  std::string s;
  for (const std::string& n : names) s += (s.empty() ? "" : ", ") + n;
  return s;
}

U64 sum(const KindCounts& counts) {
  U64 n = 0;
  for (U64 c : counts) n += c;
  return n;
}

DalLine dalLine(const Route& route) {
  const Zorvek::RequesterDal& d = *route.dal;
  return {d.name(),          d.ready(),           route.resources,    route.accesses,
          d.cacheReadHits(), d.cacheReadMisses(), d.cacheWriteHits(), d.cacheWriteMisses()};
}

RequesterLine schanLine(const Zorvek::SchanRequester& r) {
  return {r.name(),       kSchan,          r.cmdIndex() - 1, r.lastCompletedCmdIndex(),
          r.failedCmds(), r.heldBackCmds()};
}

RequesterLine queueLine(const sim::SimSwitch& sw, const Zorvek::Requester& r) {
  RequesterLine line{r.name(), "", r.cmdIndex() - 1, 0, 0, 0};
  const auto* queued = dynamic_cast<const Zorvek::QueueRequester*>(&r);
  if (const Zorvek::CommandRingProducer* ring = queued ? queued->ring() : nullptr) {
    // The serializer is another process: the ring counts what it did.
    if (const sim::SerializerDef* s = sw.serializerOf(r)) line.serializer = s->name;
    line.executed = ring->executedCmds() - ring->failedCmds();
    line.failed = ring->failedCmds();
    return line;
  }
  for (const auto& s : sw.serializers()) {
    auto it = s->queueCounters().find(r.name());
    if (it == s->queueCounters().end()) continue;
    line.serializer = s->name();
    line.executed = it->second.executed;
    line.failed = it->second.rejected;
  }
  return line;
}

}  // namespace

double RunReport::accessesPerSecond() const {
  return seconds > 0 ? static_cast<double>(sum(accesses)) / seconds : 0;
}

std::vector<std::string> RunReport::failures() const {
  std::vector<std::string> why;
  if (!ready) {
    std::vector<std::string> waiting;
    for (const DalLine& d : dals)
      if (!d.ready) waiting.push_back(d.name);
    why.push_back("the DemuxDal is not ready; not ready: " + joined(waiting));
  }
  if (const U64 failed = sum(failedAccesses))
    why.push_back(std::to_string(failed) + " accesses failed");
  for (const RequesterLine& r : requesters) {
    if (r.failed)
      why.push_back((r.serializer == kSchan ? "the chip refused " : r.serializer + " rejected ") +
                    std::to_string(r.failed) + " commands of " + r.name);
    if (r.heldBack)
      why.push_back(std::to_string(r.heldBack) + " commands of " + r.name + " are held back");
    if (r.executed + r.failed + r.lostToKills < r.commands)
      why.push_back(std::to_string(r.commands - r.executed - r.failed - r.lostToKills) +
                    " commands of " + r.name + " never ran");
  }
  for (const ProcessLine& p : processes)
    if (p.failed) why.push_back(p.name + " (pid " + std::to_string(p.pid) + ") " + p.state);
  if (dalKill && !dalKill->ownedAtKill)
    why.push_back(
        "the DAL's agent owned no entry of the serializers' tables when it was killed: "
        "its cold start freed nothing (make more accesses)");
  if (dalKill && dalKill->leftOwned)
    why.push_back(std::to_string(dalKill->leftOwned) +
                  " entries of the serializers' tables still belong to the DAL's agent after its "
                  "cold start");
  if (dalKill && dalKill->otherEntriesChanged)
    why.push_back(std::to_string(dalKill->otherEntriesChanged) +
                  " entries of other agents changed across the DAL agent's kill and cold start");
  for (const MemoryLine& m : memory)
    if (m.grew)
      why.push_back("the resident memory of " + m.name + " grew after the warm-up, from " +
                    std::to_string(m.afterWarmUpKiB) + " to " + std::to_string(m.highestKiB) +
                    " KiB");
  for (const KillLine& k : kills) {
    if (k.lostEntries)
      why.push_back(std::to_string(k.lostEntries) + " entries written to tables of " +
                    k.serializer + " were lost across its kills");
    if (k.kills && !k.replays)
      why.push_back(k.serializer + " was killed " + std::to_string(k.kills) +
                    " times and never replayed");
  }
  if (!check.ok()) {
    why.push_back(std::to_string(check.mismatches.size()) + " of " + std::to_string(check.entries) +
                  " entries written are not on the chip");
    if (options.remoteBulkEntries > 1 && !shadowBulkEntries &&
        (!restarts.empty() || !kills.empty()))
      why.push_back("bulk writes to remote tables wrote " +
                    std::to_string(options.remoteBulkEntries) +
                    " entries each, and a remote DAL's shadow keeps the first only: a restart "
                    "lost the others (--shadow-bulk-entries keeps them all)");
  }
  return why;
}

RunReport makeReport(const std::string& topology, const sim::SimSwitch& sw,
                     const Zorvek::DemuxDal& dal, const Workload& workload, ChipCheck check) {
  const sim::Topology& t = sw.topology();
  RunReport report{.topology = topology,
                   .devices = t.devices.size(),
                   .serializers = t.serializers.size(),
                   .dalAgent = t.dalAgent,
                   .requesterName = t.agent(t.dalAgent)->requesterName,
                   .ready = dal.ready(),
                   .options = workload.options(),
                   .accesses = workload.accesses(),
                   .failedAccesses = workload.failedAccesses(),
                   .seconds = workload.seconds(),
                   .restarts = workload.restarts(),
                   .check = std::move(check)};
  for (const Route& route : workload.routes()) {
    report.dals.push_back(dalLine(route));
    const Kel::Ptr<Zorvek::Requester>& r = route.dal->requester();
    if (auto schan = Kel::dynamicPtrCast<Zorvek::SchanRequester>(r))
      report.requesters.push_back(schanLine(*schan));
    else
      report.requesters.push_back(queueLine(sw, *r));
  }
  return report;
}

// ---------------------------------------------------------------------------------------
// Text

namespace {

void printAccesses(const KindCounts& counts, std::ostream& out) {
  out << sum(counts) << " (";
  for (std::size_t k = 0; k < kAccessKinds; ++k)
    out << (k ? ", " : "") << accessKindName(static_cast<AccessKind>(k)) << " " << counts[k];
  out << ")";
}

void printDals(const RunReport& r, std::ostream& out) {
  out << "\nroutes, accesses and cache per DAL\n";
  for (const DalLine& d : r.dals) {
    out << "  " << d.name << (d.ready ? "" : " (not ready)") << ": " << d.resources.size()
        << (d.resources.size() == 1 ? " resource (" : " resources (") << joined(d.resources)
        << ")\n    accesses ";
    printAccesses(d.accesses, out);
    out << "\n    cache: reads " << d.readHits << " hits / " << d.readMisses << " misses, writes "
        << d.writeHits << " hits / " << d.writeMisses << " misses\n";
  }
}

void printRequesters(const RunReport& r, std::ostream& out) {
  out << "\ncommands per requester\n";
  for (const RequesterLine& q : r.requesters) {
    const bool schan = q.serializer == kSchan;
    out << "  " << std::left << std::setw(24) << q.name << std::setw(11) << q.serializer
        << std::right << " commands " << std::setw(7) << q.commands
        << (schan ? "  completed " : "  executed  ") << std::setw(7) << q.executed
        << (schan ? "  failed " : "  rejected ") << q.failed;
    if (q.heldBack) out << "  held back " << q.heldBack;
    if (q.lostToKills) out << "  lost to kills " << q.lostToKills;
    out << "\n";
  }
}

void printRestarts(const RunReport& r, std::ostream& out) {
  if (r.restarts.empty()) return;
  out << "\nrestarts\n";
  for (const Restart& s : r.restarts)
    out << "  " << s.serializer << " restarted after " << s.atAccess
        << (r.options.seconds ? "" : " of " + std::to_string(r.options.accesses))
        << " accesses (restart count " << s.restartCount << "): replayed " << s.replayedEntries
        << " entries\n";
}

void printProcesses(const RunReport& r, std::ostream& out) {
  if (r.processes.empty()) return;
  out << "\nprocesses\n";
  for (const ProcessLine& p : r.processes)
    out << "  " << std::left << std::setw(14) << p.name << std::right << " pid " << std::setw(7)
        << p.pid << "  " << p.state << "\n";
}

void printKills(const RunReport& r, std::ostream& out) {
  if (r.kills.empty()) return;
  out << "\nkills (SIGKILL at random accesses, a new process started at once)\n";
  for (const KillLine& k : r.kills) {
    out << "  " << k.serializer << ": killed " << k.kills << " times, replayed " << k.replays
        << " times, " << k.replayedEntries << " entries replayed, " << k.lostEntries
        << " entries lost\n";
    if (!k.traceFiles.empty()) {
      out << "    trace rings of the killed processes: " << k.traceFiles.back();
      if (k.traceFiles.size() > 1) out << " (the last; " << k.traceFiles.size() << " in all)";
      out << "\n";
    }
    if (k.killToReplayMs.empty()) continue;
    const auto [low, high] = std::minmax_element(k.killToReplayMs.begin(), k.killToReplayMs.end());
    const double total = std::accumulate(k.killToReplayMs.begin(), k.killToReplayMs.end(), 0.0);
    out << "    from the kill to the replay run: " << std::fixed << std::setprecision(1)
        << total / static_cast<double>(k.killToReplayMs.size()) << " ms on average, " << *low
        << " to " << *high << " ms (" << k.killToReplayMs.size() << " kills timed)\n";
    out.unsetf(std::ios::floatfield);
  }
}

void printDalKill(const RunReport& r, std::ostream& out) {
  if (!r.dalKill) return;
  const DalKillLine& k = *r.dalKill;
  out << "\nthe DAL's agent killed (SIGKILL) and started again cold\n  pid " << k.pid
      << " killed after " << k.accessesBeforeKill << " accesses, owning " << k.ownedAtKill
      << " entries of the serializers' tables; after the cold start: " << k.leftOwned
      << " entries of agent " << r.dalAgent << " left, " << k.otherEntries
      << " entries of other agents, " << k.otherEntriesChanged << " of them changed\n";
}

void printMemory(const RunReport& r, std::ostream& out) {
  if (r.memory.empty()) return;
  out << "\nresident memory (KiB, sampled every second; after the warm-up, at the end, highest)\n";
  // The serializers' line has a highest figure only: a process that is killed has no end.
  const auto kib = [](U64 v) { return v ? std::to_string(v) : std::string("-"); };
  for (const MemoryLine& m : r.memory)
    out << "  " << std::left << std::setw(14) << m.name << std::right << std::setw(8)
        << kib(m.afterWarmUpKiB) << std::setw(8) << kib(m.atEndKiB) << std::setw(8)
        << kib(m.highestKiB) << (m.grew ? "  GREW" : "") << "\n";
}

void printCheck(const RunReport& r, std::ostream& out) {
  const ChipCheck& c = r.check;
  out << "\nchip check: ";
  if (c.ok()) {
    out << "ok: the " << c.entries << " entries written by agent " << r.dalAgent
        << " are on the chip with their data masks applied\n";
    return;
  }
  out << "FAILED: " << c.mismatches.size() << " of " << c.entries
      << " entries written are not on the chip\n";
  for (std::size_t i = 0; i < c.mismatches.size() && i < kMismatchesShown; ++i) {
    const Mismatch& m = c.mismatches[i];
    out << "  device " << unsigned(m.devId.value()) << " " << m.resource << " entry " << m.entry
        << " (offset 0x" << std::hex << m.offset << std::dec << "): wrote " << hexBytes(m.expected)
        << ", chip has " << hexBytes(m.onChip)
        << (m.mask.empty() ? std::string() : ", mask " + hexBytes(m.mask)) << "\n";
  }
  if (c.mismatches.size() > kMismatchesShown)
    out << "  ... and " << c.mismatches.size() - kMismatchesShown
        << " more (--json lists every one)\n";
}

}  // namespace

void printText(const RunReport& r, std::ostream& out) {
  out << "zorvek-sim run: " << r.topology << " topology, " << r.devices << " devices, "
      << r.serializers << " serializers; the DAL runs in agent " << r.dalAgent << " ("
      << r.requesterName << ")\n";
  out << "DemuxDal " << (r.ready ? "ready" : "NOT ready") << " with " << r.dals.size()
      << " DALs\n\nworkload: seed " << r.options.seed << ", mix " << r.options.mix.text()
      << " (read:write:bulk)\n  accesses ";
  printAccesses(r.accesses, out);
  out << ", " << sum(r.failedAccesses) << " failed\n  " << std::fixed << std::setprecision(3)
      << r.seconds << " s, " << std::setprecision(0) << r.accessesPerSecond() << " accesses/s\n";
  out.unsetf(std::ios::floatfield);
  printDals(r, out);
  printRequesters(r, out);
  printRestarts(r, out);
  printKills(r, out);
  printDalKill(r, out);
  printProcesses(r, out);
  printMemory(r, out);
  printCheck(r, out);
  const std::vector<std::string> why = r.failures();
  out << "\nresult: " << (why.empty() ? "ok" : "FAILED") << "\n";
  for (const std::string& w : why) out << "  " << w << "\n";
  if (!r.stateDump.empty()) out << "\nstate dump\n" << r.stateDump;
  if (!r.trace.empty() || r.traceRecords) {
    out << "\ntrace ring: last " << r.trace.size() << " of " << r.traceRecords << " records\n";
    for (const std::string& line : r.trace) out << line << "\n";
  }
}

// ---------------------------------------------------------------------------------------
// JSON

namespace {

Json kindsJson(const KindCounts& counts) {
  Json j = Json::object();
  for (std::size_t k = 0; k < kAccessKinds; ++k)
    j[accessKindName(static_cast<AccessKind>(k))] = counts[k];
  return j;
}

Json dalJson(const DalLine& d) {
  return {{"name", d.name},
          {"ready", d.ready},
          {"resources", d.resources},
          {"accesses", kindsJson(d.accesses)},
          {"cache",
           {{"readHits", d.readHits},
            {"readMisses", d.readMisses},
            {"writeHits", d.writeHits},
            {"writeMisses", d.writeMisses}}}};
}

Json checkJson(const ChipCheck& c) {
  Json mismatches = Json::array();
  for (const Mismatch& m : c.mismatches)
    mismatches.push_back({{"device", m.devId.value()},
                          {"resource", m.resource},
                          {"entry", m.entry},
                          {"offset", m.offset},
                          {"wrote", hexBytes(m.expected)},
                          {"chip", hexBytes(m.onChip)},
                          {"mask", hexBytes(m.mask)}});
  return {{"ok", c.ok()}, {"entries", c.entries}, {"mismatches", std::move(mismatches)}};
}

}  // namespace

void printJson(const RunReport& r, std::ostream& out) {
  Json j;
  j["topology"] = r.topology;
  j["devices"] = r.devices;
  j["serializers"] = r.serializers;
  j["dalAgent"] = r.dalAgent;
  j["requesterName"] = r.requesterName;
  j["ready"] = r.ready;
  j["workload"] = {{"accesses", r.options.accesses},
                   {"seed", r.options.seed},
                   {"mix", r.options.mix.text()},
                   {"made", kindsJson(r.accesses)},
                   {"failed", kindsJson(r.failedAccesses)},
                   {"seconds", r.seconds},
                   {"accessesPerSecond", r.accessesPerSecond()}};
  j["dals"] = Json::array();
  for (const DalLine& d : r.dals) j["dals"].push_back(dalJson(d));
  j["requesters"] = Json::array();
  for (const RequesterLine& q : r.requesters)
    j["requesters"].push_back({{"name", q.name},
                               {"serializer", q.serializer},
                               {"commands", q.commands},
                               {"executed", q.executed},
                               {"failed", q.failed},
                               {"heldBack", q.heldBack},
                               {"lostToKills", q.lostToKills}});
  j["restarts"] = Json::array();
  for (const Restart& s : r.restarts)
    j["restarts"].push_back({{"serializer", s.serializer},
                             {"atAccess", s.atAccess},
                             {"restartCount", s.restartCount},
                             {"replayedEntries", s.replayedEntries}});
  j["processes"] = Json::array();
  for (const ProcessLine& p : r.processes)
    j["processes"].push_back(
        {{"name", p.name}, {"pid", p.pid}, {"state", p.state}, {"failed", p.failed}});
  j["kills"] = Json::array();
  for (const KillLine& k : r.kills)
    j["kills"].push_back({{"serializer", k.serializer},
                          {"kills", k.kills},
                          {"replays", k.replays},
                          {"replayedEntries", k.replayedEntries},
                          {"killToReplayMs", k.killToReplayMs},
                          {"traceFiles", k.traceFiles},
                          {"lostEntries", k.lostEntries}});
  j["memory"] = Json::array();
  for (const MemoryLine& m : r.memory)
    j["memory"].push_back({{"name", m.name},
                           {"afterWarmUpKiB", m.afterWarmUpKiB},
                           {"atEndKiB", m.atEndKiB},
                           {"highestKiB", m.highestKiB},
                           {"grew", m.grew}});
  if (r.dalKill)
    j["dalKill"] = {{"pid", r.dalKill->pid},
                    {"accessesBeforeKill", r.dalKill->accessesBeforeKill},
                    {"ownedAtKill", r.dalKill->ownedAtKill},
                    {"leftOwned", r.dalKill->leftOwned},
                    {"otherEntries", r.dalKill->otherEntries},
                    {"otherEntriesChanged", r.dalKill->otherEntriesChanged}};
  j["chipCheck"] = checkJson(r.check);
  j["failures"] = r.failures();
  j["ok"] = r.ok();
  if (!r.stateDump.empty()) j["stateDump"] = r.stateDump;
  if (!r.trace.empty() || r.traceRecords)
    j["trace"] = {{"records", r.traceRecords}, {"last", r.trace}};
  out << j.dump(2) << "\n";
}

}  // namespace simtool
