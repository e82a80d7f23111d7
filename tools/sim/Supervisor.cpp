#include "Supervisor.h"

#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "ExitCode.h"
#include "SkorraRedis/RedisBackend.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/SerializerStatus.h"

namespace simtool {

namespace {

constexpr auto kStopGrace = std::chrono::seconds(5);
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
                       std::string serializerBin, Kel::ActivityLoop& loop)
    : topology_(topology),
      topologyPath_(std::move(topologyPath)),
      serializerBin_(serializerBinOf(serializerBin)),
      loop_(loop),
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
