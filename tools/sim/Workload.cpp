#include "Workload.h"

#include "Interrupt.h"

#include <algorithm>
#include <chrono>

#include "ExitCode.h"

namespace simtool {

namespace {

// Bulk accesses move between 1 and this many entries.
constexpr U32 kMaxBulkEntries = 8;
constexpr U64 kClockEvery = 256;
// Bulk buffers held before the workload waits for the commands that use them.
constexpr std::size_t kMaxPendingBulkBuffers = 256;
const DeviceId kWriteDevice(0);

}  // namespace

const char* accessKindName(AccessKind kind) {
  switch (kind) {
    case AccessKind::read:
      return "read";
    case AccessKind::write:
      return "write";
    case AccessKind::bulkRead:
      return "bulkRead";
    case AccessKind::bulkWrite:
      return "bulkWrite";
  }
  return "?";
}

void checkRestarts(const sim::Topology& topology, const WorkloadOptions& options) {
  for (const std::string& name : options.restarts)
    if (!topology.serializer(name)) {
      std::string known;
      for (const auto& s : topology.serializers) known += (known.empty() ? "" : ", ") + s.name;
      throw BadInput("--restart " + name + ": " + options.source + " has no serializer named '" +
                     name + "' (it has: " + (known.empty() ? "none" : known) + ")");
    }
}

Workload::Workload(sim::SimSwitch& sw, Kel::Ptr<Zorvek::DemuxDal> dal, WorkloadOptions options)
    : sw_(sw), dal_(std::move(dal)), options_(std::move(options)), rng_(options_.seed) {
  checkRestarts(sw_.topology(), options_);
  routes_.push_back({dal_->defaultDal(), {}, {}});
  for (const sim::DeviceDef& d : sw_.topology().devices) addTargets(DeviceId(d.id));
  checkRunnable();
}

void Workload::addTargets(DeviceId devId) {
  for (const sim::ResourceLayout& layout : sw_.helper()->geometry(devId)->resources()) {
    if (layout.memoryEntrySize > Zorvek::maxBulkTransactionSizeInBytes())
      throw BadInput(options_.source + ": device " + std::to_string(devId.value()) + " resource '" +
                     layout.name + "': entries of " + std::to_string(layout.memoryEntrySize) +
                     " bytes are above " + std::to_string(Zorvek::maxBulkTransactionSizeInBytes()) +
                     ", the largest access the DAL makes");
    sim::SimOptArg arg = sw_.optArg(devId, layout.base);
    const std::size_t route = routeOf(dal_->dalSelector(layout.base, &arg));
    std::vector<std::string>& names = routes_[route].resources;
    if (std::find(names.begin(), names.end(), layout.name) == names.end())
      names.push_back(layout.name);
    const Target t{devId, &layout, route, dataMaskOf(layout, route)};
    readTargets_.push_back(t);
    if (layout.isTable()) bulkReadTargets_.push_back(t);
    if (devId != kWriteDevice) continue;
    writeTargets_.push_back(t);
    if (layout.isTable()) bulkWriteTargets_.push_back(t);
  }
}

std::size_t Workload::routeOf(const Kel::Ptr<Zorvek::RequesterDal>& dal) {
  for (std::size_t i = 0; i < routes_.size(); ++i)
    if (routes_[i].dal == dal) return i;
  routes_.push_back({dal, {}, {}});
  return routes_.size() - 1;
}

const std::vector<U8>* Workload::dataMaskOf(const sim::ResourceLayout& layout,
                                            std::size_t route) const {
  // Only the remote DALs write with masks; the default DAL writes whole entries.
  if (route == 0 || !layout.isTable()) return nullptr;
  for (const sim::SerializerDef& s : sw_.topology().serializers)
    for (const sim::LogicalResourceDef& res : s.resources)
      if (!res.dataMask.empty() &&
          std::count(res.tables.begin(), res.tables.end(), layout.baseId.id()) != 0)
        return &res.dataMask;
  return nullptr;
}

void Workload::checkRunnable() const {
  const Mix& mix = options_.mix;
  if ((mix.write > 0 || mix.bulk > 0) && writeTargets_.empty())
    throw BadInput(options_.source +
                   ": field 'devices': there is no device 0, and the DAL writes only device 0; "
                   "add one, or run reads only (--mix 1:0:0)");
  if (mix.bulk > 0 && bulkWriteTargets_.empty())
    throw BadInput(options_.source +
                   ": field 'devices': device 0 has no tables for bulk accesses; add one, or "
                   "run without them (--mix 30:70:0)");
}

U64 Workload::failedAccessCount() const {
  U64 n = 0;
  for (U64 f : failed_) n += f;
  return n;
}

// ---------------------------------------------------------------------------------------
// Running

void Workload::run(Progress& progress) {
  const auto start = std::chrono::steady_clock::now();
  const bool timed = options_.seconds > 0;
  const U64 total = timed ? UINT64_MAX : options_.accesses;
  const U64 restartPoint =
      options_.restarts.empty() || timed
          ? UINT64_MAX
          : std::min<U64>(total, static_cast<U64>(options_.restartAt * static_cast<double>(total)));
  const auto restartTime =
      start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                  std::chrono::duration<double>(options_.restartAt * options_.seconds));
  const auto end = start + std::chrono::seconds(options_.seconds);
  bool restarted = options_.restarts.empty();
  for (U64 i = 0;; ++i) {
    // A timed run looks at the clock every kClockEvery accesses.
    const bool clock = timed && i % kClockEvery == 0;
    const auto now = clock ? std::chrono::steady_clock::now() : start;
    if (i == restartPoint || (clock && !restarted && now >= restartTime)) {
      restartAll(i);
      restarted = true;
    }
    throwIfInterrupted();
    if (between_) between_(i);
    if (i == total || (clock && now >= end)) break;
    const AccessKind kind = nextKind();
    ++accesses_[static_cast<std::size_t>(kind)];
    if (access(kind) != 0) ++failed_[static_cast<std::size_t>(kind)];
    if (bulkBuffers_.size() >= kMaxPendingBulkBuffers) settle();
    progress.advanceTo(i + 1);
  }
  settle();
  progress.finish();
  seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

AccessKind Workload::nextKind() {
  const Mix& mix = options_.mix;
  const U64 r = std::uniform_int_distribution<U64>(0, mix.total() - 1)(rng_);
  if (r < mix.read) return AccessKind::read;
  if (r < U64{mix.read} + mix.write) return AccessKind::write;
  return rng_() % 2 ? AccessKind::bulkWrite : AccessKind::bulkRead;
}

const Workload::Target& Workload::pick(const std::vector<Target>& targets) {
  return targets[std::uniform_int_distribution<std::size_t>(0, targets.size() - 1)(rng_)];
}

U32 Workload::pickEntry(const Target& t) {
  return std::uniform_int_distribution<U32>(0, t.layout->entryCount - 1)(rng_);
}

std::vector<U8> Workload::randomBytes(std::size_t n) {
  std::vector<U8> bytes(n);
  for (U8& b : bytes) b = static_cast<U8>(rng_());
  return bytes;
}

S32 Workload::access(AccessKind kind) {
  switch (kind) {
    case AccessKind::read:
      return read(pick(readTargets_));
    case AccessKind::write:
      return write(pick(writeTargets_));
    case AccessKind::bulkRead:
      return bulk(pick(bulkReadTargets_), kind);
    case AccessKind::bulkWrite:
      return bulk(pick(bulkWriteTargets_), kind);
  }
  return -1;
}

S32 Workload::read(const Target& t) {
  ++routes_[t.route].accesses[static_cast<std::size_t>(AccessKind::read)];
  const DeviceOffset offset = t.layout->entryOffset(pickEntry(t));
  std::vector<U8> data(t.layout->memoryEntrySize);
  sim::SimOptArg arg = sw_.optArg(t.devId, offset);
  return dal_->dalRead(t.devId, offset, static_cast<sim::U16>(data.size()), data.data(), &arg);
}

S32 Workload::write(const Target& t) {
  ++routes_[t.route].accesses[static_cast<std::size_t>(AccessKind::write)];
  const U32 entry = pickEntry(t);
  const DeviceOffset offset = t.layout->entryOffset(entry);
  const std::vector<U8> data = randomBytes(t.layout->memoryEntrySize);
  sim::SimOptArg arg = sw_.optArg(t.devId, offset);
  const S32 rc = dal_->dalWrite(Zorvek::oneDeviceMask(t.devId), offset,
                                static_cast<sim::U16>(data.size()), data.data(), &arg);
  remember(t, entry, data.data());
  return rc;
}

S32 Workload::bulk(const Target& t, AccessKind kind) {
  ++routes_[t.route].accesses[static_cast<std::size_t>(kind)];
  const U32 first = pickEntry(t);
  const U32 entrySize = t.layout->memoryEntrySize;
  const bool remoteWrite = kind == AccessKind::bulkWrite && t.route != 0;
  const U32 most =
      std::min({remoteWrite ? options_.remoteBulkEntries : kMaxBulkEntries,
                t.layout->entryCount - first, Zorvek::maxBulkTransactionSizeInBytes() / entrySize});
  // Remote bulk writes are runs of exactly --remote-bulk-entries entries where they fit.
  const U32 entries = std::uniform_int_distribution<U32>(remoteWrite ? most : 1, most)(rng_);
  const DeviceOffset offset = t.layout->entryOffset(first);
  bulkBuffers_.push_back(randomBytes(std::size_t{entries} * entrySize));
  U8* buffer = bulkBuffers_.back().data();
  sim::SimOptArg arg = sw_.optArg(t.devId, offset);
  sim::SimDalHelper::bulkBufferIs(&arg, buffer);
  const U32 size = entries * entrySize;
  if (kind == AccessKind::bulkRead) return dal_->dalBulkRead(t.devId, offset, size, buffer, &arg);
  const S32 rc = dal_->dalBulkWrite(Zorvek::oneDeviceMask(t.devId), offset, size, buffer, &arg);
  for (U32 k = 0; k < entries; ++k) remember(t, first + k, buffer + std::size_t{k} * entrySize);
  return rc;
}

void Workload::remember(const Target& t, U32 entry, const U8* data) {
  WrittenEntry& w = written_[{t.devId.value(), t.layout->entryOffset(entry)}];
  w = {t.devId, t.layout, entry, std::vector<U8>(data, data + t.layout->memoryEntrySize),
       t.dataMask};
}

void Workload::restartAll(U64 atAccess) {
  for (const std::string& name : options_.restarts) {
    // The replay runs inside the restart: the remote DALs hear the new restart count and
    // queue their shadows at once.
    const U64 before = remoteCommandIndexes();
    const U64 restartCount = sw_.restart(name);
    restartsDone_.push_back({name, atAccess, restartCount, remoteCommandIndexes() - before});
  }
}

U64 Workload::remoteCommandIndexes() const {
  U64 sum = 0;
  for (std::size_t i = 1; i < routes_.size(); ++i) sum += routes_[i].dal->requester()->cmdIndex();
  return sum;
}

void Workload::settle() {
  for (const sim::DeviceDef& d : sw_.topology().devices) dal_->waitForCompletion(DeviceId(d.id));
  sw_.serve();
  bulkBuffers_.clear();
}

}  // namespace simtool
