#include "Zorvek/RequesterDalRemote.h"

#include <cstdio>
#include <memory>

#include "AccessScope.h"
#include "Duwisp/Duwisp.h"
#include "Kel/Assert.h"
#include "Zorvek/QueueRequester.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(RequesterDalRemote::LocalCacheSyncSm,
                       "Zorvek::RequesterDalRemote::LocalCacheSyncSm")
KEL_DEFINE_ENTITY_TYPE(RequesterDalRemote, "Zorvek::RequesterDalRemote")

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekRequesterDalRemote")

}  // namespace

RequesterDalRemote::RequesterDalRemote(
    Kel::Name name, const Kel::Ptr<Requester>& requester,
    const Kel::Ptr<ResourceIdToDataMaskMap>& resourceIdToDataMaskMap)
    : RequesterDal(std::move(name), requester), resourceIdToDataMaskMap_(resourceIdToDataMaskMap) {
  handleInitialized();
}

RequesterDalRemote::~RequesterDalRemote() {
  if (!localCacheSyncSm_) return;
  localCacheSyncSm_->kelDoZombieReactors(true);
  localCacheSyncSm_->requesterDalRemoteIs(nullptr);
}

Kel::Ptr<QueueRequester> RequesterDalRemote::queueRequester() const {
  return Kel::dynamicPtrCast<QueueRequester>(requester());
}

void RequesterDalRemote::handleInitialized() {
  KWISP_TRACE(th(), 1, "handleInitialized %s", name());
  dalReadySmIs(DalReadySm::DalReadySmIs(requester(), Kel::Ptr<Dal>(this)));
  localCacheSyncSm_ = LocalCacheSyncSm::LocalCacheSyncSmIs(requester(), this);
  initializedIs(true);
}

Kel::Ptr<CacheTable> RequesterDalRemote::localCache(const CacheTableIndex& index) const {
  auto it = localCache_.find(index);
  return it == localCache_.end() ? nullptr : it->second;
}

Kel::Ptr<CacheTable> RequesterDalRemote::localCacheIs(AgentId agentId, const CacheTableIndex& index,
                                                      U32 numEntries, U32 entrySize) {
  auto [it, inserted] = localCache_.try_emplace(index);
  if (inserted) it->second = Kel::allocate<CacheTable>(agentId, index, numEntries, entrySize);
  return it->second;
}

// ---------------------------------------------------------------------------------------
// Creating the local caches

void RequesterDalRemote::initLocalCache(DeviceId devId, bool coldStart) {
  DUWISP_TRACE(th(), 0, "initLocalCache %s device %s coldStart %s", name(), devId, coldStart);
  coldStart_ = coldStart;
  for (const auto& [resource, unused] : remoteResource_) {
    PhysicalResourceId prid = resource;
    if (!helper()->resourceExists(devId, prid)) {
      DUWISP_TRACE(th(), 0, "initLocalCache %s Resource type %s id 0x%x does not exist", name(),
                   prid.type(), prid.id());
      continue;
    }
    // Every instance of a replicated table gets its own cache.
    do {
      initOneLocalCache(CacheTableIndex(devId, prid), coldStart);
      prid = helper()->nextPridInstance(devId, prid);
    } while (prid.type() != ResourceType::none_);
  }
}

U8* RequesterDalRemote::maskArray(const RequesterDataMask& mask, U32 size) {
  if (!mask.flag()) return nullptr;
  U8* array = new U8[size];
  mask.maskBytesCopy(array, size);
  return array;
}

