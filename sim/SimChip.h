// sim::SimChip: the memory of one simulated device (every table instance and register of
// its Geometry) and, per table entry, the agent that owns it. sim::SimChipSet: the chips of
// several devices behind one S-channel backend.
//
//   auto chip = Kel::allocate<sim::SimChip>(DeviceId(0), geometry);
//   chip->writeAt(offset, data, nullptr, 16, agentId);     // agentId now owns the entry
//   Zorvek::schanBackendIs(chip);                          // S-channel requesters reach it
//
// Both are Zorvek::SchanBackend implementations: the S-channel accesses name the device and
// the resource, and the chip refuses (result -1, level 3 trace) a device that is not its own,
// a resource id that is not the one at the offset, and an access that does not lie inside
// one resource. Bulk accesses move whole memory entries of one table between the chip and
// the process memory at a physical address (in this simulation the address is a pointer).
//
// Ownership: a write to a table entry makes the writing agent its owner; a free of an
// agent's entries clears them (all bytes, or only the bytes of a data mask) and their owner.
// Registers have no owner.
//
// Memory is one flat byte array laid out like the geometry's offset space, and the owners
// one flat array of table entries: an access costs one geometry lookup and a copy. Both live
// on the chip's own heap, or in a shared-memory segment (sim/ChipSegment.h) that every agent
// process maps, as the chip's memory outlives a serializer's process. Counters are those of
// the accesses made through this object, in this process.
//
// Used from the agents' activity thread only.
#pragma once

#include <map>
#include <memory>
#include <span>
#include <vector>

#include "Zorvek/SchanBackend.h"
#include "sim/Geometry.h"

namespace sim {

using Zorvek::PhysicalAddr;

class KEL_EXPORT SimChip : public Zorvek::SchanBackend {
  KEL_ENTITY_TYPE(SimChip)

 public:
  // What reached the chip: accesses done, and accesses refused.
  struct Counters {
    U64 reads = 0;
    U64 writes = 0;
    U64 bulkReads = 0;
    U64 bulkWrites = 0;
    U64 frees = 0;
    U64 refused = 0;
  };

  // Where the memory and the owners live; `keeper` keeps them there while the chip lives.
  struct Storage {
    std::span<U8> memory;       // geometry->sizeBytes() bytes
    std::span<AgentId> owners;  // geometry->tableEntrySlots() owners
    std::shared_ptr<const void> keeper;
  };

  // A chip with all memory zero and no entry owned, on its own heap.
  SimChip(DeviceId devId, Kel::Ptr<const Geometry> geometry);
  // A chip over `storage`, as it is. Asserts "the storage fits the geometry".
  SimChip(DeviceId devId, Kel::Ptr<const Geometry> geometry, Storage storage);
  DeviceId devId() const { return devId_; }
  const Kel::Ptr<const Geometry>& geometry() const { return geometry_; }
  const Counters& counters() const { return counters_; }

  // Accesses by offset; each returns 0, or -1 (refused, nothing changed) when the access
  // does not lie inside one resource.
  S32 readAt(DeviceOffset offset, void* data, U32 size);
  // Writes `size` bytes; with a mask, new byte = (old & ~mask) | (data & mask). Every table
  // entry touched becomes `agentId`'s.
  S32 writeAt(DeviceOffset offset, const void* data, const void* dataMask, U32 size,
              AgentId agentId);
  // Copies numEntries whole memory entries of one table, starting at the entry at
  // `offset`, to / from `memory`. Refused unless `offset` starts an entry, entrySize is the
  // table's memory-entry size and every entry lies in the table.
  S32 bulkReadAt(DeviceOffset offset, U32 entrySize, U32 numEntries, void* memory);
  S32 bulkWriteAt(DeviceOffset offset, U32 entrySize, U32 numEntries, const void* memory,
                  AgentId agentId);

  // Frees every entry of the table instance `table` that `agentId` owns: clears the entry
  // (with a mask of maskSize bytes, only the bits it sets, in the first maskSize bytes) and
  // its owner. Returns the number of entries freed, or -1 when `table` is no table here.
  S32 freeOwned(const PhysicalResourceId& table, AgentId agentId, const void* dataMask,
                U32 maskSize);
  // Clears the whole table instance, data and owners. Returns 0, or -1 for no table.
  S32 tableWipe(const PhysicalResourceId& table);

  // Inspection. Throw GeometryError for an unknown resource or an entry out of range.
  std::span<const U8> entry(const PhysicalResourceId& rid, U32 index) const;
  AgentId owner(const PhysicalResourceId& table, U32 index) const;

  // Zorvek::SchanBackend.
  S32 read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
           U32 size) override;
  S32 write(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, const void* data,
            const void* dataMask, U32 size, AgentId agentId) override;
  S32 bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
               PhysicalAddr physAddr, U32 entrySize, U32 numEntries) override;
  S32 bulkWrite(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                PhysicalAddr physAddr, const void* data, U32 entrySize, U32 numEntries,
                AgentId agentId) override;

 protected:
  ~SimChip() override;

 private:
  // The resource that [offset, offset + size) lies inside, or null (counted, traced).
  const ResourceLayout* accessed(const char* what, DeviceOffset offset, U64 size);
  // The resource of a bulk access (see bulkReadAt), or null (counted, traced).
  const ResourceLayout* bulkAccessed(const char* what, DeviceOffset offset, U32 entrySize,
                                     U32 numEntries);
  // True when an S-channel access names this device and the resource at the offset.
  bool addressed(const char* what, DeviceId devId, const PhysicalResourceId& rid,
                 DeviceOffset offset);
  const ResourceLayout* table(const PhysicalResourceId& rid) const;
  // The resource (a table when tableOnly) that has entry `index`; throws GeometryError.
  const ResourceLayout& inspected(const PhysicalResourceId& rid, U32 index, bool tableOnly) const;
  void ownerIs(const ResourceLayout& r, DeviceOffset offset, U64 size, AgentId agentId);
  S32 refuse(const char* what, DeviceOffset offset, const char* reason);

  DeviceId devId_;
  Kel::Ptr<const Geometry> geometry_;
  std::span<U8> memory_;       // the offset space of the geometry
  std::span<AgentId> owners_;  // per table entry slot (ResourceLayout::firstEntrySlot)
  std::shared_ptr<const void> keeper_;
  Counters counters_;
};

// The chips of the simulated devices, by device: an S-channel backend that hands each
// access to the chip of its device, and refuses (-1) an access to a device without one.
class KEL_EXPORT SimChipSet : public Zorvek::SchanBackend {
  KEL_ENTITY_TYPE(SimChipSet)

 public:
  using Chips = std::map<DeviceId, Kel::Ptr<SimChip>>;

  SimChipSet() = default;
  // Adds or replaces the chip of chip->devId().
  void chipIs(const Kel::Ptr<SimChip>& chip);
  // The chip of `devId`, or null.
  Kel::Ptr<SimChip> chip(DeviceId devId) const;
  const Chips& chips() const { return chips_; }

  S32 read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
           U32 size) override;
  S32 write(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, const void* data,
            const void* dataMask, U32 size, AgentId agentId) override;
  S32 bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
               PhysicalAddr physAddr, U32 entrySize, U32 numEntries) override;
  S32 bulkWrite(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                PhysicalAddr physAddr, const void* data, U32 entrySize, U32 numEntries,
                AgentId agentId) override;

 protected:
  ~SimChipSet() override;

 private:
  // The chip of `devId`, or null with a level 3 trace of the refused `what`.
  SimChip* chipFor(const char* what, DeviceId devId) const;
  Chips chips_;
};

}  // namespace sim
