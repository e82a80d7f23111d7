// The Zorvek types library: the identifier and value types shared by every Zorvek library
// (devices and targets, resource ids with their hash, requester commands, DAL and agent ids,
// and the bulk limit). It sits below every library that names a device or a resource (the
// watch list of Orv, the requesters of Zorvek, the DAL) and depends only on Kel and Corvane,
// so that the platform's libraries stack one way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <type_traits>
#include <utility>

#include "Corvane/Fap.h"
#include "Kel/Assert.h"
#include "Kel/Export.h"

namespace Zorvek {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using S32 = std::int32_t;
using U64 = std::uint64_t;
using S64 = std::int64_t;

// A device: 0..127, or 128 for no device. Constructing one above 128 throws
// Corvane::FapIdRangeError.
using DeviceId = Corvane::FapId;
using DeviceOffset = U32;
// The address of a table's memory for DMA-style bulk transfers.
using PhysicalAddr = U64;
using AgentId = U16;
constexpr AgentId kInvalidAgentId = 0xFFFF;

class TargetId {
 public:
  static constexpr U8 max() { return 127; }
  constexpr TargetId() noexcept : value_(0) {}
  constexpr explicit TargetId(U8 v) noexcept : value_(v) {}
  constexpr explicit TargetId(DeviceId d) noexcept : value_(d.value()) {}
  constexpr U8 value() const noexcept { return value_; }
  // Targets 125 and 126 stand for groups of devices and are used one at a time.
  constexpr bool alias() const noexcept { return value_ == 125 || value_ == 126; }
  friend constexpr bool operator==(TargetId, TargetId) noexcept = default;
  friend constexpr auto operator<=>(TargetId, TargetId) noexcept = default;

 private:
  U8 value_;
};

// The devices an access is written to.
class TargetMask {
 public:
  TargetMask() = default;
  unsigned targets() const noexcept { return mask_.fapIds(); }
  // Sets or clears one target. Asserts "target < TargetId::max()", and that an alias target
  // is set only in an empty mask and cleared only from a mask of one target.
  void targetIdIs(TargetId target, bool val) {
    KEL_ASSERT_TEXT(target.value() < TargetId::max(), "target < TargetId::max()");
    KEL_ASSERT_TEXT(!target.alias() || (val && (targets() == 0)) || (!val && (targets() == 1)),
                    "!target.alias() || (val && (targets() == 0)) || (!val && (targets() == 1))");
    mask_.fapIdIs(Corvane::FapId(target.value()), val);
  }
  bool targetId(TargetId t) const noexcept { return mask_.fapId(Corvane::FapId(t.value())); }
  // The first device of the mask (the null device when empty).
  DeviceId firstDevice() const noexcept {
    return mask_.nextFapId(Corvane::FapId(Corvane::FapId::null));
  }
  const Corvane::Fapmask& fapmask() const noexcept { return mask_; }
  friend bool operator==(const TargetMask&, const TargetMask&) noexcept = default;

