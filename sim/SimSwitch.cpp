#include "sim/SimSwitch.h"

#include <stdexcept>

#include "Orv/WatchList.h"
#include "Zorvek/RequesterDataMask.h"
#include "Zorvek/ResourceIdCol.h"
#include "Zorvek/SchanBackend.h"

namespace sim {

namespace {

PhysicalResourceId tableId(U64 id) { return PhysicalResourceId(ResourceType::tableResource_, id); }
Zorvek::LogicalResourceId logicalId(U64 id) {
  return Zorvek::LogicalResourceId(ResourceType::tableResource_, id);
}

Zorvek::RequesterDataMask dataMask(const LogicalResourceDef& res) {
  Zorvek::RequesterDataMask mask(!res.dataMask.empty());
  for (U32 i = 0; i < res.dataMask.size(); ++i) mask.maskByteIs(i, res.dataMask[i]);
  return mask;
}

}  // namespace

SimSwitch::SimSwitch(Topology topology)
    : SimSwitch(std::move(topology),
                Processes{Kel::allocate<Skorra::Database>(), Kel::allocate<SimChipSet>(), {}}) {}

SimSwitch::SimSwitch(Topology topology, Processes processes)
    : topology_(std::move(topology)),
      restarter_(std::move(processes.restarter)),
      database_(std::move(processes.database)),
      chips_(std::move(processes.chips)),
      helper_(Kel::allocate<SimDalHelper>()) {
  topology_.validate("topology");
  for (const DeviceDef& d : topology_.devices) {
    const DeviceId devId(d.id);
    Kel::Ptr<SimChip> chip = chips_->chip(devId);
    if (!chip) {
      chip = Kel::allocate<SimChip>(devId, deviceGeometry(d));
      chips_->chipIs(chip);
    }
    helper_->deviceIs(devId, chip->geometry());
  }
  database_->entityIs("platform/debug/watchlist",
                      Kel::allocate<Orv::WatchList>(Kel::Name("watchlist")));
  // Two coprocessors are up when the switch starts; tests and runs may publish more.
  coprocessorStatusLog_ =
      Kel::allocate<Corvane::CoprocessorStatusAttrLog>(Kel::Name("coprocessorStatusLog"));
  coprocessorStatusLog_->setRecordIs("cop0", Corvane::Coprocessor(1, 1));
  coprocessorStatusLog_->setRecordIs("cop1", Corvane::Coprocessor(2, 1));
  database_->entityIs(kCoprocessorStatusLogPath, coprocessorStatusLog_);
  if (!restarter_) buildSerializers();
  fillCreator();
  Zorvek::schanBackendIs(chips_);
}

SimSwitch::~SimSwitch() {
  if (Zorvek::schanBackend() == chips_) Zorvek::schanBackendIs(nullptr);
}

void SimSwitch::buildSerializers() {
  for (const SerializerDef& s : topology_.serializers) {
    auto serializer = Kel::allocate<SimSerializer>(
        Zorvek::SerializerId(s.id), s.agent, Kel::Name(s.name), chips_,
        Kel::Ptr<const Kel::Dir>(database_->dirIs(s.configDir)), database_->dirIs(s.statusDir));
    for (const LogicalResourceDef& res : s.resources)
      for (U64 table : res.tables) serializer->ownedTableIs(tableId(table));
    serializers_.push_back(serializer);
  }
}

void SimSwitch::fillCreator() {
  auto remote = Kel::allocate<Zorvek::LogicalRemoteResourceIdCol>();
  creator_ = Zorvek::demuxDalCreatorFactory(topology_.dalAgent, remote,
                                            Kel::String(kCoprocessorStatusLogPath));
  for (const AgentDef& a : topology_.agents) creator_->requesterNameIs(a.id, a.requesterName);
  for (const SerializerDef& s : topology_.serializers) {
    const Zorvek::SerializerId sid(s.id);
    const Kel::Ptr<Zorvek::SerializerInfo> info = creator_->serializerInfoIs(sid);
    info->agentIdIs(s.agent);
    info->nameIs(s.name);
    info->kickFifoNameIs(s.kickQueue);
    info->configDirNameIs(s.configDir);
    info->statusDirNameIs(s.statusDir);
    for (const LogicalResourceDef& res : s.resources) {
      const Zorvek::LogicalResourceId lid = logicalId(res.id);
      creator_->serializerIdMapIs(lid, sid);
      auto physical = Kel::allocate<Zorvek::PhysicalResourceIdCol>();
      for (U64 table : res.tables) {
        physical->resourceIdIs(tableId(table));
        creator_->physicalToLogicalResourceMapIs(tableId(table), lid);
      }
      creator_->physicalRemoteResourcesIs(lid, physical);
      if (s.agent != topology_.dalAgent) remote->dataMaskIs(lid, dataMask(res));
    }
  }
}

Kel::Ptr<Zorvek::DemuxDal> SimSwitch::buildDal() {
  mountGroup_ = Kel::allocate<Skorra::MountGroup>(database_);
  creator_->doMounts(mountGroup_);
  mountGroup_->completeMounts();
  Kel::Ptr<Zorvek::DemuxDal> dal = creator_->demuxDal();
  dal->helperIs(helper_);
  for (const DeviceDef& d : topology_.devices) dal->initLocalCache(DeviceId(d.id), true);
  serve();
  return dal;
}

unsigned SimSwitch::serve() {
  unsigned n = 0;
  for (const auto& s : serializers_) n += s->serve();
  return n;
}

Kel::Ptr<SimSerializer> SimSwitch::serializer(std::string_view name) const {
  for (const auto& s : serializers_)
    if (s->name() == name) return s;
  return nullptr;
}

Kel::Ptr<SimSerializer> SimSwitch::owner(const PhysicalResourceId& table) const {
  for (const auto& s : serializers_)
    if (s->ownedTable(table)) return s;
  return nullptr;
}

U64 SimSwitch::restart(std::string_view serializerName) {
  if (!topology_.serializer(serializerName))
    throw std::invalid_argument("no serializer named '" + std::string(serializerName) + "'");
  if (restarter_) return restarter_(serializerName);
  const Kel::Ptr<SimSerializer> s = serializer(serializerName);
  s->restart();
  return s->restartCount();
}

const SerializerDef* SimSwitch::serializerOf(const Zorvek::Requester& requester) const {
  for (const SerializerDef& s : topology_.serializers)
    if (database_->entity(s.configDir + "/" + requester.name())) return &s;
  return nullptr;
}

SimOptArg SimSwitch::optArg(DeviceId devId, DeviceOffset offset) const {
  SimOptArg arg{};
  helper_->setOptArg(devId, helper_->geometry(devId)->locate(offset).layout->id, offset, &arg);
  return arg;
}

}  // namespace sim
