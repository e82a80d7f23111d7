#include "Zorvek/DemuxDalCreator.h"

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

#include "Duwisp/Duwisp.h"
#include "Kel/Assert.h"
#include "Kel/Dir.h"
#include "Kel/Parse.h"
#include "Orv/WatchList.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/QueueRequester.h"
#include "Zorvek/RequesterDalRemote.h"
#include "Zorvek/RequesterDalSchan.h"
#include "Zorvek/SchanRequester.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(DemuxDalCreator, "Zorvek::DemuxDalCreator")
KEL_DEFINE_VALUE_TYPE(SerializerId, "Zorvek::SerializerId")
KEL_DEFINE_ENTITY_TYPE(SerializerInfo, "Zorvek::SerializerInfo")

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekDemuxDalCreator")

const char* const kWatchListPath = "platform/debug/watchlist";
// Both the S-channel and the queue requesters hold up to this many commands.
constexpr unsigned int kQueueSize = 1024;

// The collection writers of the creator share one shape: store or remove, then notify for
// the key, and only when the collection changed.
template <class Map, class Notify>
void collectionIs(Map& map, const typename Map::key_type& key,
                  const typename Map::mapped_type& value, Notify notify) {
  auto [it, inserted] = map.try_emplace(key, value);
  if (!inserted) {
    if (it->second == value) return;
    it->second = value;
  }
  notify(key);
}

template <class Map, class Notify>
void collectionDel(Map& map, const typename Map::key_type& key, Notify notify) {
  if (map.erase(key) != 0) notify(key);
}

template <class Map, class Notify>
void collectionDelAll(Map& map, Notify notify) {
  while (!map.empty()) {
    // Each observer sees the collection without the key it is told about.
    const typename Map::key_type key = map.begin()->first;
    map.erase(map.begin());
    notify(key);
  }
}

// The notification of a collection writer: `onX(key)` on every observer of `creator`.
template <class OnX>
auto notifyFor(const DemuxDalCreator& creator, OnX onX) {
  return [&creator, onX](const auto& key) { creator.notifiees().visit(onX, key); };
}

// The name of a resource type, for traces: a trace stores an enum as its number.
std::string resourceTypeName(ResourceType type) {
  std::ostringstream os;
  os << type;
  return os.str();
}

template <class Map>
typename Map::mapped_type collectionValue(const Map& map, const typename Map::key_type& key) {
  auto it = findByKey(map, key);
  return it == map.end() ? typename Map::mapped_type() : it->second;
}

}  // namespace

// SerializerId

SerializerId::SerializerId(Kel::String::IteratorConst begin, Kel::String::IteratorConst end) {
  Kel::deserializeAttr(begin, end, "value", value_);
  if (begin != end)
    throw Kel::ParseError("unexpected text after attribute 'value' of Zorvek::SerializerId: \"" +
                          std::string(begin, end) + "\"");
}

Kel::String valueToStrep(SerializerId id) { return Kel::valueToStrep(std::uint64_t{id.value()}); }

std::ostream& operator<<(std::ostream& os, SerializerId id) { return os << valueToStrep(id); }

// SerializerInfo

void SerializerInfo::agentIdIs(AgentId v) {
  notifiees_.store(agentId_, v, &NotifieeConst::onAgentId);
}
void SerializerInfo::nameIs(const Kel::String& v) {
  notifiees_.store(name_, v, &NotifieeConst::onName);
}
void SerializerInfo::kickFifoNameIs(const Kel::String& v) {
  notifiees_.store(kickFifoName_, v, &NotifieeConst::onKickFifoName);
}
void SerializerInfo::configDirNameIs(const Kel::String& v) {
  notifiees_.store(configDirName_, v, &NotifieeConst::onConfigDirName);
}
void SerializerInfo::statusDirNameIs(const Kel::String& v) {
  notifiees_.store(statusDirName_, v, &NotifieeConst::onStatusDirName);
}

// DemuxDalCreator

