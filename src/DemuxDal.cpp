#include "Zorvek/DemuxDal.h"

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <vector>

#include "AccessPath.h"
#include "Duwisp/Duwisp.h"
#include "Kel/Assert.h"
#include "Kel/Parse.h"
#include "Zorvek/DemuxDalCreator.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(DemuxDal::DemuxDalReadySm, "Zorvek::DemuxDal::DemuxDalReadySm")
KEL_DEFINE_ENTITY_TYPE(DemuxDal, "Zorvek::DemuxDal")
KEL_DEFINE_ENTITY_TYPE(ResourceIdToDalMap, "Zorvek::ResourceIdToDalMap")
KEL_DEFINE_VALUE_TYPE(CmdIndexTuple, "Zorvek::CmdIndexTuple")
KEL_DEFINE_ENTITY_TYPE(EnqueuedCmdStatus, "Zorvek::EnqueuedCmdStatus")

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekDemuxDal")

bool parseBool(std::string_view name, std::string_view text) {
  if (text == "True") return true;
  if (text == "False") return false;
  throw Kel::AttributeError("attribute '" + std::string(name) + "' wants True or False, not '" +
                            std::string(text) + "'");
}

}  // namespace

// ---------------------------------------------------------------------------------------
// ResourceIdToDalMap

ResourceIdToDalMap::~ResourceIdToDalMap() = default;

void ResourceIdToDalMap::dalIs(const PhysicalResourceId& key, const Kel::Ptr<RequesterDal>& value) {
  auto it = dals_.find(key);
  if (it == dals_.end()) {
    if (!value) return;  // nothing stored, nothing to tell
    dals_.emplace(key, value);
  } else if (it->second == value) {
    return;
  } else if (!value) {
    dals_.erase(it);
  } else {
    it->second = value;
  }
  dalNotify(key);
}

Kel::Ptr<RequesterDal> ResourceIdToDalMap::dalDel(const PhysicalResourceId& key) {
  auto it = dals_.find(key);
  if (it == dals_.end()) return nullptr;
  Kel::Ptr<RequesterDal> old = std::move(it->second);
  dals_.erase(it);
  dalNotify(key);
  return old;
}

void ResourceIdToDalMap::dalDelAll() {
  std::vector<PhysicalResourceId> keys;
  keys.reserve(dals_.size());
  for (const auto& [key, dal] : dals_) keys.push_back(key);
  for (const PhysicalResourceId& key : keys) dalDel(key);
}

Kel::Ptr<ResourceIdToDalMap> resourceIdToDalMapFactory() {
  return Kel::allocate<ResourceIdToDalMap>();
}

// ---------------------------------------------------------------------------------------
// CmdIndexTuple and EnqueuedCmdStatus

CmdIndexTuple::CmdIndexTuple(Kel::String::IteratorConst& it,
                             const Kel::String::IteratorConst& end) {
  Kel::needString(it, end, "Value('Zorvek::CmdIndexTuple', ** {");
  Kel::needString(it, end, "'startingCmdIndex': ");
  Kel::deserializeAttr(it, end, "startingCmdIndex", startingCmdIndex_);
  Kel::needString(it, end, ", 'endingCmdIndex': ");
  Kel::deserializeAttr(it, end, "endingCmdIndex", endingCmdIndex_);
  Kel::needString(it, end, "})");
}

Kel::String valueToStrep(const CmdIndexTuple& t) {
  return "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': " +
         Kel::valueToStrep(t.startingCmdIndex()) +
         ", 'endingCmdIndex': " + Kel::valueToStrep(t.endingCmdIndex()) + "})";
}

std::ostream& operator<<(std::ostream& os, const CmdIndexTuple& t) { return os << valueToStrep(t); }

EnqueuedCmdStatus::~EnqueuedCmdStatus() = default;

