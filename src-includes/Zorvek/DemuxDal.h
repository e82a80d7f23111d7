// Zorvek::DemuxDal: the Dal an agent is handed when the resources it touches are served by
// more than one serializer agent. It owns no command path: each access is routed, unchanged,
// to the RequesterDal that the ResourceIdToDalMap names for the access's resource, or to the
// default DAL (the S-channel DAL) when the resource has none. Options set on the DemuxDal are
// copied to every DAL under it; it is ready when all of them are.
//
// Also here: ResourceIdToDalMap (the routing table), and CmdIndexTuple / EnqueuedCmdStatus
// (the ranges of command indexes each DAL channel enqueued over an interval).
//
//   Kel::Ptr<DemuxDal> dal = creator->demuxDal();
//   dal->dalWrite(oneDeviceMask(0), offset, size, data, optArg);
//
// Used from the agent's activity thread only.
#pragma once

#include <unordered_map>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Zorvek/DalProcessingStatus.h"
#include "Zorvek/RequesterDal.h"

namespace Zorvek {

class DemuxDalCreator;

// Physical resource id -> the RequesterDal that serves it (for resources not served by the
// default DAL). A key is present only with a non-null DAL; storing null removes the key.
class KEL_EXPORT ResourceIdToDalMap : public Kel::Entity {
  KEL_ENTITY_TYPE(ResourceIdToDalMap)

 public:
  class NotifieeConst : public Kel::NotifieeConst<ResourceIdToDalMap> {
   public:
    // One entry added, replaced or removed.
    virtual void onDal(const PhysicalResourceId&) {}
    // The collection as a whole.
    virtual void onDal() {}
    // The immediate form of the whole-collection notification: a reactor takes in every
    // existing entry when it registers.
    virtual void onDalkelImmediate() {}
  };
  using Map = std::unordered_map<PhysicalResourceId, Kel::Ptr<RequesterDal>>;

  ResourceIdToDalMap() = default;

  // The DAL stored for the key, or null.
  Kel::Ptr<RequesterDal> dal(const PhysicalResourceId& key) const {
    auto it = findByKey(dals_, key);
    return it == dals_.end() ? nullptr : it->second;
  }
  // Stores, replaces or (for null) removes, and notifies onDal(key) when anything changed.
  // Storing null for an absent key changes nothing and notifies nobody.
  void dalIs(const PhysicalResourceId& key, const Kel::Ptr<RequesterDal>& value);
  // Removes the entry and returns its DAL (null, and no notification, when absent).
  Kel::Ptr<RequesterDal> dalDel(const PhysicalResourceId& key);
  // Removes every entry through dalDel: one onDal(key) per entry.
  void dalDelAll();
  void dalNotify(const PhysicalResourceId& key) {
    using OnKey = void (NotifieeConst::*)(const PhysicalResourceId&);
    notifiees_.visit(static_cast<OnKey>(&NotifieeConst::onDal), key);
  }

  const Map& dals() const { return dals_; }
  Map::const_iterator begin() const { return dals_.begin(); }
  Map::const_iterator end() const { return dals_.end(); }
  std::size_t size() const { return dals_.size(); }

  Kel::NotifieeList<ResourceIdToDalMap>& notifiees() const { return notifiees_; }

 protected:
  ~ResourceIdToDalMap() override;

 private:
  Map dals_;
  mutable Kel::NotifieeList<ResourceIdToDalMap> notifiees_;
};

KEL_EXPORT Kel::Ptr<ResourceIdToDalMap> resourceIdToDalMapFactory();

// An inclusive range of command indexes.
class KEL_EXPORT CmdIndexTuple {
 public:
  static const Kel::Type& fwkType();