DemuxDalCreator::DemuxDalCreator(
    AgentId requesterAgentId,
    const Kel::Ptr<const LogicalRemoteResourceIdCol>& logicalRemoteResources,
    Kel::String coprocessorStatusAttrLogPath)
    : requesterAgentId_(requesterAgentId),
      logicalRemoteResources_(logicalRemoteResources),
      coprocessorStatusAttrLogPath_(std::move(coprocessorStatusAttrLogPath)) {}

DemuxDalCreator::~DemuxDalCreator() = default;

Kel::Ptr<DemuxDalCreator> demuxDalCreatorFactory(
    AgentId requesterAgentId,
    const Kel::Ptr<const LogicalRemoteResourceIdCol>& logicalRemoteResources,
    Kel::String coprocessorStatusAttrLogPath) {
  return Kel::allocate<DemuxDalCreator>(requesterAgentId, logicalRemoteResources,
                                        std::move(coprocessorStatusAttrLogPath));
}

void DemuxDalCreator::logicalRemoteResourcesIs(
    const Kel::Ptr<const LogicalRemoteResourceIdCol>& v) {
  notifiees_.store(logicalRemoteResources_, v, &NotifieeConst::onLogicalRemoteResources);
}
void DemuxDalCreator::coprocessorStatusIs(const Kel::Ptr<Corvane::CoprocessorStatus>& v) {
  notifiees_.store(coprocessorStatus_, v, &NotifieeConst::onCoprocessorStatus);
}
void DemuxDalCreator::localCoprocessorStatusIs(const Kel::Ptr<Corvane::CoprocessorStatus>& v) {
  notifiees_.store(localCoprocessorStatus_, v, &NotifieeConst::onLocalCoprocessorStatus);
}
void DemuxDalCreator::coprocessorStatusAttrLogIs(
    const Kel::Ptr<const Corvane::CoprocessorStatusAttrLog>& v) {
  notifiees_.store(coprocessorStatusAttrLog_, v, &NotifieeConst::onCoprocessorStatusAttrLog);
}
void DemuxDalCreator::coprocessorStatusAdapterSmIs(
    const Kel::Ptr<Corvane::CoprocessorStatusAttrLogAdapterSm>& v) {
  notifiees_.store(coprocessorStatusAdapterSm_, v, &NotifieeConst::onCoprocessorStatusAdapterSm);
}
void DemuxDalCreator::sliceIdIs(const Kel::String& v) {
  notifiees_.store(sliceId_, v, &NotifieeConst::onSliceId);
}
void DemuxDalCreator::nextDalIdIs(DalId v) {
  notifiees_.store(nextDalId_, v, &NotifieeConst::onNextDalId);
}
void DemuxDalCreator::nextDalIdInc(DalId delta) {
  nextDalIdIs(DalId(static_cast<U8>(nextDalId_.value() + delta.value())));
}
void DemuxDalCreator::trackErrorsIs(bool v) {
  notifiees_.store(trackErrors_, v, &NotifieeConst::onTrackErrors);
}
void DemuxDalCreator::mountGroupIs(Skorra::MountGroup* v) {
  notifiees_.store(mountGroup_, v, &NotifieeConst::onMountGroup);
}
void DemuxDalCreator::useSimulationForDefaultDalIs(bool v) {
  notifiees_.store(useSimulationForDefaultDal_, v, &NotifieeConst::onUseSimulationForDefaultDal);
}
void DemuxDalCreator::simulationSerializerIdIs(SerializerId v) {
  notifiees_.store(simulationSerializerId_, v, &NotifieeConst::onSimulationSerializerId);
}

Kel::Ptr<DalProcessingStatusCol> DemuxDalCreator::dalProcessingStatusColIs() {
  if (!dalProcessingStatusCol_)
    notifiees_.store(dalProcessingStatusCol_, Kel::allocate<DalProcessingStatusCol>(),
                     &NotifieeConst::onDalProcessingStatusCol);
  return dalProcessingStatusCol_;
}

void DemuxDalCreator::dalProcessingStatusColDel() {
  notifiees_.store(dalProcessingStatusCol_, Kel::Ptr<DalProcessingStatusCol>(),
                   &NotifieeConst::onDalProcessingStatusCol);
}

// Collections