void EnqueuedCmdStatus::enqueuedCmdIndexDelAll() {
  std::vector<DalId> keys;
  for (const auto& [dalId, tuple] : indexes_) keys.push_back(dalId);
  for (DalId d : keys) enqueuedCmdIndexDel(d);
}

// ---------------------------------------------------------------------------------------
// DemuxDal: construction and routing

DemuxDal::DemuxDal(Kel::Name name, const Kel::Ptr<const DemuxDalCreator>& demuxDalCreator,
                   const Kel::Ptr<RequesterDal>& defaultDal,
                   const Kel::Ptr<ResourceIdToDalMap>& resourceIdToDalMap,
                   const Kel::Ptr<DalProcessingStatusCol>& dalProcessingStatusCol)
    : Dal(std::move(name)),
      demuxDalCreator_(demuxDalCreator),
      defaultDal_(defaultDal),
      resourceIdToDalMap_(resourceIdToDalMap),
      dalProcessingStatusCol_(dalProcessingStatusCol) {
  handleInitialized();
}

DemuxDal::~DemuxDal() {
  if (!demuxDalReadySm_) return;
  demuxDalReadySm_->kelDoZombieReactors(true);
  demuxDalReadySm_->parentIs(nullptr);
}

void DemuxDal::handleInitialized() {
  DUWISP_TRACE(th(), 8, "handleInitialized");
  demuxDalReadySm_ = DemuxDalReadySm::DemuxDalReadySmIs(defaultDal_, resourceIdToDalMap_, this);
}

// Routes and owners are keyed by the normalized id; the traces name the resource the access
// touched, as the agent knows it. The DAL is returned without a reference of its own: the map
// or this DemuxDal holds one, and the caller takes its own before anything can change them.
// Inline in each access, which it starts.
[[gnu::always_inline]] inline RequesterDal* DemuxDal::selectDal(const PhysicalResourceId& rid,
                                                                void* optArg) {
  const PhysicalResourceId normalized = helper()->normalizedResourceId(rid);
  if (!optArg || forceUseDefaultDal_) {
    DUWISP_TRACE(th(), 8, "Resource type %s id 0x%x forceDefaultDal %s", rid.type(), rid.id(),
                 forceUseDefaultDal_);
    return defaultDal_.ptr();
  }
  const auto entry = findByKey(resourceIdToDalMap_->dals(), normalized);
  RequesterDal* const found =
      entry == resourceIdToDalMap_->dals().end() ? nullptr : entry->second.ptr();
  if (!resourceOwnershipCheckEnabled_) return found ? found : defaultDal_.ptr();

  KEL_ASSERT(demuxDalCreator());
  const AgentId owner = demuxDalCreator_->ownerAgentIdForPhysicalResource(normalized);
  const AgentId me = demuxDalCreator_->requesterAgentId();
  // An unknown owner counts as this agent. The variable is looked up on every access.
  bool resourceOwnedByMe = true;
  if (!std::getenv("XP_FORCE_LOCAL_SHADOW_ACCESS") && owner != kInvalidAgentId)
    resourceOwnedByMe = owner == me;
  if (forceReadFromShadow()) return found ? found : defaultDal_.ptr();

  const bool extDal = found != nullptr;
  if (extDal && !resourceOwnedByMe) return found;
  if (!extDal && resourceOwnedByMe) return defaultDal_.ptr();
  DUWISP_TRACE(th(), 0,
               "Resource type %s id %s is owned by agent %s and not by agent %s extDal %s "
               "resourceOwnedByMe %s",
               rid.type(), rid.id(), owner, me, extDal, resourceOwnedByMe);
  KEL_ASSERT_TEXT((extDal && !resourceOwnedByMe) || (!extDal && resourceOwnedByMe),
                  "( (extDal && !resourceOwnedByMe) || (!extDal && resourceOwnedByMe) )");
  return defaultDal_.ptr();
}

Kel::Ptr<RequesterDal> DemuxDal::dalSelector(DeviceOffset offset, void* optArg) {
  return selectDal(helper()->resourceId(offset, optArg), optArg);
}