  CmdIndexTuple() = default;
  CmdIndexTuple(U64 startingCmdIndex, U64 endingCmdIndex)
      : startingCmdIndex_(startingCmdIndex), endingCmdIndex_(endingCmdIndex) {}
  // Parses the text form (see valueToStrep) strictly: the exact characters, fields in order;
  // leaves `it` just past the closing "})". Throws Kel::ParseError.
  CmdIndexTuple(Kel::String::IteratorConst& it, const Kel::String::IteratorConst& end);

  U64 startingCmdIndex() const { return startingCmdIndex_; }
  U64 endingCmdIndex() const { return endingCmdIndex_; }
  std::size_t hash() const {
    return std::hash<U64>()(startingCmdIndex_) * 31 + std::hash<U64>()(endingCmdIndex_);
  }
  friend bool operator==(const CmdIndexTuple&, const CmdIndexTuple&) = default;

 private:
  U64 startingCmdIndex_ = 0;
  U64 endingCmdIndex_ = 0;
};

// "Value('Zorvek::CmdIndexTuple', ** {'startingCmdIndex': 1, 'endingCmdIndex': 5})"
KEL_EXPORT Kel::String valueToStrep(const CmdIndexTuple& t);
KEL_EXPORT std::ostream& operator<<(std::ostream& os, const CmdIndexTuple& t);

// Per DAL id, the range of command indexes the channel enqueued (owned by the caller of the
// tracking operations of DemuxDal).
class KEL_EXPORT EnqueuedCmdStatus : public Kel::Entity {
  KEL_ENTITY_TYPE(EnqueuedCmdStatus)

 public:
  class NotifieeConst : public Kel::NotifieeConst<EnqueuedCmdStatus> {
   public:
    virtual void onEnqueuedCmdIndex(DalId) {}
  };
  using Map = std::unordered_map<DalId, CmdIndexTuple>;

  EnqueuedCmdStatus() = default;

  // The tuple of `dalId`, or null when there is none.
  const CmdIndexTuple* enqueuedCmdIndex(DalId dalId) const {
    auto it = indexes_.find(dalId);
    return it == indexes_.end() ? nullptr : &it->second;
  }
  // Inserts or overwrites, without notification.
  void enqueuedCmdIndexIs(DalId dalId, const CmdIndexTuple& t) { indexes_[dalId] = t; }
  void enqueuedCmdIndexDel(DalId dalId) { indexes_.erase(dalId); }
  void enqueuedCmdIndexDelAll();
  void enqueuedCmdIndexNotify(DalId dalId) {
    notifiees_.visit(&NotifieeConst::onEnqueuedCmdIndex, dalId);
  }
  const Map& enqueuedCmdIndexes() const { return indexes_; }

  Kel::NotifieeList<EnqueuedCmdStatus>& notifiees() const { return notifiees_; }

 protected:
  ~EnqueuedCmdStatus() override;

 private:
  Map indexes_;
  mutable Kel::NotifieeList<EnqueuedCmdStatus> notifiees_;
};

class KEL_EXPORT DemuxDal : public Dal {
  KEL_ENTITY_TYPE(DemuxDal)

 public:
  class DemuxDalReadySm;

  // The default DAL must not be null; the creator may be null only while the ownership
  // check is off. Runs handleInitialized() last.
  DemuxDal(Kel::Name name, const Kel::Ptr<const DemuxDalCreator>& demuxDalCreator,
           const Kel::Ptr<RequesterDal>& defaultDal,
           const Kel::Ptr<ResourceIdToDalMap>& resourceIdToDalMap,
           const Kel::Ptr<DalProcessingStatusCol>& dalProcessingStatusCol);