Kel::Ptr<CacheTable> RequesterDalRemote::initOneLocalCache(const CacheTableIndex& tableIndex,
                                                           bool coldStart) {
  const DeviceId devId = tableIndex.devId();
  const PhysicalResourceId& prrid = tableIndex.prid();
  DUWISP_TRACE(th(), 0, "initOneLocalCache %s device %s type %s id 0x%x coldStart %s", name(),
               devId, prrid.type(), prrid.id(), coldStart);
  if (Kel::Ptr<CacheTable> existing = localCache(tableIndex)) {
    DUWISP_TRACE(th(), 0, "initOneLocalCache %s localCache already exists %s", name(), tableIndex);
    return existing;
  }
  KEL_ASSERT(prrid.type() == ResourceType::tableResource_);
  const U32 entrySize = helper()->memoryEntrySizeBytes(devId, prrid);
  const U32 numEntries = helper()->numMemoryEntries(devId, PhysicalTableId(prrid));
  const Kel::Ptr<CacheTable> lCache =
      localCacheIs(requester()->agentId(), tableIndex, numEntries, entrySize);
  KEL_ASSERT(lCache);
  if (coldStart) {
    DUWISP_TRACE(th(), 0, "Request to free all entries owned by us for resource %s", prrid.id());
    std::unique_ptr<U8[]> mask;
    if (resourceIdToDataMaskMap_)
      mask.reset(
          maskArray(resourceIdToDataMaskMap_->dataMask(helper()->normalizedResourceId(prrid)),
                    lCache->entrySize()));
    queueRequester()->initFreeFromSerializer(devId, prrid, mask.get(), entrySize);
  } else {
    // A warm start does not repopulate the cache from the serializer: nothing is read.
    DUWISP_TRACE(th(), 0,
                 "Request bulk read of all entries that we own - not yet implemented- for "
                 "resource %s",
                 prrid.id());
  }
  lCache->doRestart(coldStart);
  return lCache;
}

// ---------------------------------------------------------------------------------------
// Shadow access

CacheTable* RequesterDalRemote::findAndRememberLocalCache(const CacheTableIndex& tableIndex) {
  const auto it = localCache_.find(tableIndex);
  if (it == localCache_.end() || !it->second) return nullptr;
  lastIndex_ = tableIndex;
  lastTable_ = it->second.ptr();
  return lastTable_;
}

CacheTable& RequesterDalRemote::initLocalCacheFor(const CacheTableIndex& tableIndex) {
  initOneLocalCache(tableIndex, coldStart_);
  CacheTable* lCache = findLocalCache(tableIndex.devId(), tableIndex.prid());
  KEL_ASSERT(lCache);
  return *lCache;
}

void RequesterDalRemote::maybeAllocateLocalShadowEntry(const CacheTableIndex& tableIndex,
                                                       DeviceOffset offset, U32 size) {
  localShadowEntry(localCacheOrInit(tableIndex.devId(), tableIndex.prid()), offset, size);
}

// A local cache is keyed by its own index, which the trace names.
U32 RequesterDalRemote::allocateLocalShadowEntry(CacheTable& lCache, DeviceOffset offset,
                                                 U32 size) {
  const CacheTableIndex& tableIndex = lCache.tableIndex();
  DUWISP_TRACE(th(), 5,
               "maybeAllocateLocalShadowEntry %s tableIndex resource type %s id 0x%x offset 0x%x "
               "size %s",
               name(), tableIndex.prid().type(), tableIndex.prid().id(), offset, size);
  lCache.entryIs(offset, lCache.initialEntryData(), hwAccessAllowed());
  return lCache.entryIndex(offset);
}

void RequesterDalRemote::writeEntryDataToShadow(const CacheTableIndex& tableIndex,
                                                DeviceOffset offset, const void* data, U32) {
  // The size is deliberately unused: the table always takes a whole entry.
  const Kel::Ptr<CacheTable> lCache = localCache(tableIndex);
  KEL_ASSERT(lCache);
  lCache->writeEntryData(offset, static_cast<const unsigned char*>(data), hwAccessAllowed());
}