// The accesses call the RequesterDal implementation directly, not through the virtual
// table, and hand back its result unchanged. The resource this DemuxDal's helper gave for
// the routing goes with the access when the DAL routed to has the same helper, so that the
// helper is not asked again; a DAL with a helper of its own asks its own.
S32 DemuxDal::dalWrite(const TargetMask& targetMask, DeviceOffset offset, U16 size,
                       const void* data, void* optArg) {
  const PhysicalResourceId rid = helper()->resourceId(offset, optArg);
  const Kel::Ptr<RequesterDal> dal(selectDal(rid, optArg));
  if (dal->helper() != helper())
    return dal->RequesterDal::dalWrite(targetMask, offset, size, data, optArg);
  detail::AccessScope access(*dal, offset, optArg, rid);
  return detail::AccessPath::write(*dal, access, targetMask, offset, size, data, optArg);
}

S32 DemuxDal::dalRead(DeviceId devId, DeviceOffset offset, U16 size, void* data, void* optArg) {
  const PhysicalResourceId rid = helper()->resourceId(offset, optArg);
  const Kel::Ptr<RequesterDal> dal(selectDal(rid, optArg));
  if (dal->helper() != helper())
    return dal->RequesterDal::dalRead(devId, offset, size, data, optArg);
  detail::AccessScope access(*dal, offset, optArg, rid);
  return detail::AccessPath::read(*dal, access, devId, offset, size, data, optArg);
}

S32 DemuxDal::dalBulkWrite(const TargetMask& targetMask, DeviceOffset offset, U32 size,
                           const void* data, void* optArg) {
  KEL_ASSERT(size <= maxBulkTransactionSizeInBytes());
  const PhysicalResourceId rid = helper()->resourceId(offset, optArg);
  const Kel::Ptr<RequesterDal> dal(selectDal(rid, optArg));
  if (dal->helper() != helper())
    return dal->RequesterDal::dalBulkWrite(targetMask, offset, size, data, optArg);
  const detail::AccessScope access(*dal, offset, optArg, rid);
  return detail::resolvedBulkOperation(*dal, rid, targetMask, offset, const_cast<void*>(data), size,
                                       optArg, bulkWriteCmd());
}

S32 DemuxDal::dalBulkRead(DeviceId devId, DeviceOffset offset, U32 size, void* data, void* optArg) {
  KEL_ASSERT(size <= maxBulkTransactionSizeInBytes());
  const PhysicalResourceId rid = helper()->resourceId(offset, optArg);
  const Kel::Ptr<RequesterDal> dal(selectDal(rid, optArg));
  if (dal->helper() != helper())
    return dal->RequesterDal::dalBulkRead(devId, offset, size, data, optArg);
  const detail::AccessScope access(*dal, offset, optArg, rid);
  return detail::resolvedBulkOperation(*dal, rid, oneDeviceMask(devId), offset, data, size, optArg,
                                       bulkReadCmd());
}

// ---------------------------------------------------------------------------------------
// Fan-out operations

void DemuxDal::waitForCompletion(DeviceId devId) {
  for (const auto& [rid, dal] : *resourceIdToDalMap_)
    if (dal->hwAccessAllowed() && dal->ready()) dal->RequesterDal::waitForCompletion(devId);
  waitForCompletionDefaultDal(devId);
}

void DemuxDal::waitForCompletionDefaultDal(DeviceId devId) {
  if (defaultDal_->hwAccessAllowed() && defaultDal_->ready())
    defaultDal_->RequesterDal::waitForCompletion(devId);
}

void DemuxDal::initLocalCache(DeviceId devId, bool coldStart) {
  for (const auto& [rid, dal] : *resourceIdToDalMap_) dal->initLocalCache(devId, coldStart);
}

void DemuxDal::handleDalHelper() {
  defaultDal_->helperIs(helper());
  for (const auto& [rid, dal] : *resourceIdToDalMap_) dal->helperIs(helper());
}