  const Kel::Ptr<const DemuxDalCreator>& demuxDalCreator() const { return demuxDalCreator_; }
  const Kel::Ptr<RequesterDal>& defaultDal() const { return defaultDal_; }
  const Kel::Ptr<ResourceIdToDalMap>& resourceIdToDalMap() const { return resourceIdToDalMap_; }
  const Kel::Ptr<DalProcessingStatusCol>& dalProcessingStatusCol() const {
    return dalProcessingStatusCol_;
  }
  // When true every access goes to the default DAL. Changed only through reflective
  // attribute access (attributeIs("forceUseDefaultDal", "True")).
  bool forceUseDefaultDal() const { return forceUseDefaultDal_; }
  bool resourceOwnershipCheckEnabled() const { return resourceOwnershipCheckEnabled_; }
  void resourceOwnershipCheckEnabledIs(bool v) { resourceOwnershipCheckEnabled_ = v; }
  const Kel::Ptr<DemuxDalReadySm>& demuxDalReadySm() const { return demuxDalReadySm_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  // Start of tracked command indexes per DAL id (kept for reflective access; the tracking
  // operations keep their state in the caller's EnqueuedCmdStatus).
  U64 trackedCmdIndexStart(DalId d) const {
    auto it = trackedCmdIndexStart_.find(d);
    return it == trackedCmdIndexStart_.end() ? 0 : it->second;
  }
  void trackedCmdIndexStartIs(DalId d, U64 v) { trackedCmdIndexStart_[d] = v; }
  void trackedCmdIndexStartDel(DalId d) { trackedCmdIndexStart_.erase(d); }
  void trackedCmdIndexStartDelAll() { trackedCmdIndexStart_.clear(); }

  // The DAL that carries an access at `offset` (never null).
  Kel::Ptr<RequesterDal> dalSelector(DeviceOffset offset, void* optArg);

  void initLocalCache(DeviceId devId, bool coldStart) override;
  void waitForCompletion(DeviceId devId) override;
  void waitForCompletionDefaultDal(DeviceId devId) override;
  S32 dalWrite(const TargetMask& targetMask, DeviceOffset offset, U16 size, const void* data,
               void* optArg) override;
  S32 dalRead(DeviceId devId, DeviceOffset offset, U16 size, void* data, void* optArg) override;
  S32 dalBulkWrite(const TargetMask& targetMask, DeviceOffset offset, U32 size, const void* data,
                   void* optArg) override;
  S32 dalBulkRead(DeviceId devId, DeviceOffset offset, U32 size, void* data, void* optArg) override;
  void handleCoprocessorChecker() override;
  void reclaimWhenProgrammedIs(bool v) override;
  void hwAccessAllowedIs(bool v) override;
  void helperIs(const Kel::Ptr<DalHelper>& h) override;
  void blockingIs(bool v) override;
  void verifyEnabledIs(bool v) override;
  void forceReadFromShadowIs(bool v) override;
  void okToReadFromShadowIs(bool v) override;
  void okToWriteToShadowIs(bool v) override;
  void skipHwWriteIfShadowHitIs(bool v) override;

  // Snapshot of each channel's last enqueued index into `status`, as (index, 0); marks the
  // channels as tracked. Asserts "pStatusCol".
  virtual void startTrackingCmdStatus(const Kel::Ptr<EnqueuedCmdStatus>& status);
  // Turns the snapshot into the inclusive ranges enqueued since; a channel that enqueued
  // nothing is removed from `status`.
  virtual void enqueuedCmdStatuses(const Kel::Ptr<EnqueuedCmdStatus>& status);
  virtual void handleInitialized();

  // Writes this DAL's state and that of every DAL under it to `fd`.
  void showDemuxDalState(U32 fd);

  // The reactions that copy one option to the default DAL and every member.
  void handleHwAccessAllowedOptions();
  void handleBlockingOptions();
  void handleReadFromShadowOptions();
  void handleWriteToShadowOptions();
  void handleForceReadFromShadowOptions();
  void handleReclaimWhenProgrammed();
  void handleSkipHwWriteIfShadowHit();
  void handleVerifyEnabled();
  void handleDalHelper();

  bool attribute(std::string_view name, std::string& value) const override;
  void attributeIs(std::string_view name, std::string_view value) override;

 protected:
  ~DemuxDal() override;

 private:
  // dalSelector for the resource `rid` that the helper gave for the access.
  RequesterDal* selectDal(const PhysicalResourceId& rid, void* optArg);
  void traceOptions(const char* reaction) const;
  void propagate(void (Dal::*setter)(bool), bool value);

  Kel::Ptr<const DemuxDalCreator> demuxDalCreator_;
  Kel::Ptr<RequesterDal> defaultDal_;
  Kel::Ptr<ResourceIdToDalMap> resourceIdToDalMap_;
  Kel::Ptr<DalProcessingStatusCol> dalProcessingStatusCol_;
  std::unordered_map<DalId, U64> trackedCmdIndexStart_;
  bool forceUseDefaultDal_ = false;
  bool resourceOwnershipCheckEnabled_ = true;
  Kel::Ptr<DemuxDalReadySm> demuxDalReadySm_;
  bool initialized_ = false;
};

// Drives the parent DemuxDal's ready: true once the default DAL and every DAL of the map are
// ready. Watches the default DAL, the map, and one reactor per map entry; none of the
// reactors owns what it watches, and the parent is not owned either (it owns the machine).
class KEL_EXPORT DemuxDal::DemuxDalReadySm : public Kel::Entity {
  KEL_ENTITY_TYPE(DemuxDalReadySm)