SerializerId DemuxDalCreator::serializerIdMap(const LogicalResourceId& id) const {
  return collectionValue(serializerIdMap_, id);
}
void DemuxDalCreator::serializerIdMapIs(const LogicalResourceId& id, SerializerId sid) {
  collectionIs(serializerIdMap_, id, sid, notifyFor(*this, &NotifieeConst::onSerializerIdMap));
}
void DemuxDalCreator::serializerIdMapDel(const LogicalResourceId& id) {
  collectionDel(serializerIdMap_, id, notifyFor(*this, &NotifieeConst::onSerializerIdMap));
}
void DemuxDalCreator::serializerIdMapDelAll() {
  collectionDelAll(serializerIdMap_, notifyFor(*this, &NotifieeConst::onSerializerIdMap));
}

Kel::Ptr<PhysicalResourceIdCol> DemuxDalCreator::physicalRemoteResources(
    const LogicalResourceId& id) const {
  return collectionValue(physicalRemoteResources_, id);
}
void DemuxDalCreator::physicalRemoteResourcesIs(const LogicalResourceId& id,
                                                const Kel::Ptr<PhysicalResourceIdCol>& col) {
  collectionIs(physicalRemoteResources_, id, col,
               notifyFor(*this, &NotifieeConst::onPhysicalRemoteResources));
}
void DemuxDalCreator::physicalRemoteResourcesDel(const LogicalResourceId& id) {
  collectionDel(physicalRemoteResources_, id,
                notifyFor(*this, &NotifieeConst::onPhysicalRemoteResources));
}
void DemuxDalCreator::physicalRemoteResourcesDelAll() {
  collectionDelAll(physicalRemoteResources_,
                   notifyFor(*this, &NotifieeConst::onPhysicalRemoteResources));
}

LogicalResourceId DemuxDalCreator::physicalToLogicalResourceMap(
    const PhysicalResourceId& id) const {
  return collectionValue(physicalToLogicalResourceMap_, id);
}
void DemuxDalCreator::physicalToLogicalResourceMapIs(const PhysicalResourceId& id,
                                                     const LogicalResourceId& lid) {
  collectionIs(physicalToLogicalResourceMap_, id, lid,
               notifyFor(*this, &NotifieeConst::onPhysicalToLogicalResourceMap));
}
void DemuxDalCreator::physicalToLogicalResourceMapDel(const PhysicalResourceId& id) {
  collectionDel(physicalToLogicalResourceMap_, id,
                notifyFor(*this, &NotifieeConst::onPhysicalToLogicalResourceMap));
}
void DemuxDalCreator::physicalToLogicalResourceMapDelAll() {
  collectionDelAll(physicalToLogicalResourceMap_,
                   notifyFor(*this, &NotifieeConst::onPhysicalToLogicalResourceMap));
}

const Kel::String& DemuxDalCreator::requesterName(AgentId agentId) const {
  static const Kel::String kNone;
  auto it = requesterName_.find(agentId);
  return it == requesterName_.end() ? kNone : it->second;
}
void DemuxDalCreator::requesterNameIs(AgentId agentId, const Kel::String& name) {
  collectionIs(requesterName_, agentId, name, notifyFor(*this, &NotifieeConst::onRequesterName));
}
void DemuxDalCreator::requesterNameDel(AgentId agentId) {
  collectionDel(requesterName_, agentId, notifyFor(*this, &NotifieeConst::onRequesterName));
}
void DemuxDalCreator::requesterNameDelAll() {
  collectionDelAll(requesterName_, notifyFor(*this, &NotifieeConst::onRequesterName));
}

Kel::Ptr<SerializerInfo> DemuxDalCreator::serializerInfo(SerializerId sid) const {
  return collectionValue(serializerInfo_, sid);
}
Kel::Ptr<SerializerInfo> DemuxDalCreator::serializerInfoIs(SerializerId sid) {
  auto [it, inserted] = serializerInfo_.try_emplace(sid);
  if (!inserted) return it->second;
  it->second = Kel::allocate<SerializerInfo>(sid);
  // The notification may remove the entry; the caller still gets the one it asked for.
  Kel::Ptr<SerializerInfo> info = it->second;
  notifiees_.visit(&NotifieeConst::onSerializerInfo, sid);
  return info;
}
void DemuxDalCreator::serializerInfoDel(SerializerId sid) {
  collectionDel(serializerInfo_, sid, notifyFor(*this, &NotifieeConst::onSerializerInfo));
}
void DemuxDalCreator::serializerInfoDelAll() {
  collectionDelAll(serializerInfo_, notifyFor(*this, &NotifieeConst::onSerializerInfo));
}

