// Zorvek::DemuxDalCreator: what one agent knows about the serializer agents it reaches and
// about who owns which resource, from which it builds its access path. Also here the
// serializer identifiers (SerializerId) and descriptions (SerializerInfo).
//
//   auto creator = demuxDalCreatorFactory(myAgentId, logicalRemoteResources, attrLogPath);
//   creator->serializerInfoIs(SerializerId(1))->agentIdIs(otherAgentId);
//   creator->serializerIdMapIs(logicalId, SerializerId(1));
//   creator->physicalToLogicalResourceMapIs(physicalId, logicalId);
//   creator->ownerAgentIdForPhysicalResource(physicalId);   // otherAgentId
//
// Ownership answers 0xFFFF (kInvalidAgentId) when no owner is known; a lookup never fails.
// Used from the agent's activity thread only.
#pragma once

#include <map>
#include <ostream>
#include <unordered_map>

#include "Corvane/CoprocessorStatus.h"
#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Zorvek/DalProcessingStatus.h"
#include "Zorvek/ResourceIdCol.h"
#include "ZorvekTypes/Types.h"

namespace Skorra {
class MountGroup;
}

namespace Zorvek {

class DemuxDal;
class Requester;
class RequesterDalSchan;
class ResourceIdToDalMap;

// Names one serializer agent. 0 is a valid identifier and also what a missing map entry
// reads as.
class KEL_EXPORT SerializerId {
 public:
  static const Kel::Type& fwkType();

  constexpr SerializerId() noexcept = default;
  constexpr explicit SerializerId(U16 value) noexcept : value_(value) {}
  // Parses the framework's text of the one attribute, "value": a plain decimal number that
  // fits 16 bits and is the whole text. Throws Kel::ParseError otherwise.
  SerializerId(Kel::String::IteratorConst begin, Kel::String::IteratorConst end);

  constexpr U16 value() const noexcept { return value_; }
  constexpr U32 hash() const noexcept { return value_; }

  friend constexpr bool operator==(SerializerId, SerializerId) noexcept = default;
  friend constexpr bool operator<(SerializerId a, SerializerId b) noexcept {
    return a.value_ < b.value_;
  }

 private:
  U16 value_ = 0;
};

// The framework's text of the value (decimal), the form the parsing constructor reads.
KEL_EXPORT Kel::String valueToStrep(SerializerId id);
KEL_EXPORT std::ostream& operator<<(std::ostream& os, SerializerId id);

// Describes one serializer: the agent that runs it, its name, and the state-database names
// of its kick queue and of its configuration and status directories.
class KEL_EXPORT SerializerInfo : public Kel::Entity {
  KEL_ENTITY_TYPE(SerializerInfo)

 public:
  class NotifieeConst : public Kel::NotifieeConst<SerializerInfo> {
   public:
    virtual void onAgentId() {}
    virtual void onName() {}
    virtual void onKickFifoName() {}
    virtual void onConfigDirName() {}
    virtual void onStatusDirName() {}
  };

  // agentId 0xFFFF (no agent) and empty names until set.
  explicit SerializerInfo(SerializerId id) : id_(id) {}

  SerializerId id() const { return id_; }
  AgentId agentId() const { return agentId_; }
  const Kel::String& name() const { return name_; }
  const Kel::String& kickFifoName() const { return kickFifoName_; }
  const Kel::String& configDirName() const { return configDirName_; }
  const Kel::String& statusDirName() const { return statusDirName_; }

  // Each setter stores and notifies only when the value changes.
  void agentIdIs(AgentId v);
  void nameIs(const Kel::String& v);
  void kickFifoNameIs(const Kel::String& v);
  void configDirNameIs(const Kel::String& v);
  void statusDirNameIs(const Kel::String& v);

  Kel::NotifieeList<SerializerInfo>& notifiees() const { return notifiees_; }

 protected:
  ~SerializerInfo() override = default;