 private:
  Corvane::Fapmask mask_;
};

// A mask holding exactly `devId` (with the checks of TargetMask::targetIdIs).
inline TargetMask oneDeviceMask(DeviceId devId) {
  TargetMask m;
  m.targetIdIs(TargetId(devId), true);
  return m;
}

enum class ResourceType : U32 {
  none_ = 0,
  tableResource_ = 1,
  registerResource_ = 2,
};
KEL_EXPORT std::ostream& operator<<(std::ostream& os, ResourceType t);

// Jenkins one-at-a-time hash of a resource id: the 4 bytes of the type, then the 8 bytes of
// the id, least significant first.
constexpr U32 oneAtATimeStep(U32 h, U8 b) noexcept {
  h += b;
  h += h << 10;
  h ^= h >> 6;
  return h;
}
constexpr U32 oneAtATimeBytes(U32 h, U64 v, int bytes) noexcept {
  for (int i = 0; i < bytes; ++i) h = oneAtATimeStep(h, static_cast<U8>(v >> (8 * i)));
  return h;
}
// The 8 bytes of an id, written out so that the compiler unrolls them: every lookup of a
// hashed collection keyed by a resource id runs these steps.
constexpr U32 oneAtATimeId(U32 h, U64 id) noexcept {
  [&]<int... I>(std::integer_sequence<int, I...>) {
    ((h = oneAtATimeStep(h, static_cast<U8>(id >> (8 * I)))), ...);
  }
  (std::make_integer_sequence<int, 8>{});
  return h;
}
constexpr U32 oneAtATimeFinish(U32 h) noexcept {
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}
// The state after the type bytes of a table (1) and a register (2) id, so that ids of a
// constant type hash only their 8 id bytes. The null type (0) leaves the state at 0.
constexpr U32 kTableTypeHashState = 300581581;
constexpr U32 kRegisterTypeHashState = 601164203;
static_assert(oneAtATimeBytes(0, 1, 4) == kTableTypeHashState);
static_assert(oneAtATimeBytes(0, 2, 4) == kRegisterTypeHashState);
static_assert(oneAtATimeBytes(0, 0, 4) == 0);
constexpr U32 typeHashState(U32 type) noexcept {
  switch (type) {
    case 0:
      return 0;
    case 1:
      return kTableTypeHashState;
    case 2:
      return kRegisterTypeHashState;
  }
  return oneAtATimeBytes(0, type, 4);
}
constexpr U32 resourceIdHash(U32 type, U64 id) noexcept {
  return oneAtATimeFinish(oneAtATimeId(typeHashState(type), id));
}
static_assert(resourceIdHash(7, 0x0102030405060708) ==
              oneAtATimeFinish(oneAtATimeBytes(oneAtATimeBytes(0, 7, 4), 0x0102030405060708, 8)));

// A resource id: type then 64-bit id, compared field by field, type first. It carries its
// hash, worked out once when the id is made (it fills what would be padding): a hashed
// collection keyed by resource ids never hashes an element it already holds, when it walks
// a bucket or when it grows, and a lookup with an id taken from another collection or from
// the helper hashes nothing.
template <class Tag>
class ResourceIdBase {
 public:
  constexpr ResourceIdBase() noexcept = default;
  constexpr ResourceIdBase(ResourceType type, U64 id) noexcept
      : type_(type), hash_(resourceIdHash(static_cast<U32>(type), id)), id_(id) {}
  constexpr ResourceType type() const noexcept { return type_; }
  constexpr U64 id() const noexcept { return id_; }
  constexpr bool isNull() const noexcept { return type_ == ResourceType::none_; }
  constexpr U32 hash() const noexcept { return hash_; }
  // The hash follows from the fields compared.
  friend constexpr bool operator==(const ResourceIdBase& a, const ResourceIdBase& b) noexcept {
    return a.type_ == b.type_ && a.id_ == b.id_;
  }
  friend constexpr bool operator<(const ResourceIdBase& a, const ResourceIdBase& b) noexcept {
    return a.type_ != b.type_ ? a.type_ < b.type_ : a.id_ < b.id_;
  }

 private:
  ResourceType type_ = ResourceType::none_;
  U32 hash_ = 0;  // resourceIdHash(type_, id_), which is 0 for the null id
  U64 id_ = 0;
};
static_assert(resourceIdHash(0, 0) == 0);

struct PhysicalTag;
struct LogicalTag;
using PhysicalResourceId = ResourceIdBase<PhysicalTag>;
using LogicalResourceId = ResourceIdBase<LogicalTag>;
KEL_EXPORT std::ostream& operator<<(std::ostream& os, const PhysicalResourceId& r);
KEL_EXPORT std::ostream& operator<<(std::ostream& os, const LogicalResourceId& r);

// A physical id of a constant type: tables (1) key the per-table cache counters, registers
// (2) the per-register ones. It carries its hash as a resource id does.
template <ResourceType kType, U32 kHashState>
class FixedTypeResourceId {
 public:
  constexpr FixedTypeResourceId() noexcept : FixedTypeResourceId(0) {}
  constexpr explicit FixedTypeResourceId(U64 id) noexcept : id_(id), hash_(hashOf(id)) {}
  // The id of `rid`, taking over its hash when `rid` is of this type (the hash is then the
  // same), so that an access counting its resource hashes nothing.
  constexpr explicit FixedTypeResourceId(const PhysicalResourceId& rid) noexcept
      : id_(rid.id()), hash_(rid.type() == kType ? rid.hash() : hashOf(rid.id())) {}
  static constexpr ResourceType type() noexcept { return kType; }
  constexpr U64 id() const noexcept { return id_; }
  constexpr U32 hash() const noexcept { return hash_; }
  constexpr PhysicalResourceId resourceId() const noexcept { return {kType, id_}; }
  friend constexpr bool operator==(FixedTypeResourceId a, FixedTypeResourceId b) noexcept {
    return a.id_ == b.id_;
  }
  friend constexpr bool operator<(FixedTypeResourceId a, FixedTypeResourceId b) noexcept {
    return a.id_ < b.id_;
  }