// Ownership

AgentId DemuxDalCreator::ownerAgentIdForLogicalResource(const LogicalResourceId& id) const {
  // An unmapped logical resource falls back to serializer 0, if one is described.
  const Kel::Ptr<SerializerInfo> info = serializerInfo(serializerIdMap(id));
  return info ? info->agentId() : kInvalidAgentId;
}

AgentId DemuxDalCreator::ownerAgentIdForPhysicalResource(const PhysicalResourceId& id) const {
  auto it = findByKey(physicalToLogicalResourceMap_, id);
  if (it == physicalToLogicalResourceMap_.end()) return kInvalidAgentId;
  return ownerAgentIdForLogicalResource(it->second);
}

void DemuxDalCreator::doMounts(const Kel::Ptr<Skorra::MountGroup>& mountGroup) {
  DUWISP_TRACE(th(), 0, "doMounts");
  mountGroupIs(mountGroup.ptr());
  auto mount = [&](const Kel::String& path, const char* typeName, const char* mode) {
    mountGroup->doMount(Skorra::Mount(path, typeName, mode));
  };
  for (const auto& [sid, sInfo] : serializerInfo_) {
    DUWISP_TRACE(th(), 7, "Mounting Serializer %s configDir %s statusDir %s", sInfo->agentId(),
                 sInfo->configDirName(), sInfo->statusDirName());
    // As a serializer this agent reads its configuration and writes its status.
    if (sInfo->agentId() != requesterAgentId()) continue;
    mount(sInfo->configDirName(), "Kel::Dir", "ri");
    mount(sInfo->statusDirName(), "Kel::Dir", "wi");
  }
  if (useSimulationForDefaultDal()) {
    const Kel::Ptr<SerializerInfo> sInfo = serializerInfo(simulationSerializerId());
    KEL_ASSERT(sInfo);
    mount(sInfo->configDirName(), "Kel::Dir", "wi");
    mount(sInfo->statusDirName(), "Kel::Dir", "ri");
  }
  if (!coprocessorStatusAttrLogPath().empty())
    mount(coprocessorStatusAttrLogPath(), "Corvane::CoprocessorStatusAttrLog", "r");
  mount(kWatchListPath, "Orv::WatchList", "ri");
  if (!logicalRemoteResources()) return;
  for (const auto& [logicalId, mask] : logicalRemoteResources()->dataMaskCol()) {
    const Kel::Ptr<SerializerInfo> sInfo = remoteSerializerInfo(logicalId);
    DUWISP_TRACE(th(), 7, "Mounting resource %s for serializer agent %s requester agent %s",
                 logicalId, sInfo->agentId(), requesterAgentId());
    KEL_ASSERT(sInfo->agentId() != requesterAgentId());
    // As a requester towards another serializer it writes that serializer's configuration
    // (where the queue lives) and reads its status.
    mount(sInfo->configDirName(), "Kel::Dir", "wi");
    mount(sInfo->statusDirName(), "Kel::Dir", "ri");
  }
}

Kel::Ptr<SerializerInfo> DemuxDalCreator::remoteSerializerInfo(const LogicalResourceId& id) const {
  const Kel::Ptr<SerializerInfo> sInfo = serializerInfo(serializerIdMap(id));
  KEL_ASSERT(sInfo);
  return sInfo;
}

Kel::Ptr<Kel::Entity> DemuxDalCreator::mountedEntity(const Kel::String& path) const {
  return mountGroup_ ? mountGroup_->entityManager()->getEntity(path) : nullptr;
}

// ---------------------------------------------------------------------------------------
// Requesters