// The shadow hooks look their table and their entry up once, and put the entry in use and
// copy on what they found: the steps of maybeAllocateLocalShadowEntry and
// writeEntryDataToShadow without looking anything up again.
S32 RequesterDalRemote::doReadFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                                         void* optArg) {
  const PhysicalResourceId resourceId = detail::AccessScope::resourceId(*this, offset, optArg);
  KEL_ASSERT_TEXT(detail::AccessScope::cacheable(*this, devId, resourceId),
                  "helper()->cacheable( devId, resourceId )");
  if (!localShadowForRemoteResourcesEnabled()) return -1;
  CacheTable* table = findLocalCache(devId, resourceId);
  if (!table) return -1;
  const U32 entry = localShadowEntry(*table, offset, size);
  table->readEntryDataAt(entry, static_cast<unsigned char*>(data), size);
  return 0;
}

// Unlike the read, the write checks neither cacheable nor the local-shadow switch: a remote
// entry is always recorded, so that a serializer restart can be repaired. Intended.
S32 RequesterDalRemote::doWriteToShadow(DeviceId devId, DeviceOffset offset, U16 size,
                                        const void* data, void* optArg) {
  const PhysicalResourceId resourceId = detail::AccessScope::resourceId(*this, offset, optArg);
  CacheTable& table = localCacheOrInit(devId, resourceId);
  const auto* bytes = static_cast<const unsigned char*>(data);
  // A bulk write's entries lie one memory entry after the other; the shadow keeps its first
  // only, unless asked to keep every one.
  const U32 stride =
      localShadowKeepsBulkEntries_ ? helper()->memoryEntrySizeBytes(devId, resourceId) : 0;
  if (stride && size > stride) {
    for (U32 at = 0; at + stride <= size; at += stride)
      table.writeEntryDataAt(localShadowEntry(table, offset + at, stride), bytes + at,
                             hwAccessAllowed());
    return 0;
  }
  const U32 entry = localShadowEntry(table, offset, size);
  // The size is deliberately not passed on: the table always takes a whole entry.
  table.writeEntryDataAt(entry, bytes, hwAccessAllowed());
  return 0;
}

U8* RequesterDalRemote::dataMaskSelector(DeviceOffset offset, void* optArg, U16 size) {
  if (!optArg || !resourceIdToDataMaskMap_) return nullptr;
  const PhysicalResourceId prid = detail::AccessScope::resourceId(*this, offset, optArg);
  return maskArray(resourceIdToDataMaskMap_->dataMask(helper()->normalizedResourceId(prid)), size);
}

void RequesterDalRemote::showDalState(U32 fd) {
  DUWISP_TRACE(th(), 4, "virtual void Zorvek::RequesterDalRemote::showDalState(U32)");
  Dal::showDalState(fd);
  dprintf(static_cast<int>(fd), "'queueRequesterStatus':{");
  if (const Kel::Ptr<QueueRequester> queue = queueRequester()) queue->showRequesterState(fd);
  dprintf(static_cast<int>(fd), "},");
}

// ---------------------------------------------------------------------------------------
// Replay after a serializer restart

void RequesterDalRemote::pushLocalCacheToSerializer() {
  if (!helper()) return;
  // The scratch optional argument has an address even when the helper needs no bytes (an
  // empty vector's data() may be null): with a null optArg, dataMaskSelector would drop the
  // entry's mask, and the replay would overwrite bytes of the entry that other agents own.
  const std::unique_ptr<unsigned char[]> optArg =
      std::make_unique<unsigned char[]>(helper()->optArgSizeBytes());
  // The walk re-finds its place by key before advancing, so tables added or removed while
  // it runs do not break it.
  for (auto it = localCache_.begin(); it != localCache_.end();) {
    const CacheTableIndex key = it->first;
    const Kel::Ptr<CacheTable> table = it->second;
    pushTable(*table, optArg.get());
    it = localCache_.upper_bound(key);
  }
}

