// Zorvek::RequesterDalRemote: the requester DAL for tables owned by another agent's
// serializer, reached through a QueueRequester. The shadow of such a table does not live in
// this agent's device helper: the DAL keeps its own local shadow, one CacheTable per
// (device, table), whose entries are allocated on first shadow access and owned by this
// agent. It supplies the data masks (which bytes of an entry this agent may write) to the
// write path, and when the serializer restarts it replays every entry of its local shadow
// to it (LocalCacheSyncSm).
//
//   auto dal = requesterDalRemoteFactory("A-S-Queue", queueRequester, dataMasks);
//   dal->remoteResourceIs(tableId, true);
//   dal->initLocalCache(DeviceId(0), true);   // cold start: serializer frees our old entries
//
// Used from the agent's activity thread only.
#pragma once

#include <map>
#include <unordered_map>

#include "Zorvek/CacheTable.h"
#include "Zorvek/RequesterDal.h"
#include "Zorvek/RequesterDataMask.h"

namespace Zorvek {

class QueueRequester;

class KEL_EXPORT RequesterDalRemote : public RequesterDal {
  KEL_ENTITY_TYPE(RequesterDalRemote)

 public:
  class LocalCacheSyncSm;
  using LocalCacheMap = std::map<CacheTableIndex, Kel::Ptr<CacheTable>>;

  // `resourceIdToDataMaskMap` may be null (no masks). Runs handleInitialized() last.
  RequesterDalRemote(Kel::Name name, const Kel::Ptr<Requester>& requester,
                     const Kel::Ptr<ResourceIdToDataMaskMap>& resourceIdToDataMaskMap);

  const Kel::Ptr<ResourceIdToDataMaskMap>& resourceIdToDataMaskMap() const {
    return resourceIdToDataMaskMap_;
  }
  // The table resources owned by the remote serializer; only the keys matter.
  bool remoteResource(const PhysicalResourceId& id) const { return remoteResource_.count(id) != 0; }
  void remoteResourceIs(const PhysicalResourceId& id, bool v) { remoteResource_[id] = v; }
  void remoteResourceDel(const PhysicalResourceId& id) { remoteResource_.erase(id); }
  void remoteResourceDelAll() { remoteResource_.clear(); }
  const std::unordered_map<PhysicalResourceId, bool>& remoteResources() const {
    return remoteResource_;
  }
  // When false, shadow reads of remote resources are refused (writes still fill the cache).
  bool localShadowForRemoteResourcesEnabled() const { return localShadowEnabled_; }
  void localShadowForRemoteResourcesEnabledIs(bool v) { localShadowEnabled_ = v; }
  // When true, the local shadow keeps every entry of a bulk write, and a serializer restart
  // replays them all. False by default: the shadow keeps the first entry of a bulk write
  // only, and a restart loses the others.
  bool localShadowKeepsBulkEntries() const { return localShadowKeepsBulkEntries_; }
  void localShadowKeepsBulkEntriesIs(bool v) { localShadowKeepsBulkEntries_ = v; }

  // The local shadow tables, ordered by (device, resource id).
  Kel::Ptr<CacheTable> localCache(const CacheTableIndex& index) const;
  // The table of `index`, created empty when absent.
  Kel::Ptr<CacheTable> localCacheIs(AgentId agentId, const CacheTableIndex& index, U32 numEntries,
                                    U32 entrySize);
  void localCacheDel(const CacheTableIndex& index) {
    if (index == lastIndex_) lastTable_ = nullptr;
    localCache_.erase(index);
  }
  void localCacheDelAll() {
    lastTable_ = nullptr;
    localCache_.clear();
  }
  const LocalCacheMap& localCaches() const { return localCache_; }

  // The coldStart of the last initLocalCache (false before), used for lazy creation.
  bool coldStart() const { return coldStart_; }
  const Kel::Ptr<LocalCacheSyncSm>& localCacheSyncSm() const { return localCacheSyncSm_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }
  // The requester as a queue requester; null when it is of another kind.
  Kel::Ptr<QueueRequester> queueRequester() const;

  void handleInitialized();
  // Creates the caches of every remote table (each instance of a replicated one) on `devId`;
  // on a cold start asks the serializer to free what this agent owned.
  void initLocalCache(DeviceId devId, bool coldStart) override;
  Kel::Ptr<CacheTable> initOneLocalCache(const CacheTableIndex& tableIndex, bool coldStart);
  void maybeAllocateLocalShadowEntry(const CacheTableIndex& tableIndex, DeviceOffset offset,
                                     U32 size);
  void writeEntryDataToShadow(const CacheTableIndex& tableIndex, DeviceOffset offset,
                              const void* data, U32 size);