DalId DemuxDalCreator::takeDalId() {
  const DalId dalId = nextDalId();
  nextDalIdInc(DalId(1));
  KEL_ASSERT_TEXT(nextDalId().value() != 0, "nextDalId()");
  return dalId;
}

Kel::Ptr<Requester> DemuxDalCreator::createRequester(SerializerId sid) {
  DUWISP_TRACE(th(), 0, "createRequester SerializerId %s", sid);
  const Kel::Ptr<SerializerInfo> sInfo = serializerInfo(sid);
  KEL_ASSERT(sInfo);
  const auto configDir = Kel::dynamicPtrCast<Kel::Dir>(mountedEntity(sInfo->configDirName()));
  const auto statusDir = Kel::dynamicPtrCast<const Kel::Dir>(mountedEntity(sInfo->statusDirName()));
  const auto watchList = Kel::dynamicPtrCast<Orv::WatchList>(mountedEntity(kWatchListPath));
  DUWISP_TRACE(th(), 7, "Mounting watchlist");
  KEL_ASSERT_TEXT(requesterName(requesterAgentId()) != "",
                  "requesterName( requesterAgentId() ) != \"\"");
  const Kel::String requesterSerializerName =
      requesterName(requesterAgentId()) + "-" + sInfo->name();
  DUWISP_TRACE(th(), 0, "createRequester requesterSerializerName %s", requesterSerializerName);
  const Kel::String queueName = requesterSerializerName + "-Queue";
  DUWISP_TRACE(th(), 0, "createRequester queueName %s", queueName);
  const Kel::String kickName = "Kick-" + requesterSerializerName + "-Requester";
  const DalId dalId = takeDalId();
  const Kel::Ptr<DalProcessingStatusCol> statusCol = dalProcessingStatusColIs();
  statusCol->processingStatusIs(dalId);
  if (trackErrors()) statusCol->processingStatus(dalId)->errorTrackingIs(true);
  const Kel::Ptr<DalProcessingStatus> status = statusCol->processingStatus(dalId);
  return Kel::allocate<QueueRequester>(queueName, requesterAgentId(), kQueueSize, dalId, status,
                                       watchList, IoMemType(1), configDir, statusDir,
                                       sInfo->kickFifoName(), kickName);
}

// ---------------------------------------------------------------------------------------
// Assembly

Kel::String DemuxDalCreator::schanQueueName() const {
  Kel::String name = requesterName(requesterAgentId());
  if (!sliceId().empty()) name += "-" + sliceId();
  return name + "-Schan-Queue";
}

void DemuxDalCreator::makeLocalCoprocessorStatus() {
  if (coprocessorStatusAttrLogPath().empty()) {
    localCoprocessorStatusIs(
        Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("dalCoprocessorStatus")));
    return;
  }
  coprocessorStatusAttrLogIs(Kel::dynamicPtrCast<const Corvane::CoprocessorStatusAttrLog>(
      mountedEntity(coprocessorStatusAttrLogPath())));
  localCoprocessorStatusIs(
      Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("dalCoprocessorStatus")));
  // The adapter is made even when the log was not found: it then leaves the status empty.
  coprocessorStatusAdapterSmIs(
      Corvane::CoprocessorStatusAttrLogAdapterSm::CoprocessorStatusAttrLogAdapterSmIs(
          coprocessorStatusAttrLog(), localCoprocessorStatus()));
}

Kel::Ptr<RequesterDalSchan> DemuxDalCreator::makeDefaultDal() {
  DUWISP_TRACE(th(), 2, "Creating schan requester");
  const Kel::String queueName = schanQueueName();
  if (!coprocessorStatus()) makeLocalCoprocessorStatus();
  dalProcessingStatusColIs();
  const DalId dalId = takeDalId();
  dalProcessingStatusCol()->processingStatusIs(dalId);
  const Kel::Ptr<DalProcessingStatus> status = dalProcessingStatusCol()->processingStatus(dalId);
  const auto watchList = Kel::dynamicPtrCast<Orv::WatchList>(mountedEntity(kWatchListPath));
  const Kel::Ptr<Corvane::CoprocessorStatus> copStatus =
      coprocessorStatus() ? coprocessorStatus() : localCoprocessorStatus();
  KEL_ASSERT(copStatus);
  // The last argument repeats the agent id on purpose.
  const auto schan =
      Kel::allocate<SchanRequester>(queueName, requesterAgentId(), kQueueSize, dalId, status,
                                    watchList, static_cast<unsigned int>(requesterAgentId()));
  return requesterDalSchanFactory(Kel::Name("SchanRequesterDal"), schan, copStatus);
}