void RequesterDalRemote::pushTable(const CacheTable& table, void* optArg) {
  const DeviceId devId = table.tableIndex().devId();
  const PhysicalResourceId& resourceId = table.tableIndex().prid();
  DUWISP_TRACE(th(), 0, "pushLocalCacheToSerializer Sync local cache for table 0x%x",
               resourceId.id());
  TargetMask targets;
  targets.targetIdIs(TargetId(devId), true);
  for (U32 index = 0; index < table.entries(); ++index) {
    const DeviceOffset offset = table.entryOffset(index);
    helper()->setOptArg(devId, resourceId, offset, optArg);
    // Entries are read by index, in memory order. A cold restart during the walk (from the
    // helper, say) drops every entry, so the index must still name this offset.
    if (index >= table.entries() || table.entryOffset(index) != offset ||
        !table.entryHwWriteEligible(index)) {
      DUWISP_TRACE(th(), 0, "pushLocalCacheToSerializer Entry Offset 0x%x at index %s not in use",
                   offset, index);
      continue;
    }
    const U32 size = helper()->memoryEntrySizeBytes(devId, resourceId);
    DUWISP_TRACE(th(), 0, "pushLocalCacheToSerializer Sync local cache index %s for table 0x%x",
                 offset, resourceId.id());
    unsigned char* data = const_cast<unsigned char*>(table.entryData(index));
    // The requester copies the mask during the call, so the replay releases it afterwards.
    const std::unique_ptr<U8[]> mask(dataMaskSelector(offset, optArg, static_cast<U16>(size)));
    requester()->write(targets, resourceId, offset, data, mask.get(), size, false);
  }
}

// ---------------------------------------------------------------------------------------
// LocalCacheSyncSm

class RequesterDalRemote::LocalCacheSyncSm::KelRequester : public Requester::NotifieeConst {
 public:
  explicit KelRequester(LocalCacheSyncSm* sm) : sm_(sm) {}
  // The count's value is not read: every change is one restart.
  void onSerializerRestartCount() override { sm_->handleSerializerRestart(); }

 private:
  LocalCacheSyncSm* sm_;  // the owning machine; never owning
};

RequesterDalRemote::LocalCacheSyncSm::LocalCacheSyncSm(const Kel::Ptr<const Requester>& requester,
                                                       RequesterDalRemote* requesterDalRemote)
    : requesterDalRemote_(requesterDalRemote) {
  if (!requester) return;
  kelRequester_ = Kel::allocate<KelRequester>(this);
  kelRequester_->notifierIs(requester);
  kelRequester_->hasNotificationActiveIs(true);
}

RequesterDalRemote::LocalCacheSyncSm::~LocalCacheSyncSm() { kelDoZombieReactors(true); }

Kel::Ptr<RequesterDalRemote::LocalCacheSyncSm>
RequesterDalRemote::LocalCacheSyncSm::LocalCacheSyncSmIs(const Kel::Ptr<const Requester>& requester,
                                                         RequesterDalRemote* requesterDalRemote) {
  return Kel::allocate<LocalCacheSyncSm>(requester, requesterDalRemote);
}

Kel::Ptr<const Requester> RequesterDalRemote::LocalCacheSyncSm::requester() const {
  return kelRequester_ ? kelRequester_->notifier() : nullptr;
}

void RequesterDalRemote::LocalCacheSyncSm::handleSerializerRestart() {
  DUWISP_TRACE(th(), 0, "Serializer restarted, sync local cache");
  if (requesterDalRemote_) requesterDalRemote_->pushLocalCacheToSerializer();
}

void RequesterDalRemote::LocalCacheSyncSm::kelDoZombieReactors(bool zombie) {
  if (kelRequester_) kelRequester_->hasNotificationActiveIs(!zombie);
}

Kel::Ptr<RequesterDalRemote> requesterDalRemoteFactory(
    Kel::Name name, const Kel::Ptr<Requester>& requester,
    const Kel::Ptr<ResourceIdToDataMaskMap>& resourceIdToDataMaskMap) {
  return Kel::allocate<RequesterDalRemote>(std::move(name), requester, resourceIdToDataMaskMap);
}

}  // namespace Zorvek