 private:
  static constexpr U32 hashOf(U64 id) noexcept {
    return oneAtATimeFinish(oneAtATimeId(kHashState, id));
  }
  U64 id_;
  U32 hash_;
};
using PhysicalTableId = FixedTypeResourceId<ResourceType::tableResource_, kTableTypeHashState>;
using PhysicalRegisterId =
    FixedTypeResourceId<ResourceType::registerResource_, kRegisterTypeHashState>;
static_assert(sizeof(PhysicalResourceId) == 16);
static_assert(PhysicalTableId(7).hash() ==
              PhysicalResourceId(ResourceType::tableResource_, 7).hash());
static_assert(PhysicalRegisterId(PhysicalResourceId(ResourceType::none_, 7)).hash() ==
              PhysicalResourceId(ResourceType::registerResource_, 7).hash());

// Hashed collections keyed by resource ids hold a few elements as a rule (the tables one
// serializer owns): up to kKeySearchMax elements a lookup compares the keys one after
// another, which costs less than working out the bucket; a larger collection is searched
// through its buckets. Ordered collections are always searched through their tree.
inline constexpr std::size_t kKeySearchMax = 20;
template <class Map>
auto findByKey(Map& map, const typename Map::key_type& key) -> decltype(map.begin()) {
  if constexpr (requires { map.bucket_count(); }) {
    if (map.size() <= kKeySearchMax) {
      auto it = map.begin();
      while (it != map.end() && !(it->first == key)) ++it;
      return it;
    }
  }
  return map.find(key);
}

// Requester commands. The two bulk commands have fixed codes.
enum class Command : U32 {
  writeCmd_ = 0,
  readCmd_ = 1,
  bulkWriteCmd_ = 2,
  bulkReadCmd_ = 3,
  blockingWriteCmd_ = 4,
  freeCmd_ = 5,
};
constexpr Command bulkWriteCmd() noexcept { return Command::bulkWriteCmd_; }
constexpr Command bulkReadCmd() noexcept { return Command::bulkReadCmd_; }
KEL_EXPORT std::ostream& operator<<(std::ostream& os, Command c);

// One DAL channel towards a serializer (8-bit, handed out in creation order).
class DalId {
 public:
  constexpr DalId() noexcept : value_(0) {}
  constexpr DalId(U8 v) noexcept : value_(v) {}
  constexpr U8 value() const noexcept { return value_; }
  friend constexpr bool operator==(DalId, DalId) noexcept = default;
  friend constexpr auto operator<=>(DalId, DalId) noexcept = default;
  friend std::ostream& operator<<(std::ostream& os, DalId d) {
    return os << static_cast<unsigned>(d.value_);
  }

 private:
  U8 value_;
};

// The local shadow table of one (device, table resource).
class CacheTableIndex {
 public:
  CacheTableIndex() = default;
  CacheTableIndex(DeviceId devId, const PhysicalResourceId& prid) : devId_(devId), prid_(prid) {}
  DeviceId devId() const noexcept { return devId_; }
  const PhysicalResourceId& prid() const noexcept { return prid_; }
  friend bool operator==(const CacheTableIndex&, const CacheTableIndex&) noexcept = default;
  friend bool operator<(const CacheTableIndex& a, const CacheTableIndex& b) noexcept {
    return a.devId_ != b.devId_ ? a.devId_ < b.devId_ : a.prid_ < b.prid_;
  }

 private:
  DeviceId devId_;
  PhysicalResourceId prid_;
};
KEL_EXPORT std::ostream& operator<<(std::ostream& os, const CacheTableIndex& i);

// The largest byte count one bulk access may carry: the largest whole number of 32-bit
// words that still fits the 16-bit size of the shadow path, so that the size handed to the
// shadow hooks of a bulk access is never cut short.
constexpr U32 maxBulkTransactionSizeInBytes() noexcept { return 65532; }

}  // namespace Zorvek

template <class Tag>
struct std::hash<Zorvek::ResourceIdBase<Tag>> {
  std::size_t operator()(const Zorvek::ResourceIdBase<Tag>& r) const noexcept { return r.hash(); }
};
template <Zorvek::ResourceType T, Zorvek::U32 S>
struct std::hash<Zorvek::FixedTypeResourceId<T, S>> {
  std::size_t operator()(const Zorvek::FixedTypeResourceId<T, S>& r) const noexcept {
    return r.hash();
  }
};
template <>
struct std::hash<Zorvek::DalId> {
  std::size_t operator()(Zorvek::DalId d) const noexcept { return d.value(); }
};