void DemuxDalCreator::addRemoteDals(ResourceIdToDalMap& resourceIdToDalMap) {
  std::map<SerializerId, Kel::Ptr<ResourceIdToDataMaskMap>> dataMaskMaps;
  const auto& logical = logicalRemoteResources()->dataMaskCol();
  for (const auto& [logicalId, mask] : logical) {
    const SerializerId sid = serializerIdMap(logicalId);
    const Kel::Ptr<SerializerInfo> sInfo = remoteSerializerInfo(logicalId);
    KEL_ASSERT(sInfo->agentId() != requesterAgentId());
    const RequesterDataMask dataMask = mask;
    const Kel::Ptr<PhysicalResourceIdCol> physical = physicalRemoteResources(logicalId);
    DUWISP_TRACE(th(), 1, "Logical table ID %s serializerId %s", logicalId, sid);
    if (!dataMask.flag()) continue;
    Kel::Ptr<ResourceIdToDataMaskMap>& masks = dataMaskMaps[sid];
    if (!masks) masks = Kel::allocate<ResourceIdToDataMaskMap>();
    if (physical)
      for (const PhysicalResourceId& pid : physical->resourceIdCol())
        masks->dataMaskIs(pid, dataMask);
  }
  std::map<SerializerId, Kel::Ptr<RequesterDalRemote>> remoteDalMap;
  for (const auto& [logicalId, mask] : logical) {
    const SerializerId sid = serializerIdMap(logicalId);
    Kel::Ptr<RequesterDalRemote>& dal = remoteDalMap[sid];
    if (dal) {
      DUWISP_TRACE(th(), 1, "Found existing dal for %s", sid);
    } else {
      const Kel::Ptr<Requester> requester = createRequester(sid);
      auto masks = dataMaskMaps.find(sid);
      dal = requesterDalRemoteFactory(Kel::Name(requester->name()), requester,
                                      masks == dataMaskMaps.end() ? nullptr : masks->second);
    }
    const Kel::Ptr<PhysicalResourceIdCol> physical = physicalRemoteResources(logicalId);
    if (!physical) continue;
    for (const PhysicalResourceId& pid : physical->resourceIdCol()) {
      DUWISP_TRACE(th(), 1, "Setting requester dal for resource type %s id 0x%x",
                   resourceTypeName(pid.type()), pid.id());
      resourceIdToDalMap.dalIs(pid, dal);
      dal->remoteResourceIs(pid, true);
    }
  }
}

Kel::Ptr<DemuxDal> DemuxDalCreator::demuxDal() {
  const Kel::Ptr<RequesterDalSchan> defaultDal = makeDefaultDal();
  const Kel::Ptr<ResourceIdToDalMap> resourceIdToDalMap = resourceIdToDalMapFactory();
  // With local shadow access forced (any value), everything goes to the default DAL.
  if (logicalRemoteResources() && !std::getenv("XP_FORCE_LOCAL_SHADOW_ACCESS"))
    addRemoteDals(*resourceIdToDalMap);
  const Kel::Ptr<DemuxDal> demux =
      demuxDalFactory(Kel::Name("demuxDal"), Kel::Ptr<const DemuxDalCreator>(this), defaultDal,
                      resourceIdToDalMap, dalProcessingStatusCol());
  demux->hwAccessAllowedIs(!std::getenv("XP_SKIP_HW_ACCESS"));
  demux->okToReadFromShadowIs(true);
  demux->okToWriteToShadowIs(true);
  if (std::getenv("SIMULATION_VMID")) demux->verifyEnabledIs(true);
  return demux;
}

}  // namespace Zorvek
