#include "Supervisor.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

#include "ExitCode.h"
#include "SkorraRedis/RedisBackend.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/SerializerStatus.h"

namespace simtool {

namespace {

constexpr auto kStopGrace = std::chrono::seconds(5);
constexpr auto kSampleEvery = std::chrono::seconds(1);
constexpr std::size_t kMinSamples = 5;
// What resident memory may grow after the warm-up (or a tenth of it, if more) and still count
// as flat: allocators keep some slack.
constexpr U64 kAllowedGrowthKiB = 1024;

// The resident memory of a process, in KiB (0 when it cannot be read).
U64 residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::strtoull(line.c_str() + 6, nullptr, 10);
  return 0;
}
constexpr auto kRestartLimit = std::chrono::seconds(20);

// zorvek-serializer next to this program, else on the PATH; empty when neither.
std::string defaultSerializerBin() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) {
    const std::string beside =
        Skorra::programPath((self.parent_path() / "zorvek-serializer").string());
    if (!beside.empty()) return beside;
  }
  return Skorra::programPath("zorvek-serializer");
}

std::string serializerBinOf(const std::string& given) {
  if (given.empty()) {
    const std::string found = defaultSerializerBin();
    if (found.empty())
      throw BadInput(
          "--processes: zorvek-serializer is neither next to zorvek-sim nor on the PATH; build "
          "it, or name it with --serializer-bin");
    return found;
  }
  const std::string found = Skorra::programPath(given);
  if (found.empty()) throw BadInput("--serializer-bin " + given + ": no such executable file");
  return found;
}

// Unlinks every shared-memory segment whose name starts with `prefix` ("/zorvek-PID").
void unlinkSegments(const std::string& prefix) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", error))
    if (const std::string name = "/" + entry.path().filename().string();
        name.starts_with(prefix + "-"))
      shm_unlink(name.c_str());
}

}  // namespace

Supervisor::Supervisor(const sim::Topology& topology, std::string topologyPath,
                       std::string serializerBin, Kel::ActivityLoop& loop, std::string traceDir)
    : topology_(topology),
      topologyPath_(std::move(topologyPath)),
      serializerBin_(serializerBinOf(serializerBin)),
      loop_(loop),
      traceDir_(std::move(traceDir)),
      prefix_("/zorvek-" + std::to_string(getpid())) {
  if (Skorra::programPath("redis-server").empty())
    throw BadInput("--processes: redis-server is not on the PATH; scripts/bootstrap installs it");
  redis_ = std::make_unique<Skorra::RedisServer>("/tmp" + prefix_ + "-redis");
  database_ = Skorra::redisDatabase(redis_->url(), loop_);
  chips_.emplace(sim::ChipSegment::create(prefix_ + "-chips", topology_));
  Zorvek::commandRingPrefixIs(prefix_);
  for (const sim::SerializerDef& def : topology_.serializers) {
    serializers_.push_back({&def, nullptr});
    start(serializers_.back());
  }
}

Supervisor::~Supervisor() {
  Zorvek::commandRingPrefixIs("");
  for (Serializer& s : serializers_)
    if (s.process) s.process->stop(kStopGrace);
  database_ = nullptr;
  redis_.reset();
  chips_.reset();
  unlinkSegments(prefix_);
}

void Supervisor::start(Serializer& s) {
  std::vector<std::string> argv{serializerBin_, "--serializer", s.def->name,       "--state-db",
                                redis_->url(),  "--chip",       prefix_ + "-chips"};
  if (!topologyPath_.empty()) argv.insert(argv.end(), {"--topology", topologyPath_});
  if (!traceDir_.empty()) argv.insert(argv.end(), {"--trace-dir", traceDir_});
  s.process = std::make_unique<ChildProcess>(s.def->name, argv);
}

sim::SimSwitch::Processes Supervisor::switchProcesses() {
  return {database_, chips_->chips(), [this](std::string_view name) { return restart(name); }};
}

sim::U64 Supervisor::restartCount(const sim::SerializerDef& def) const {
  const auto status = Kel::dynamicPtrCast<const Zorvek::SerializerStatus>(
      database_->entity(def.statusDir + "/" + std::string(Zorvek::SerializerStatus::kEntryName)));
  return status ? status->restartCount() : 0;
}

