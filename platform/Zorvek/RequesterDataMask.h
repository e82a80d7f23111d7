// Data masks of the requester library: which bytes of a table entry an agent may write.
//
// A RequesterDataMask applies only when its flag is set; it then gives one mask byte per
// byte index of the entry, 0 (no bit writable) for every index it does not list. Several
// agents may share one table, each writing its own bits of the entries.
//
//   Zorvek::RequesterDataMask mask(true);
//   mask.maskByteIs(0, 0xff);                   // the first byte is ours, nothing else
//   maps->dataMaskIs(tableId, mask);            // ResourceIdToDataMaskMap, by resource id
//
// Used from the agent's activity thread only.
#pragma once

#include <map>
#include <unordered_map>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT RequesterDataMask {
 public:
  explicit RequesterDataMask(bool flag = false) : flag_(flag) {}

  // True when the mask applies to writes; false means "no mask".
  bool flag() const { return flag_; }
  void flagIs(bool v) { flag_ = v; }

  // The mask byte of byte `index` of an entry; 0 when the mask lists none.
  U8 maskByte(U32 index) const;
  // Setting 0 removes the index, so that two masks that read the same compare equal.
  void maskByteIs(U32 index, U8 byte);
  const std::map<U32, U8>& maskByteCol() const { return bytes_; }

  // Writes the mask bytes of indexes 0..size-1 to `out` (0 where the mask lists none).
  void maskBytesCopy(U8* out, U32 size) const;

  friend bool operator==(const RequesterDataMask&, const RequesterDataMask&) = default;

 private:
  bool flag_;
  std::map<U32, U8> bytes_;
};

// The mask every lookup of an absent key answers: flag false, no bytes.
KEL_EXPORT const RequesterDataMask& noDataMask();

// The data masks of resources an agent writes, keyed by resource id: a lookup of an absent
// key answers noDataMask(), and the writers notify onDataMask(id) on a change only. `Self`
// is the entity that derives from it and that observers watch.
template <class Self, class Map>
class DataMaskCollection : public Kel::Entity {
 public:
  using DataMaskMap = Map;
  using Key = typename Map::key_type;
  class NotifieeConst : public Kel::NotifieeConst<Self> {
   public:
    // The mask of `id` was added, changed or removed.
    virtual void onDataMask(const Key& id) { (void)id; }
  };

  // The mask stored for `id`, or noDataMask() when there is none.
  const RequesterDataMask& dataMask(const Key& id) const {
    auto it = findByKey(masks_, id);
    return it == masks_.end() ? noDataMask() : it->second;
  }
  bool dataMaskExists(const Key& id) const { return masks_.count(id) != 0; }
  // Insert or replace / remove; each notifies onDataMask(id) only on a change.
  void dataMaskIs(const Key& id, const RequesterDataMask& mask) {
    auto [it, inserted] = masks_.try_emplace(id, mask);
    if (!inserted) {
      if (it->second == mask) return;
      it->second = mask;
    }
    notifiees_.visit(&NotifieeConst::onDataMask, id);
  }
  void dataMaskDel(const Key& id) {
    if (masks_.erase(id) != 0) notifiees_.visit(&NotifieeConst::onDataMask, id);
  }
  const DataMaskMap& dataMaskCol() const { return masks_; }

  Kel::NotifieeList<Self>& notifiees() const { return notifiees_; }

 protected:
  ~DataMaskCollection() override = default;

 private:
  DataMaskMap masks_;
  mutable Kel::NotifieeList<Self> notifiees_;
};

// The data masks of the physical resources an agent writes through one serializer, keyed by
// normalised PhysicalResourceId (hashed; iteration order not defined).
class KEL_EXPORT ResourceIdToDataMaskMap
    : public DataMaskCollection<ResourceIdToDataMaskMap,
                                std::unordered_map<PhysicalResourceId, RequesterDataMask>> {
  KEL_ENTITY_TYPE(ResourceIdToDataMaskMap)

 public:
  ResourceIdToDataMaskMap() = default;

 protected:
  ~ResourceIdToDataMaskMap() override = default;
};

}  // namespace Zorvek