 public:
  DemuxDalReadySm(const Kel::Ptr<const Dal>& defaultDal,
                  const Kel::Ptr<const ResourceIdToDalMap>& resourceIdToDalMap, Dal* parent);
  static Kel::Ptr<DemuxDalReadySm> DemuxDalReadySmIs(
      const Kel::Ptr<const Dal>& defaultDal,
      const Kel::Ptr<const ResourceIdToDalMap>& resourceIdToDalMap, Dal* parent);

  Kel::Ptr<const Dal> defaultDal() const;
  void defaultDalIs(const Kel::Ptr<const Dal>& d);
  void defaultDalDel();
  Kel::Ptr<const ResourceIdToDalMap> resourceIdToDalMap() const;
  void resourceIdToDalMapIs(const Kel::Ptr<const ResourceIdToDalMap>& m);
  void resourceIdToDalMapDel();
  Dal* parent() const { return parent_; }
  void parentIs(Dal* p) { parent_ = p; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  // The member reactor of `key` watches `dal` (created, or moved from another DAL), then
  // the parent's ready is evaluated.
  void dalIs(const PhysicalResourceId& key, const Kel::Ptr<const Dal>& dal);
  // Drops the member reactor of `key`, without re-evaluating.
  void dalDel(const PhysicalResourceId& key);
  void dalDelAll();
  std::size_t dals() const { return dal_.size(); }

  void handleDalReady();
  void handleInitialized();
  void kelDoZombieReactors(bool zombie);

 protected:
  ~DemuxDalReadySm() override;

 private:
  class KelDefaultDal;
  class KelResourceIdToDalMap;
  class KelDal;
  void onMapEntry(const PhysicalResourceId& key);
  void onWholeMap();

  Kel::Ptr<KelDefaultDal> kelDefaultDal_;
  Kel::Ptr<KelResourceIdToDalMap> kelResourceIdToDalMap_;
  std::unordered_map<PhysicalResourceId, Kel::Ptr<KelDal>> dal_;
  Dal* parent_;
  bool initialized_ = false;
};

KEL_EXPORT Kel::Ptr<DemuxDal> demuxDalFactory(
    Kel::Name name, const Kel::Ptr<const DemuxDalCreator>& demuxDalCreator,
    const Kel::Ptr<RequesterDal>& defaultDal,
    const Kel::Ptr<ResourceIdToDalMap>& resourceIdToDalMap,
    const Kel::Ptr<DalProcessingStatusCol>& dalProcessingStatusCol);

}  // namespace Zorvek

template <>
struct std::hash<Zorvek::CmdIndexTuple> {
  std::size_t operator()(const Zorvek::CmdIndexTuple& t) const noexcept { return t.hash(); }
};