void DemuxDal::handleCoprocessorChecker() {
  defaultDal_->coprocessorCheckerIs(coprocessorChecker());
}

// ---------------------------------------------------------------------------------------
// Option propagation: the value reaches the default DAL first, then every member.

void DemuxDal::traceOptions(const char* reaction) const {
  DUWISP_TRACE(th(), 7,
               "DemuxDal::%s %s hwAccessAllowed %s forceReadFromShadow %s okToReadFromShadow %s "
               "okToWriteToShadow %s blocking %s reclaimWhenProgrammed %s",
               reaction, name(), hwAccessAllowed(), forceReadFromShadow(), okToReadFromShadow(),
               okToWriteToShadow(), blocking(), reclaimWhenProgrammed());
}

void DemuxDal::propagate(void (Dal::*setter)(bool), bool value) {
  ((*defaultDal_).*setter)(value);
  for (const auto& [rid, dal] : *resourceIdToDalMap_) ((*dal).*setter)(value);
}

void DemuxDal::handleHwAccessAllowedOptions() {
  traceOptions("handleHwAccessAllowedOptions");
  propagate(&Dal::hwAccessAllowedIs, hwAccessAllowed());
}

void DemuxDal::handleBlockingOptions() {
  traceOptions("handleBlockingOptions");
  propagate(&Dal::blockingIs, blocking());
}

void DemuxDal::handleReadFromShadowOptions() {
  traceOptions("handleReadFromShadowOptions");
  propagate(&Dal::okToReadFromShadowIs, okToReadFromShadow());
}

void DemuxDal::handleWriteToShadowOptions() {
  traceOptions("handleWriteToShadowOptions");
  propagate(&Dal::okToWriteToShadowIs, okToWriteToShadow());
}

void DemuxDal::handleForceReadFromShadowOptions() {
  traceOptions("handleForceReadFromShadowOptions");
  propagate(&Dal::forceReadFromShadowIs, forceReadFromShadow());
}

void DemuxDal::handleReclaimWhenProgrammed() {
  traceOptions("handleReclaimWhenProgrammed");
  propagate(&Dal::reclaimWhenProgrammedIs, reclaimWhenProgrammed());
}

void DemuxDal::handleSkipHwWriteIfShadowHit() {
  DUWISP_TRACE(th(), 7, "DemuxDal::handleSkipHwWriteIfShadowHit %s skipHwWriteIfShadowHit %s",
               name(), skipHwWriteIfShadowHit());
  propagate(&Dal::skipHwWriteIfShadowHitIs, skipHwWriteIfShadowHit());
}

void DemuxDal::handleVerifyEnabled() { propagate(&Dal::verifyEnabledIs, verifyEnabled()); }

// hwAccessAllowed and reclaimWhenProgrammed: store, copy to every member, then notify, so an
// observer of the DemuxDal finds every member already changed.
void DemuxDal::hwAccessAllowedIs(bool v) {
  if (v == hwAccessAllowed()) return;
  storeHwAccessAllowed(v);
  handleHwAccessAllowedOptions();
  notifiees().visit(&NotifieeConst::onHwAccessAllowed);
}

void DemuxDal::reclaimWhenProgrammedIs(bool v) {
  if (v == reclaimWhenProgrammed()) return;
  storeReclaimWhenProgrammed(v);
  handleReclaimWhenProgrammed();
  notifiees().visit(&NotifieeConst::onReclaimWhenProgrammed);
}

void DemuxDal::blockingIs(bool v) {
  if (v == blocking()) return;
  Dal::blockingIs(v);
  handleBlockingOptions();
}

void DemuxDal::verifyEnabledIs(bool v) {
  if (v == verifyEnabled()) return;
  Dal::verifyEnabledIs(v);
  handleVerifyEnabled();
}