 private:
  SerializerId id_;
  AgentId agentId_ = kInvalidAgentId;
  Kel::String name_;
  Kel::String kickFifoName_;
  Kel::String configDirName_;
  Kel::String statusDirName_;
  mutable Kel::NotifieeList<SerializerInfo> notifiees_;
};

class KEL_EXPORT DemuxDalCreator : public Kel::Entity {
  KEL_ENTITY_TYPE(DemuxDalCreator)

 public:
  // One callback per attribute; collections notify with the key that changed.
  class NotifieeConst : public Kel::NotifieeConst<DemuxDalCreator> {
   public:
    virtual void onLogicalRemoteResources() {}
    virtual void onCoprocessorStatus() {}
    virtual void onLocalCoprocessorStatus() {}
    virtual void onCoprocessorStatusAttrLog() {}
    virtual void onCoprocessorStatusAdapterSm() {}
    virtual void onSliceId() {}
    virtual void onNextDalId() {}
    virtual void onSerializerIdMap(const LogicalResourceId&) {}
    virtual void onPhysicalRemoteResources(const LogicalResourceId&) {}
    virtual void onPhysicalToLogicalResourceMap(const PhysicalResourceId&) {}
    virtual void onDalProcessingStatusCol() {}
    virtual void onTrackErrors() {}
    virtual void onRequesterName(AgentId) {}
    virtual void onSerializerInfo(SerializerId) {}
    virtual void onMountGroup() {}
    virtual void onUseSimulationForDefaultDal() {}
    virtual void onSimulationSerializerId() {}
  };

  using SerializerIdMap = std::unordered_map<LogicalResourceId, SerializerId>;
  using PhysicalRemoteResourcesMap =
      std::unordered_map<LogicalResourceId, Kel::Ptr<PhysicalResourceIdCol>>;
  using PhysicalToLogicalResourceMap = std::unordered_map<PhysicalResourceId, LogicalResourceId>;
  using RequesterNameMap = std::unordered_map<AgentId, Kel::String>;
  // Ordered, so that every walk over the serializers is the same from one run to the next.
  using SerializerInfoMap = std::map<SerializerId, Kel::Ptr<SerializerInfo>>;

  // `logicalRemoteResources` may be null (this agent reaches no remote resource);
  // an empty `coprocessorStatusAttrLogPath` means there is no coprocessor status log.
  DemuxDalCreator(AgentId requesterAgentId,
                  const Kel::Ptr<const LogicalRemoteResourceIdCol>& logicalRemoteResources,
                  Kel::String coprocessorStatusAttrLogPath);

  AgentId requesterAgentId() const { return requesterAgentId_; }
  const Kel::String& coprocessorStatusAttrLogPath() const { return coprocessorStatusAttrLogPath_; }

  // Scalar attributes: each setter stores and notifies only when the value changes.
  const Kel::Ptr<const LogicalRemoteResourceIdCol>& logicalRemoteResources() const {
    return logicalRemoteResources_;
  }
  void logicalRemoteResourcesIs(const Kel::Ptr<const LogicalRemoteResourceIdCol>& v);
  // The externally supplied coprocessor status; used as is when set.
  const Kel::Ptr<Corvane::CoprocessorStatus>& coprocessorStatus() const {
    return coprocessorStatus_;
  }
  void coprocessorStatusIs(const Kel::Ptr<Corvane::CoprocessorStatus>& v);
  // The status made by the creator when no external one is supplied.
  const Kel::Ptr<Corvane::CoprocessorStatus>& localCoprocessorStatus() const {
    return localCoprocessorStatus_;
  }
  void localCoprocessorStatusIs(const Kel::Ptr<Corvane::CoprocessorStatus>& v);
  const Kel::Ptr<const Corvane::CoprocessorStatusAttrLog>& coprocessorStatusAttrLog() const {
    return coprocessorStatusAttrLog_;
  }
  void coprocessorStatusAttrLogIs(const Kel::Ptr<const Corvane::CoprocessorStatusAttrLog>& v);
  const Kel::Ptr<Corvane::CoprocessorStatusAttrLogAdapterSm>& coprocessorStatusAdapterSm() const {
    return coprocessorStatusAdapterSm_;
  }
  void coprocessorStatusAdapterSmIs(const Kel::Ptr<Corvane::CoprocessorStatusAttrLogAdapterSm>& v);
  // Inserted into the S-channel queue name when not empty.
  const Kel::String& sliceId() const { return sliceId_; }
  void sliceIdIs(const Kel::String& v);
  // The next DAL id to hand out; 8 bits, so nextDalIdInc wraps past 255 to 0.
  DalId nextDalId() const { return nextDalId_; }
  void nextDalIdIs(DalId v);
  void nextDalIdInc(DalId delta);
  // New processing-status entries get error tracking on.
  bool trackErrors() const { return trackErrors_; }
  void trackErrorsIs(bool v);
  // The mount group of the agent; not owned.
  Skorra::MountGroup* mountGroup() const { return mountGroup_; }
  void mountGroupIs(Skorra::MountGroup* v);
  bool useSimulationForDefaultDal() const { return useSimulationForDefaultDal_; }
  void useSimulationForDefaultDalIs(bool v);
  SerializerId simulationSerializerId() const { return simulationSerializerId_; }
  void simulationSerializerIdIs(SerializerId v);

