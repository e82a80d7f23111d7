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

// The data masks of the physical resources an agent writes through one serializer, keyed by
// normalised PhysicalResourceId (hashed; iteration order not defined).
class KEL_EXPORT ResourceIdToDataMaskMap : public Kel::Entity {
  KEL_ENTITY_TYPE(ResourceIdToDataMaskMap)

 public:
  class NotifieeConst : public Kel::NotifieeConst<ResourceIdToDataMaskMap> {
   public:
    // The mask of `id` was added, changed or removed.
    virtual void onDataMask(const PhysicalResourceId& id) { (void)id; }
  };
  using DataMaskMap = std::unordered_map<PhysicalResourceId, RequesterDataMask>;

  ResourceIdToDataMaskMap() = default;

  // The mask stored for `id`, or noDataMask() when there is none.
  const RequesterDataMask& dataMask(const PhysicalResourceId& id) const;
  bool dataMaskExists(const PhysicalResourceId& id) const { return masks_.count(id) != 0; }
  // Insert or replace / remove; each notifies onDataMask(id) only on a change.
  void dataMaskIs(const PhysicalResourceId& id, const RequesterDataMask& mask);
  void dataMaskDel(const PhysicalResourceId& id);
  const DataMaskMap& dataMaskCol() const { return masks_; }

  Kel::NotifieeList<ResourceIdToDataMaskMap>& notifiees() const { return notifiees_; }

 protected:
  ~ResourceIdToDataMaskMap() override = default;

 private:
  DataMaskMap masks_;
  mutable Kel::NotifieeList<ResourceIdToDataMaskMap> notifiees_;
};

// Shared by the mask collections. The mask under `key`, or noDataMask():
template <class Map>
const RequesterDataMask& dataMaskOrNone(const Map& masks, const typename Map::key_type& key) {
  auto it = findByKey(masks, key);
  return it == masks.end() ? noDataMask() : it->second;
}
// Inserts or replaces the mask under `key`; true when the stored mask changed.
template <class Map>
bool dataMaskStore(Map& masks, const typename Map::key_type& key, const RequesterDataMask& mask) {
  auto [it, inserted] = masks.try_emplace(key, mask);
  if (inserted) return true;
  if (it->second == mask) return false;
  it->second = mask;
  return true;
}

}  // namespace Zorvek
