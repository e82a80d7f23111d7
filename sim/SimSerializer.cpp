#include "sim/SimSerializer.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "Duwisp/Duwisp.h"

namespace sim {

KEL_DEFINE_ENTITY_TYPE(sim::SimSerializer, "sim::SimSerializer")

namespace {

KEL_FILE_TRACE_HANDLE("SimSerializer")

const Kel::String kStatusEntry{Zorvek::SerializerStatus::kEntryName};

}  // namespace

SimSerializer::SimSerializer(Zorvek::SerializerId id, AgentId agentId, Kel::Name name,
                             Kel::Ptr<SimChipSet> chips, Kel::Ptr<const Kel::Dir> configDir,
                             Kel::Ptr<Kel::Dir> statusDir)
    : id_(id),
      agentId_(agentId),
      name_(std::move(name)),
      chips_(std::move(chips)),
      configDir_(std::move(configDir)),
      statusDir_(std::move(statusDir)) {
  if (!chips_ || !configDir_ || !statusDir_)
    throw std::invalid_argument("SimSerializer '" + name_ +
                                "' needs chips, a configuration and a status directory");
  DUWISP_TRACE(th(), 1, "SimSerializer %s id %s agent %s", name_, id_, agentId_);
  // The status first: attaching the queues below marks them served in it.
  status_ = Kel::dynamicPtrCast<Zorvek::SerializerStatus>(statusDir_->entity(kStatusEntry));
  tookOver_ = status_ != nullptr;
  if (!status_) {
    status_ = Kel::allocate<Zorvek::SerializerStatus>(name_);
    statusDir_->entityIs(kStatusEntry, status_);
  }
  attacher_ = Kel::allocate<Zorvek::QueueAttacher>(configDir_, this);
}

SimSerializer::~SimSerializer() {
  attacher_ = nullptr;  // detaches every queue: none is served any more
  if (!retired_ && statusDir_->entity(kStatusEntry) == status_) statusDir_->entityDel(kStatusEntry);
}

void SimSerializer::retire() {
  attacher_ = nullptr;
  retired_ = true;
  DUWISP_TRACE(th(), 1, "SimSerializer::retire %s restartCount %s", name_, status_->restartCount());
}

bool SimSerializer::owns(DeviceId devId, const PhysicalResourceId& rid) const {
  if (rid.type() != ResourceType::tableResource_) return false;
  if (ownedTable(rid)) return true;
  const Kel::Ptr<SimChip> chip = chips_->chip(devId);
  const ResourceLayout* r = chip ? chip->geometry()->layout(rid) : nullptr;
  return r && ownedTable(r->baseId);
}

SimSerializer::QueueCounters SimSerializer::counters(const Kel::String& queueName) const {
  const auto it = queueCounters_.find(queueName);
  return it == queueCounters_.end() ? QueueCounters{} : it->second;
}

unsigned SimSerializer::serve() {
  // Commands may attach or detach queues while they run: walk a copy.
  std::vector<Kel::Ptr<Zorvek::RequesterQueue>> queues;
  for (const auto& [name, queue] : attacher_->queues()) queues.push_back(queue);
  unsigned ran = 0;
  for (const auto& queue : queues) ran += queue->drain();
  for (auto& [name, ring] : rings_) ran += serveRing(ring);
  return ran;
}

unsigned SimSerializer::serveRing(Ring& ring) {
  Zorvek::CommandRingConsumer& consumer = *ring.consumer;
  Zorvek::QueueCommand& cmd = ring.cmd;
  Zorvek::RingCommand taken;
  unsigned ran = 0;
  for (; consumer.front(taken); ++ran) {
    static_cast<Zorvek::CommandHeader&>(cmd) = taken.header;
    cmd.dataMask.assign(taken.dataMask.begin(), taken.dataMask.end());
    // A read's data, and a bulk read's entries, are made here and go back through the ring.
    const bool returnsData =
        cmd.command == Zorvek::Command::readCmd_ || cmd.command == Zorvek::Command::bulkReadCmd_;
    if (returnsData) {
      cmd.data.assign(cmd.bytes(), 0);
      if (cmd.command == Zorvek::Command::bulkReadCmd_)
        cmd.physAddr = reinterpret_cast<Zorvek::PhysicalAddr>(cmd.data.data());
    } else {
      cmd.data.assign(taken.data.begin(), taken.data.end());
    }
    const bool ok = commandExecute(*ring.queue, cmd);
    if (ok && returnsData) consumer.readDataIs(cmd.data.data(), static_cast<U32>(cmd.data.size()));
    consumer.commandExecuted(ok);
  }
  return ran;
}

bool SimSerializer::waitForCommand(std::chrono::milliseconds timeout) {
  if (rings_.empty()) return false;
  // One ring is waited on; several share the time.
  const auto slice =
      std::max(timeout / static_cast<long>(rings_.size()), std::chrono::milliseconds(1));
  for (auto& [name, ring] : rings_)
    if (ring.consumer->waitForCommand(slice) == Zorvek::RingWait::done_) return true;
  return false;
}

void SimSerializer::restart() {
  for (const auto& [devId, chip] : chips_->chips()) {
    for (const PhysicalResourceId& rid : ownedTables_) {
      const ResourceLayout* r = chip->geometry()->layout(rid);
      if (!r) continue;
      // A base id stands for every instance; another instance id for itself only.
      const auto wiped = r->instance == 0 ? chip->geometry()->instances(rid)
                                          : std::span<const ResourceLayout>(r, 1);
      for (const ResourceLayout& instance : wiped) chip->tableWipe(instance.id);
    }
  }
  status_->restartCountInc(1);
  DUWISP_TRACE(th(), 0, "SimSerializer::restart %s restartCount %s", name_,
               status_->restartCount());
}

bool SimSerializer::commandExecute(const Zorvek::RequesterQueue& queue, Zorvek::QueueCommand& cmd) {
  QueueCounters& counters = queueCounters_[queue.name()];
  const Zorvek::TargetMask& targets = cmd.targets;
  for (DeviceId d = targets.firstDevice(); !d.isNull(); d = targets.fapmask().nextFapId(d)) {
    if (owns(d, cmd.resourceId)) continue;
    ++counters.rejected;
    ++rejectedCmds_;
    DUWISP_TRACE(th(), 3,
                 "SimSerializer::commandExecute %s rejected %s cmdIndex %s of queue %s: device %s "
                 "resource type %s id 0x%x is not owned",
                 name_, Zorvek::commandName(cmd.command), cmd.cmdIndex, queue.name(), d,
                 cmd.resourceId.type(), cmd.resourceId.id());
    return false;
  }
  ++counters.executed;
  const bool ok = cmd.command == Zorvek::Command::freeCmd_
                      ? freeExecute(queue, cmd)
                      : chips_->commandExecute(cmd, queue.agentId()) >= 0;
  DUWISP_TRACE(th(), 9, "SimSerializer::commandExecute %s %s cmdIndex %s offset 0x%x ok %s", name_,
               Zorvek::commandName(cmd.command), cmd.cmdIndex, cmd.offset, ok);
  return ok;
}

bool SimSerializer::freeExecute(const Zorvek::RequesterQueue& queue,
                                const Zorvek::QueueCommand& cmd) {
  const Kel::Ptr<SimChip> chip = chips_->chip(cmd.devId());
  if (!chip) return false;
  const U8* mask = cmd.dataMask.empty() ? nullptr : cmd.dataMask.data();
  const S32 freed =
      chip->freeOwned(cmd.resourceId, queue.agentId(), mask, static_cast<U32>(cmd.dataMask.size()));
  DUWISP_TRACE(th(), 7, "SimSerializer::freeExecute %s agent %s table 0x%x freed %s", name_,
               queue.agentId(), cmd.resourceId.id(), freed);
  return freed >= 0;
}

void SimSerializer::queueAttached(Zorvek::RequesterQueue& queue) {
  queueCounters_.try_emplace(queue.name());
  if (!queue.ringName().empty()) {
    try {
      rings_[queue.name()] = Ring{Kel::Ptr<Zorvek::RequesterQueue>(&queue),
                                  std::make_unique<Zorvek::CommandRingConsumer>(queue.ringName()),
                                  {}};
    } catch (const Zorvek::CommandRingError& e) {
      // Not served: its requester stays not ready, and the trace says why.
      DUWISP_TRACE(th(), 0, "SimSerializer::queueAttached %s queue %s: %s", name_, queue.name(),
                   e.what());
      return;
    }
  }
  status_->servedQueueIs(queue.name());
  DUWISP_TRACE(th(), 6, "SimSerializer::queueAttached %s queue %s agent %s", name_, queue.name(),
               queue.agentId());
}

void SimSerializer::queueDetached(Zorvek::RequesterQueue& queue) {
  rings_.erase(queue.name());
  status_->servedQueueDel(queue.name());
  DUWISP_TRACE(th(), 6, "SimSerializer::queueDetached %s queue %s", name_, queue.name());
}

}  // namespace sim
