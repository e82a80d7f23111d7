// sim::Geometry: the resources of one simulated device and where each one lives in the
// device's offset space. The chip, the device shadow and the device helper all index their
// bytes with this one layout.
//
//   auto g = Kel::allocate<sim::Geometry>(Kel::Name("chip"),
//       std::vector<sim::TableDef>{{"route", 0x10, 8, 16, 64, 2, true, false}},
//       std::vector<sim::RegisterDef>{{"ctrl", 0x1, 4, false}});
//   sim::Location at = g->locate(offset);        // (resource, entry index)
//
// Layout: one byte-addressed offset space per device. Tables come first, in the order given,
// each instance of a replicated table right after the previous one; registers follow. A
// resource occupies [base, base + memoryEntrySize * entryCount) and entry i starts at
// base + i * memoryEntrySize (a register is one entry of its size). Resources never overlap
// and leave no gaps, so the space ends at sizeBytes().
//
// Replicated tables: a table with n instances has the ids id, id + 1, ..., id + n - 1; every
// instance normalises to the first one (its baseId).
//
// Immutable once built; safe to share between threads.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Kel/Entity.h"
#include "Kel/String.h"
#include "ZorvekTypes/Types.h"

namespace sim {

using Zorvek::AgentId;
using Zorvek::DeviceId;
using Zorvek::DeviceOffset;
using Zorvek::PhysicalResourceId;
using Zorvek::ResourceType;
using Zorvek::S32;
using Zorvek::U16;
using Zorvek::U32;
using Zorvek::U64;
using Zorvek::U8;

// A table as the device family describes it.
struct TableDef {
  Kel::Name name;
  U64 id;               // id of instance 0; instance k has id + k
  U32 entrySize;        // bytes of one logical entry
  U32 memoryEntrySize;  // bytes of one memory entry: the unit stored and moved, the stride
  U32 entryCount;       // memory entries per instance
  U32 instances = 1;
  bool cacheable = true;
  bool hash = false;  // a hash table (entries placed by key) rather than a direct one
};

struct RegisterDef {
  Kel::Name name;
  U64 id;
  U32 size;
  bool cacheable = true;
};

// Where one resource (one instance of a table, or a register) lives.
struct ResourceLayout {
  Kel::Name name;
  PhysicalResourceId id;
  PhysicalResourceId baseId;  // the id this resource normalises to (its own id if not replicated)
  U32 instance;               // k of a replicated table instance; 0 otherwise
  U32 instances;              // instances of the table; 1 for a register
  DeviceOffset base;
  U32 entrySize;
  U32 memoryEntrySize;
  U32 entryCount;
  bool cacheable;
  bool hash;
  // Tables: position of entry 0 among the table entries of the whole device, so that
  // per-entry state can live in one flat vector. Registers: 0 (they have no entry state).
  U32 firstEntrySlot;

  bool isTable() const { return id.type() == ResourceType::tableResource_; }
  U32 sizeBytes() const { return memoryEntrySize * entryCount; }
  DeviceOffset end() const { return base + sizeBytes(); }
  DeviceOffset entryOffset(U32 entry) const { return base + entry * memoryEntrySize; }
  // True when [offset, offset + size) lies inside this resource.
  bool contains(DeviceOffset offset, U64 size) const {
    return offset >= base && offset < end() && U64{offset} + size <= end();
  }
};

// An offset resolved to its resource: the entry it falls in and its byte inside that entry.
struct Location {
  const ResourceLayout* layout;
  U32 entry;
  U32 byte;
};

// A geometry that cannot be built, or a lookup of something the geometry does not have.
class KEL_EXPORT GeometryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KEL_EXPORT Geometry : public Kel::Entity {
  KEL_ENTITY_TYPE(Geometry)

 public:
  // Lays the resources out. Throws GeometryError for a zero size or count, zero instances,
  // an id used twice (instances included), or a layout beyond the 32-bit offset space.
  Geometry(Kel::Name name, const std::vector<TableDef>& tables,
           const std::vector<RegisterDef>& registers);

  const Kel::Name& name() const { return name_; }
  // Bytes of the offset space: the end of the last resource.
  U32 sizeBytes() const { return static_cast<U32>(sizeBytes_); }
  // Memory entries of every table instance together.
  U32 tableEntrySlots() const { return tableEntrySlots_; }
  // Every resource, in offset order.
  const std::vector<ResourceLayout>& resources() const { return resources_; }

  // The resource holding `offset`, or null.
  const ResourceLayout* find(DeviceOffset offset) const;
  // The resource holding `offset`; throws GeometryError naming the geometry and the offset
  // when nothing is there.
  Location locate(DeviceOffset offset) const;
  // The resource of that id, or null. The last answer is kept: the helper asks for one
  // resource many times in a row (every entry of a replayed table, every step of an access).
  const ResourceLayout* layout(const PhysicalResourceId& rid) const {
    return lastLayout_ && lastLayout_->id == rid ? lastLayout_ : findLayout(rid);
  }
  // Every instance of the table that `rid` is an instance of, in instance order (one
  // element for a table that is not replicated or a register); empty for an unknown id.
  std::span<const ResourceLayout> instances(const PhysicalResourceId& rid) const;

 protected:
  ~Geometry() override;

 private:
  void add(ResourceLayout layout);
  const ResourceLayout* findLayout(const PhysicalResourceId& rid) const;
  Kel::Name name_;
  std::vector<ResourceLayout> resources_;
  std::vector<DeviceOffset> bases_;                     // resources_[i].base, for find()
  std::unordered_map<PhysicalResourceId, U32> byId_;    // id -> index in resources_
  mutable const ResourceLayout* lastLayout_ = nullptr;  // the last resource layout() found
  U64 sizeBytes_ = 0;
  U32 tableEntrySlots_ = 0;
};

// "0x" followed by the value in hexadecimal, for error texts.
std::string hexText(U64 v);

}  // namespace sim