  // The processing-status collection shared by every DAL of this creator: Is() creates it
  // unless it exists and returns it; Del() drops it.
  const Kel::Ptr<DalProcessingStatusCol>& dalProcessingStatusCol() const {
    return dalProcessingStatusCol_;
  }
  Kel::Ptr<DalProcessingStatusCol> dalProcessingStatusColIs();
  void dalProcessingStatusColDel();

  // Collections. Readers answer the value type's default for a missing key (SerializerId 0,
  // null, the empty string); writers notify for the key on every change (a store of the
  // value already there is no change); DelAll notifies once per removed key.
  SerializerId serializerIdMap(const LogicalResourceId& id) const;
  void serializerIdMapIs(const LogicalResourceId& id, SerializerId sid);
  void serializerIdMapDel(const LogicalResourceId& id);
  void serializerIdMapDelAll();
  const SerializerIdMap& serializerIdMapCol() const { return serializerIdMap_; }

  Kel::Ptr<PhysicalResourceIdCol> physicalRemoteResources(const LogicalResourceId& id) const;
  void physicalRemoteResourcesIs(const LogicalResourceId& id,
                                 const Kel::Ptr<PhysicalResourceIdCol>& col);
  void physicalRemoteResourcesDel(const LogicalResourceId& id);
  void physicalRemoteResourcesDelAll();
  const PhysicalRemoteResourcesMap& physicalRemoteResourcesCol() const {
    return physicalRemoteResources_;
  }

  LogicalResourceId physicalToLogicalResourceMap(const PhysicalResourceId& id) const;
  void physicalToLogicalResourceMapIs(const PhysicalResourceId& id, const LogicalResourceId& lid);
  void physicalToLogicalResourceMapDel(const PhysicalResourceId& id);
  void physicalToLogicalResourceMapDelAll();
  const PhysicalToLogicalResourceMap& physicalToLogicalResourceMapCol() const {
    return physicalToLogicalResourceMap_;
  }

  const Kel::String& requesterName(AgentId agentId) const;
  void requesterNameIs(AgentId agentId, const Kel::String& name);
  void requesterNameDel(AgentId agentId);
  void requesterNameDelAll();
  const RequesterNameMap& requesterNameCol() const { return requesterName_; }

  // An instantiating collection: serializerInfoIs returns the entry of `sid`, creating it
  // (and notifying) when absent.
  Kel::Ptr<SerializerInfo> serializerInfo(SerializerId sid) const;
  Kel::Ptr<SerializerInfo> serializerInfoIs(SerializerId sid);
  void serializerInfoDel(SerializerId sid);
  void serializerInfoDelAll();
  const SerializerInfoMap& serializerInfoCol() const { return serializerInfo_; }