  S32 doReadFromShadow(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                       void* optArg) override;
  S32 doWriteToShadow(DeviceId devId, DeviceOffset offset, U16 size, const void* data,
                      void* optArg) override;
  U8* dataMaskSelector(DeviceOffset offset, void* optArg, U16 size) override;
  void showDalState(U32 fd) override;

  // Replays every hardware-write-eligible entry of every local cache to the serializer,
  // one write per entry, tables in ascending (device, resource id) order.
  void pushLocalCacheToSerializer();

 protected:
  ~RequesterDalRemote() override;

 private:
  // The mask bytes of `mask`, as a new array of `size` bytes; null when the flag is off.
  static U8* maskArray(const RequesterDataMask& mask, U32 size);
  // The local cache of (devId, rid), or null. Accesses come in runs on one table, so the
  // table of the last shadow access answers without a walk of localCache_.
  CacheTable* findLocalCache(DeviceId devId, const PhysicalResourceId& rid) {
    if (lastTable_ && lastIndex_.devId() == devId && lastIndex_.prid() == rid) return lastTable_;
    return findAndRememberLocalCache(CacheTableIndex(devId, rid));
  }
  CacheTable* findAndRememberLocalCache(const CacheTableIndex& tableIndex);
  // The local cache of (devId, rid), created by initOneLocalCache (with the last coldStart)
  // when absent; asserts "lCache".
  CacheTable& localCacheOrInit(DeviceId devId, const PhysicalResourceId& rid) {
    if (CacheTable* lCache = findLocalCache(devId, rid)) return *lCache;
    return initLocalCacheFor(CacheTableIndex(devId, rid));
  }
  CacheTable& initLocalCacheFor(const CacheTableIndex& tableIndex);
  // The index of the entry at `offset` in a local cache, put in use (with the table's initial
  // data) when it is not. Every access but the first to an entry finds it in use, which is
  // answered here without a call.
  U32 localShadowEntry(CacheTable& lCache, DeviceOffset offset, U32 size) {
    const U32 index = lCache.entryIndex(offset);
    return index != CacheTable::kNoEntry ? index : allocateLocalShadowEntry(lCache, offset, size);
  }
  U32 allocateLocalShadowEntry(CacheTable& lCache, DeviceOffset offset, U32 size);
  void pushTable(const CacheTable& table, void* optArg);

  Kel::Ptr<ResourceIdToDataMaskMap> resourceIdToDataMaskMap_;
  std::unordered_map<PhysicalResourceId, bool> remoteResource_;
  bool localShadowEnabled_ = true;
  bool localShadowKeepsBulkEntries_ = false;
  LocalCacheMap localCache_;
  // The table of the last shadow access: accesses come in runs on one table, which then
  // skip the walk of localCache_. Forgotten when a table leaves the collection.
  CacheTableIndex lastIndex_;
  CacheTable* lastTable_ = nullptr;
  bool coldStart_ = false;
  Kel::Ptr<LocalCacheSyncSm> localCacheSyncSm_;
  bool initialized_ = false;
};

// Notices a restart of the remote serializer (a change of the requester's
// serializerRestartCount) and has the DAL push its local shadow. Idle until then: nothing is
// pushed at construction. The DAL owns the machine; the machine only points back to it.
class KEL_EXPORT RequesterDalRemote::LocalCacheSyncSm : public Kel::Entity {
  KEL_ENTITY_TYPE(LocalCacheSyncSm)

 public:
  LocalCacheSyncSm(const Kel::Ptr<const Requester>& requester,
                   RequesterDalRemote* requesterDalRemote);
  static Kel::Ptr<LocalCacheSyncSm> LocalCacheSyncSmIs(const Kel::Ptr<const Requester>& requester,
                                                       RequesterDalRemote* requesterDalRemote);

  Kel::Ptr<const Requester> requester() const;
  RequesterDalRemote* requesterDalRemote() const { return requesterDalRemote_; }
  void requesterDalRemoteIs(RequesterDalRemote* d) { requesterDalRemote_ = d; }

  void handleSerializerRestart();
  void kelDoZombieReactors(bool zombie);

 protected:
  ~LocalCacheSyncSm() override;

 private:
  class KelRequester;
  Kel::Ptr<KelRequester> kelRequester_;
  RequesterDalRemote* requesterDalRemote_;
};

KEL_EXPORT Kel::Ptr<RequesterDalRemote> requesterDalRemoteFactory(
    Kel::Name name, const Kel::Ptr<Requester>& requester,
    const Kel::Ptr<ResourceIdToDataMaskMap>& resourceIdToDataMaskMap);

}  // namespace Zorvek