sim::U64 Supervisor::restart(std::string_view name) {
  for (Serializer& s : serializers_) {
    if (s.def->name != name) continue;
    const sim::U64 before = restartCount(*s.def);
    s.process->stop(kStopGrace);
    replaced_.push_back({s.def->name, static_cast<long>(s.process->pid()),
                         s.process->state() + " for a restart",
                         !s.process->state().starts_with("stopped")});
    start(s);
    if (!runUntil([&] { return restartCount(*s.def) > before; }, kRestartLimit))
      throw std::runtime_error("serializer " + s.def->name + " did not count its restart within " +
                               std::to_string(kRestartLimit.count()) + " s");
    return restartCount(*s.def);
  }
  throw std::invalid_argument("no serializer named '" + std::string(name) + "'");
}

void Supervisor::checkProcesses() {
  for (Serializer& s : serializers_)
    if (s.process->endedByItself())
      throw std::runtime_error("serializer " + s.def->name + " (pid " +
                               std::to_string(s.process->pid()) + ") " + s.process->state());
}

bool Supervisor::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    checkProcesses();
    loop_.runOnce(std::chrono::milliseconds(5));
  }
  return done();
}

Supervisor::KillPlan Supervisor::killPlan(const std::string& text, const sim::Topology& topology) {
  const auto colon = text.find(':');
  KillPlan plan{text.substr(0, colon), 1};
  if (colon != std::string::npos) {
    const std::string count = text.substr(colon + 1);
    const auto [end, ec] = std::from_chars(count.data(), count.data() + count.size(), plan.count);
    if (ec != std::errc() || end != count.data() + count.size() || plan.count == 0)
      throw BadInput("--kill " + text +
                     ": expected NAME or NAME:COUNT, COUNT a whole number above 0");
  }
  if (!topology.serializer(plan.serializer)) {
    std::string known;
    for (const auto& s : topology.serializers) known += (known.empty() ? "" : ", ") + s.name;
    throw BadInput("--kill " + text + ": the topology has no serializer named '" + plan.serializer +
                   "' (it has: " + (known.empty() ? "none" : known) + ")");
  }
  return plan;
}

void Supervisor::killsIs(const std::vector<KillPlan>& plans, const WorkloadOptions& workload,
                         const sim::SimSwitch& sw,
                         const std::vector<Kel::Ptr<Zorvek::Requester>>& requesters) {
  // Its own generator: the kills leave the workload's accesses as they are without them.
  std::mt19937_64 rng(workload.seed ^ 0x6b696c6c73ull);
  timed_ = workload.seconds > 0;
  const U64 span = timed_ ? workload.seconds * 1000000 : std::max<U64>(workload.accesses, 1);
  for (const KillPlan& plan : plans) {
    auto it = std::find_if(followed_.begin(), followed_.end(), [&](const Followed& f) {
      return f.serializer->def->name == plan.serializer;
    });
    if (it == followed_.end()) {
      Followed f{};
      f.line.serializer = plan.serializer;
      for (Serializer& s : serializers_)
        if (s.def->name == plan.serializer) f.serializer = &s;
      for (const auto& r : requesters)
        if (const sim::SerializerDef* s = sw.serializerOf(*r); s && s->name == plan.serializer)
          f.requester = Kel::dynamicPtrCast<Zorvek::QueueRequester>(r);
      followed_.push_back(std::move(f));
      it = followed_.end() - 1;
    }
    for (U64 k = 0; k < plan.count; ++k)
      killPoints_.emplace_back(std::uniform_int_distribution<U64>(1, span)(rng),
                               static_cast<std::size_t>(it - followed_.begin()));
  }
  std::sort(killPoints_.begin(), killPoints_.end());
}

void Supervisor::kill(Followed& f) {
  ChildProcess& process = *f.serializer->process;
  // The kill lines count the killed processes: the process lines keep to the others.
  process.kill();
  ++f.line.kills;
  if (!traceDir_.empty())
    f.line.traceFiles.push_back(traceDir_ + "/" + f.serializer->def->name + "-" +
                                std::to_string(process.pid()) + ".kwisp");
  f.killedAt = std::chrono::steady_clock::now();
  f.replayEnd = 0;
  start(*f.serializer);
}