  // The agent that runs the serializer of a logical resource: serializerIdMap's serializer,
  // serializer 0 when the resource is not mapped, and 0xFFFF when that serializer is not
  // described (or its agent was never set).
  AgentId ownerAgentIdForLogicalResource(const LogicalResourceId& id) const;
  // 0xFFFF for a physical resource that belongs to no logical resource; otherwise the owner
  // of its logical resource.
  AgentId ownerAgentIdForPhysicalResource(const PhysicalResourceId& id) const;

  // Records the mount group and requests, in order, every state-database path this agent
  // needs: its own serializer directories (configuration read-only, status writable), the
  // simulation serializer's, the coprocessor status log, the debug watch list, and the
  // directories of each serializer owning a remote resource (configuration writable, status
  // read-only). Asserts "sInfo->agentId() != requesterAgentId()" for a remote resource that
  // names this agent as its owner.
  virtual void doMounts(const Kel::Ptr<Skorra::MountGroup>& mountGroup);
  // Builds this agent's DAL tree from the mounted state: the S-channel requester and its
  // DAL as the default DAL, one queue requester and remote DAL per serializer owning remote
  // resources, the routes of every physical id, and a new DemuxDal over them. Each call
  // builds a new tree; the creator keeps none of it.
  virtual Kel::Ptr<DemuxDal> demuxDal();
  // The queue requester of this agent towards serializer `sid` (named
  // <requester>-<serializer>-Queue), with a fresh DAL id and processing-status entry.
  Kel::Ptr<Requester> createRequester(SerializerId sid);

  Kel::NotifieeList<DemuxDalCreator>& notifiees() const { return notifiees_; }

 protected:
  ~DemuxDalCreator() override;

 private:
  // The description of the serializer owning a logical resource (serializer 0 when the
  // resource is not mapped); asserts that it exists.
  Kel::Ptr<SerializerInfo> remoteSerializerInfo(const LogicalResourceId& id) const;
  // The entity at a path through the mount group, or null.
  Kel::Ptr<Kel::Entity> mountedEntity(const Kel::String& path) const;
  // Hands out the next DAL id; asserts "nextDalId()" when the counter wraps to 0.
  DalId takeDalId();
  Kel::String schanQueueName() const;
  void makeLocalCoprocessorStatus();
  Kel::Ptr<RequesterDalSchan> makeDefaultDal();
  void addRemoteDals(ResourceIdToDalMap& resourceIdToDalMap);

  AgentId requesterAgentId_;
  Kel::Ptr<const LogicalRemoteResourceIdCol> logicalRemoteResources_;
  Kel::String coprocessorStatusAttrLogPath_;
  Kel::Ptr<Corvane::CoprocessorStatus> coprocessorStatus_;
  Kel::Ptr<Corvane::CoprocessorStatus> localCoprocessorStatus_;
  Kel::Ptr<const Corvane::CoprocessorStatusAttrLog> coprocessorStatusAttrLog_;
  Kel::Ptr<Corvane::CoprocessorStatusAttrLogAdapterSm> coprocessorStatusAdapterSm_;
  Kel::String sliceId_;
  DalId nextDalId_;
  SerializerIdMap serializerIdMap_;
  PhysicalRemoteResourcesMap physicalRemoteResources_;
  PhysicalToLogicalResourceMap physicalToLogicalResourceMap_;
  Kel::Ptr<DalProcessingStatusCol> dalProcessingStatusCol_;
  bool trackErrors_ = false;
  RequesterNameMap requesterName_;
  SerializerInfoMap serializerInfo_;
  Skorra::MountGroup* mountGroup_ = nullptr;
  bool useSimulationForDefaultDal_ = false;
  SerializerId simulationSerializerId_;
  mutable Kel::NotifieeList<DemuxDalCreator> notifiees_;
};

KEL_EXPORT Kel::Ptr<DemuxDalCreator> demuxDalCreatorFactory(
    AgentId requesterAgentId,
    const Kel::Ptr<const LogicalRemoteResourceIdCol>& logicalRemoteResources,
    Kel::String coprocessorStatusAttrLogPath);

}  // namespace Zorvek

template <>
struct std::hash<Zorvek::SerializerId> {
  std::size_t operator()(Zorvek::SerializerId id) const noexcept { return id.hash(); }
};