void DemuxDal::forceReadFromShadowIs(bool v) {
  if (v == forceReadFromShadow()) return;
  Dal::forceReadFromShadowIs(v);
  handleForceReadFromShadowOptions();
}

void DemuxDal::okToReadFromShadowIs(bool v) {
  if (v == okToReadFromShadow()) return;
  Dal::okToReadFromShadowIs(v);
  handleReadFromShadowOptions();
}

void DemuxDal::okToWriteToShadowIs(bool v) {
  if (v == okToWriteToShadow()) return;
  Dal::okToWriteToShadowIs(v);
  handleWriteToShadowOptions();
}

void DemuxDal::skipHwWriteIfShadowHitIs(bool v) {
  if (v == skipHwWriteIfShadowHit()) return;
  Dal::skipHwWriteIfShadowHitIs(v);
  handleSkipHwWriteIfShadowHit();
}

void DemuxDal::helperIs(const Kel::Ptr<DalHelper>& h) {
  if (h == helper()) return;
  Dal::helperIs(h);
  handleDalHelper();
}

// ---------------------------------------------------------------------------------------
// Reflective attributes

bool DemuxDal::attribute(std::string_view name, std::string& value) const {
  if (name == "forceUseDefaultDal") {
    value = Kel::valueToStrep(forceUseDefaultDal_);
  } else if (name == "resourceOwnershipCheckEnabled") {
    value = Kel::valueToStrep(resourceOwnershipCheckEnabled_);
  } else if (name == "initialized") {
    value = Kel::valueToStrep(initialized_);
  } else if (name == "trackedCmdIndexStart") {
    value = "{";
    for (const auto& [dalId, start] : trackedCmdIndexStart_)
      value += std::to_string(dalId.value()) + ": " + Kel::valueToStrep(start) + ", ";
    value += "}";
  } else {
    return Dal::attribute(name, value);
  }
  return true;
}

void DemuxDal::attributeIs(std::string_view name, std::string_view value) {
  if (name == "forceUseDefaultDal")
    forceUseDefaultDal_ = parseBool(name, value);
  else if (name == "resourceOwnershipCheckEnabled")
    resourceOwnershipCheckEnabled_ = parseBool(name, value);
  else
    Dal::attributeIs(name, value);
}

// ---------------------------------------------------------------------------------------
// Command-index tracking

void DemuxDal::startTrackingCmdStatus(const Kel::Ptr<EnqueuedCmdStatus>& status) {
  DalProcessingStatusCol* pStatusCol = dalProcessingStatusCol_.ptr();
  KEL_ASSERT(pStatusCol);
  for (const auto& [dalId, entry] : pStatusCol->processingStatuses()) {
    status->enqueuedCmdIndexIs(dalId, CmdIndexTuple(entry->lastEnqueuedCmdIndex(), 0));
    entry->cmdStatusTrackingIs(true);
  }
}

void DemuxDal::enqueuedCmdStatuses(const Kel::Ptr<EnqueuedCmdStatus>& status) {
  if (!dalProcessingStatusCol_) return;
  for (const auto& [dalId, entry] : dalProcessingStatusCol_->processingStatuses()) {
    const CmdIndexTuple* snapshot = status->enqueuedCmdIndex(dalId);
    const U64 start = snapshot ? snapshot->startingCmdIndex() : 0;
    const U64 current = entry->lastEnqueuedCmdIndex();
    if (current <= start)
      status->enqueuedCmdIndexDel(dalId);
    else
      status->enqueuedCmdIndexIs(dalId, CmdIndexTuple(start + 1, current));
    entry->cmdStatusTrackingIs(false);
  }
}

// ---------------------------------------------------------------------------------------
// State dump