void Supervisor::turn() {
  std::vector<std::pair<U64, U64>> before;  // (restart count heard, command index)
  for (const Followed& f : followed_)
    before.emplace_back(f.requester ? f.requester->serializerRestartCount() : 0,
                        f.requester ? f.requester->cmdIndex() : 0);
  loop_.runOnce(std::chrono::milliseconds(0));
  for (std::size_t i = 0; i < followed_.size(); ++i) {
    Followed& f = followed_[i];
    if (!f.requester) continue;
    // The replay runs as the restart is heard, in this turn: nothing else queues meanwhile.
    if (f.requester->serializerRestartCount() != before[i].first) {
      ++f.line.replays;
      f.line.replayedEntries += f.requester->cmdIndex() - before[i].second;
      f.replayEnd = f.requester->cmdIndex() - 1;
    }
    if (f.killedAt && f.replayEnd && f.requester->ring()->lastExecutedIndex() >= f.replayEnd) {
      f.line.killToReplayMs.push_back(
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - *f.killedAt)
              .count());
      f.killedAt.reset();
    }
  }
}

void Supervisor::tick(U64 made) {
  const auto now = std::chrono::steady_clock::now();
  if (!started_) {
    started_ = now;
    nextSample_ = now + kSampleEvery;
  }
  const U64 at =
      timed_ ? static_cast<U64>(
                   std::chrono::duration_cast<std::chrono::microseconds>(now - *started_).count())
             : made;
  for (; nextKill_ < killPoints_.size() && killPoints_[nextKill_].first <= at; ++nextKill_)
    kill(followed_[killPoints_[nextKill_].second]);
  if (!followed_.empty()) turn();
  if (now >= nextSample_) {
    sampleMemory();
    nextSample_ = now + kSampleEvery;
  }
}

void Supervisor::sampleMemory() {
  selfKiB_.push_back(residentKiB(getpid()));
  redisKiB_.push_back(residentKiB(redis_->pid()));
  for (Serializer& s : serializers_)
    if (s.process->running())
      serializersKiB_ = std::max(serializersKiB_, residentKiB(s.process->pid()));
}

std::vector<MemoryLine> Supervisor::memoryLines() const {
  if (selfKiB_.size() < kMinSamples) return {};
  const auto line = [](std::string name, const std::vector<U64>& kib) {
    MemoryLine m{std::move(name)};
    const auto warm = kib.begin() + static_cast<long>(kib.size() / 5);
    m.afterWarmUpKiB = *warm;
    m.atEndKiB = kib.back();
    m.highestKiB = *std::max_element(warm, kib.end());
    m.grew =
        m.highestKiB > m.afterWarmUpKiB + std::max<U64>(kAllowedGrowthKiB, m.afterWarmUpKiB / 10);
    return m;
  };
  std::vector<MemoryLine> lines{line("zorvek-sim", selfKiB_), line("redis-server", redisKiB_)};
  lines.push_back({"serializers", 0, 0, serializersKiB_, false});
  return lines;
}

void Supervisor::settle() {
  const auto pending = [&] {
    return std::any_of(followed_.begin(), followed_.end(),
                       [](const Followed& f) { return f.killedAt.has_value(); });
  };
  const auto deadline = std::chrono::steady_clock::now() + kRestartLimit;
  while (pending() && std::chrono::steady_clock::now() < deadline) {
    checkProcesses();
    turn();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  for (const Followed& f : followed_)
    if (f.killedAt)
      throw std::runtime_error("serializer " + f.serializer->def->name +
                               " was killed and its replay did not run within " +
                               std::to_string(kRestartLimit.count()) + " s");
}

std::vector<KillLine> Supervisor::killLines(const ChipCheck& check) const {
  std::vector<KillLine> lines;
  for (const Followed& f : followed_) {
    lines.push_back(f.line);
    lines.back().lostEntries = check.lost(f.serializer->def->name);
  }
  return lines;
}

std::vector<ProcessLine> Supervisor::processLines() {
  std::vector<ProcessLine> lines{
      {"redis-server", static_cast<long>(redis_->pid()), "running", false}};
  lines.insert(lines.end(), replaced_.begin(), replaced_.end());
  for (Serializer& s : serializers_)
    lines.push_back({s.def->name, static_cast<long>(s.process->pid()), s.process->state(),
                     s.process->endedByItself()});
  return lines;
}

}  // namespace simtool
