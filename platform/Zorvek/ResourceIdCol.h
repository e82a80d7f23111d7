// Resource collections that describe what an agent reaches through other agents'
// serializers:
//
// - PhysicalResourceIdCol: the physical resources (tables, registers) that make up one
//   logical resource, as a set iterated in PhysicalResourceId order.
// - LogicalRemoteResourceIdCol: the logical resources owned by other agents that this agent
//   accesses, each with the data mask of the bytes this agent may write, iterated in
//   LogicalResourceId order.
//
//   auto remote = Kel::allocate<Zorvek::LogicalRemoteResourceIdCol>();
//   remote->dataMaskIs(logicalId, Zorvek::RequesterDataMask(false));  // no mask: whole entries
//
// Ordered containers keep the assembly of the DALs, which walks these collections,
// reproducible from one run to the next. Used from the agent's activity thread only.
#pragma once

#include <map>
#include <set>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Zorvek/RequesterDataMask.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT PhysicalResourceIdCol : public Kel::Entity {
  KEL_ENTITY_TYPE(PhysicalResourceIdCol)

 public:
  class NotifieeConst : public Kel::NotifieeConst<PhysicalResourceIdCol> {
   public:
    // `id` was inserted or removed.
    virtual void onResourceId(const PhysicalResourceId& id) { (void)id; }
  };
  using ResourceIdSet = std::set<PhysicalResourceId>;

  PhysicalResourceIdCol() = default;

  bool resourceId(const PhysicalResourceId& id) const { return ids_.count(id) != 0; }
  // Insert / remove; each notifies onResourceId(id) only when the set changes.
  void resourceIdIs(const PhysicalResourceId& id);
  void resourceIdDel(const PhysicalResourceId& id);
  const ResourceIdSet& resourceIdCol() const { return ids_; }
  std::size_t resourceIds() const { return ids_.size(); }

  Kel::NotifieeList<PhysicalResourceIdCol>& notifiees() const { return notifiees_; }

 protected:
  ~PhysicalResourceIdCol() override = default;

 private:
  ResourceIdSet ids_;
  mutable Kel::NotifieeList<PhysicalResourceIdCol> notifiees_;
};

class KEL_EXPORT LogicalRemoteResourceIdCol
    : public DataMaskCollection<LogicalRemoteResourceIdCol,
                                std::map<LogicalResourceId, RequesterDataMask>> {
  KEL_ENTITY_TYPE(LogicalRemoteResourceIdCol)

 public:
  LogicalRemoteResourceIdCol() = default;

 protected:
  ~LogicalRemoteResourceIdCol() override = default;
};

}  // namespace Zorvek