void DemuxDal::showDemuxDalState(U32 fd) {
  DUWISP_TRACE(th(), 8, "void Zorvek::DemuxDal::showDemuxDalState(U32)");
  const int f = static_cast<int>(fd);
  showDalState(fd);
  dprintf(f, "'defaultDalState': {");
  defaultDal_->showDalState(fd);
  dprintf(f, "},");
  dprintf(f, "'remoteDals': {");
  for (const auto& [rid, dal] : *resourceIdToDalMap_) {
    dprintf(f, "'%llu': {", static_cast<unsigned long long>(rid.id()));
    dal->showDalState(fd);
    dprintf(f, "},");
  }
  dprintf(f, "},");
}

// ---------------------------------------------------------------------------------------
// Readiness

class DemuxDal::DemuxDalReadySm::KelDefaultDal : public Dal::NotifieeConst {
 public:
  explicit KelDefaultDal(DemuxDalReadySm* sm) : sm_(sm) {}
  void onReady() override { sm_->handleDalReady(); }

 private:
  DemuxDalReadySm* sm_;  // the owning machine; never owning
};

class DemuxDal::DemuxDalReadySm::KelResourceIdToDalMap : public ResourceIdToDalMap::NotifieeConst {
 public:
  explicit KelResourceIdToDalMap(DemuxDalReadySm* sm) : sm_(sm) {}
  void onDal(const PhysicalResourceId& key) override { sm_->onMapEntry(key); }
  void onDalkelImmediate() override { sm_->onWholeMap(); }

 private:
  DemuxDalReadySm* sm_;
};

class DemuxDal::DemuxDalReadySm::KelDal : public Dal::NotifieeConst {
 public:
  KelDal(DemuxDalReadySm* sm, const PhysicalResourceId& key) : sm_(sm), key_(key) {}
  const PhysicalResourceId& key() const { return key_; }
  void onReady() override { sm_->handleDalReady(); }

 private:
  DemuxDalReadySm* sm_;
  PhysicalResourceId key_;
};

DemuxDal::DemuxDalReadySm::DemuxDalReadySm(
    const Kel::Ptr<const Dal>& defaultDal,
    const Kel::Ptr<const ResourceIdToDalMap>& resourceIdToDalMap, Dal* parent)
    : kelDefaultDal_(Kel::allocate<KelDefaultDal>(this)),
      kelResourceIdToDalMap_(Kel::allocate<KelResourceIdToDalMap>(this)),
      parent_(parent) {
  kelDefaultDal_->notifierIs(defaultDal);
  resourceIdToDalMapIs(resourceIdToDalMap);
  handleInitialized();
}

DemuxDal::DemuxDalReadySm::~DemuxDalReadySm() { kelDoZombieReactors(true); }

Kel::Ptr<DemuxDal::DemuxDalReadySm> DemuxDal::DemuxDalReadySm::DemuxDalReadySmIs(
    const Kel::Ptr<const Dal>& defaultDal,
    const Kel::Ptr<const ResourceIdToDalMap>& resourceIdToDalMap, Dal* parent) {
  return Kel::allocate<DemuxDalReadySm>(defaultDal, resourceIdToDalMap, parent);
}

Kel::Ptr<const Dal> DemuxDal::DemuxDalReadySm::defaultDal() const {
  return kelDefaultDal_->notifier();
}

void DemuxDal::DemuxDalReadySm::defaultDalIs(const Kel::Ptr<const Dal>& d) {
  kelDefaultDal_->notifierIs(d);
}

void DemuxDal::DemuxDalReadySm::defaultDalDel() { kelDefaultDal_->notifierIs(nullptr); }

Kel::Ptr<const ResourceIdToDalMap> DemuxDal::DemuxDalReadySm::resourceIdToDalMap() const {
  return kelResourceIdToDalMap_->notifier();
}

// Watching a new map takes in its entries at once (the immediate whole-map notification).
void DemuxDal::DemuxDalReadySm::resourceIdToDalMapIs(const Kel::Ptr<const ResourceIdToDalMap>& m) {
  if (m == kelResourceIdToDalMap_->notifier()) return;
  kelResourceIdToDalMap_->notifierIs(m);
  if (m && kelResourceIdToDalMap_->hasNotificationActive())
    kelResourceIdToDalMap_->onDalkelImmediate();
}

void DemuxDal::DemuxDalReadySm::resourceIdToDalMapDel() {
  kelResourceIdToDalMap_->notifierIs(nullptr);
}

void DemuxDal::DemuxDalReadySm::dalIs(const PhysicalResourceId& key,
                                      const Kel::Ptr<const Dal>& dal) {
  Kel::Ptr<KelDal>& reactor = dal_[key];
  if (reactor && reactor->notifier() == dal) return;
  if (!reactor) reactor = Kel::allocate<KelDal>(this, key);
  reactor->notifierIs(dal);
  handleDalReady();
}

void DemuxDal::DemuxDalReadySm::dalDel(const PhysicalResourceId& key) { dal_.erase(key); }

void DemuxDal::DemuxDalReadySm::dalDelAll() { dal_.clear(); }

void DemuxDal::DemuxDalReadySm::onMapEntry(const PhysicalResourceId& key) {
  const Kel::Ptr<const ResourceIdToDalMap> map = resourceIdToDalMap();
  if (Kel::Ptr<RequesterDal> d = map->dal(key))
    dalIs(key, d);
  else
    dalDel(key);
}

void DemuxDal::DemuxDalReadySm::onWholeMap() {
  const Kel::Ptr<const ResourceIdToDalMap> map = resourceIdToDalMap();
  for (const auto& [key, d] : *map) dalIs(key, d);
  std::erase_if(dal_, [&](const auto& entry) { return !map->dal(entry.first); });
}

void DemuxDal::DemuxDalReadySm::handleInitialized() {
  DUWISP_TRACE(th(), 8, "handleInitialized");
  handleDalReady();
}

void DemuxDal::DemuxDalReadySm::handleDalReady() {
  const Kel::Ptr<const Dal> defaultDal = this->defaultDal();
  if (!defaultDal || !parent_) return;
  DUWISP_TRACE(th(), 8, "DemuxDal::DemuxDalReadySm::handleDalReady %s", parent_->name());
  if (!defaultDal->ready()) {
    // A default DAL that falls back to not ready leaves the parent as it is, unlike a
    // member below. Deliberate.
    DUWISP_TRACE(th(), 6, "default DAL %s not ready yet", defaultDal->name());
    return;
  }
  if (const Kel::Ptr<const ResourceIdToDalMap> map = resourceIdToDalMap()) {
    for (const auto& [rid, member] : *map) {
      if (!member->ready()) {
        DUWISP_TRACE(th(), 8, "DAL for Table %s %s not ready yet", rid.id(), member->name());
        parent_->readyIs(false);
        return;
      }
      DUWISP_TRACE(th(), 8, "DAL for Table %s %s is ready now", rid.id(), member->name());
    }
  }
  DUWISP_TRACE(th(), 8, "All DALs in demux DAL are ready");
  parent_->readyIs(true);
}

void DemuxDal::DemuxDalReadySm::kelDoZombieReactors(bool zombie) {
  kelDefaultDal_->hasNotificationActiveIs(!zombie);
  kelResourceIdToDalMap_->hasNotificationActiveIs(!zombie);
  for (auto& [key, reactor] : dal_) reactor->hasNotificationActiveIs(!zombie);
}

Kel::Ptr<DemuxDal> demuxDalFactory(Kel::Name name,
                                   const Kel::Ptr<const DemuxDalCreator>& demuxDalCreator,
                                   const Kel::Ptr<RequesterDal>& defaultDal,
                                   const Kel::Ptr<ResourceIdToDalMap>& resourceIdToDalMap,
                                   const Kel::Ptr<DalProcessingStatusCol>& dalProcessingStatusCol) {
  return Kel::allocate<DemuxDal>(std::move(name), demuxDalCreator, defaultDal, resourceIdToDalMap,
                                 dalProcessingStatusCol);
}

}  // namespace Zorvek
