#include "sim/SimChip.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "Duwisp/Duwisp.h"

namespace sim {

KEL_DEFINE_ENTITY_TYPE(sim::SimChip, "sim::SimChip")
KEL_DEFINE_ENTITY_TYPE(sim::SimChipSet, "sim::SimChipSet")

namespace {

KEL_FILE_TRACE_HANDLE("SimChip")

void* memoryAt(PhysicalAddr physAddr) { return reinterpret_cast<void*>(physAddr); }

struct HeapStorage {
  std::vector<U8> memory;
  std::vector<AgentId> owners;
};

SimChip::Storage heapStorage(const Geometry& geometry) {
  auto heap = std::make_shared<HeapStorage>(
      HeapStorage{std::vector<U8>(geometry.sizeBytes(), 0),
                  std::vector<AgentId>(geometry.tableEntrySlots(), Zorvek::kInvalidAgentId)});
  return {heap->memory, heap->owners, heap};
}

}  // namespace

SimChip::SimChip(DeviceId devId, Kel::Ptr<const Geometry> geometry)
    : SimChip(devId, geometry, heapStorage(*geometry)) {}

SimChip::SimChip(DeviceId devId, Kel::Ptr<const Geometry> geometry, Storage storage)
    : devId_(devId),
      geometry_(std::move(geometry)),
      memory_(storage.memory),
      owners_(storage.owners),
      keeper_(std::move(storage.keeper)) {
  KEL_ASSERT_TEXT(
      memory_.size() == geometry_->sizeBytes() && owners_.size() == geometry_->tableEntrySlots(),
      "the storage fits the geometry");
}

SimChip::~SimChip() = default;

S32 SimChip::refuse(const char* what, DeviceOffset offset, const char* reason) {
  ++counters_.refused;
  DUWISP_TRACE(th(), 3, "SimChip::%s device %s offset 0x%x refused: %s", what, devId_, offset,
               reason);
  return -1;
}

const ResourceLayout* SimChip::accessed(const char* what, DeviceOffset offset, U64 size) {
  const ResourceLayout* r = geometry_->find(offset);
  if (r && r->contains(offset, size)) return r;
  refuse(what, offset, "the access does not lie inside one resource");
  return nullptr;
}

const ResourceLayout* SimChip::bulkAccessed(const char* what, DeviceOffset offset, U32 entrySize,
                                            U32 numEntries) {
  const ResourceLayout* r = accessed(what, offset, U64{entrySize} * numEntries);
  if (!r) return nullptr;
  if (r->isTable() && entrySize == r->memoryEntrySize && (offset - r->base) % entrySize == 0)
    return r;
  refuse(what, offset, "not whole memory entries of one table");
  return nullptr;
}

void SimChip::ownerIs(const ResourceLayout& r, DeviceOffset offset, U64 size, AgentId agentId) {
  if (!r.isTable() || size == 0) return;
  const U32 first = (offset - r.base) / r.memoryEntrySize;
  const U32 last = static_cast<U32>((offset - r.base + size - 1) / r.memoryEntrySize);
  std::fill(owners_.begin() + r.firstEntrySlot + first,
            owners_.begin() + r.firstEntrySlot + last + 1, agentId);
}

S32 SimChip::readAt(DeviceOffset offset, void* data, U32 size) {
  if (!accessed("readAt", offset, size)) return -1;
  std::memcpy(data, memory_.data() + offset, size);
  ++counters_.reads;
  return 0;
}

S32 SimChip::writeAt(DeviceOffset offset, const void* data, const void* dataMask, U32 size,
                     AgentId agentId) {
  const ResourceLayout* r = accessed("writeAt", offset, size);
  if (!r) return -1;
  U8* to = memory_.data() + offset;
  if (!dataMask) {
    std::memcpy(to, data, size);
  } else {
    const auto* d = static_cast<const U8*>(data);
    const auto* m = static_cast<const U8*>(dataMask);
    for (U32 i = 0; i < size; ++i) to[i] = static_cast<U8>((to[i] & ~m[i]) | (d[i] & m[i]));
  }
  ownerIs(*r, offset, size, agentId);
  ++counters_.writes;
  return 0;
}

S32 SimChip::bulkReadAt(DeviceOffset offset, U32 entrySize, U32 numEntries, void* memory) {
  if (!bulkAccessed("bulkReadAt", offset, entrySize, numEntries)) return -1;
  std::memcpy(memory, memory_.data() + offset, std::size_t{entrySize} * numEntries);
  ++counters_.bulkReads;
  return 0;
}

S32 SimChip::bulkWriteAt(DeviceOffset offset, U32 entrySize, U32 numEntries, const void* memory,
                         AgentId agentId) {
  const ResourceLayout* r = bulkAccessed("bulkWriteAt", offset, entrySize, numEntries);
  if (!r) return -1;
  const U64 size = U64{entrySize} * numEntries;
  std::memcpy(memory_.data() + offset, memory, size);
  ownerIs(*r, offset, size, agentId);
  ++counters_.bulkWrites;
  return 0;
}

const ResourceLayout* SimChip::table(const PhysicalResourceId& rid) const {
  const ResourceLayout* r = geometry_->layout(rid);
  return r && r->isTable() ? r : nullptr;
}

S32 SimChip::freeOwned(const PhysicalResourceId& tableId, AgentId agentId, const void* dataMask,
                       U32 maskSize) {
  const ResourceLayout* r = table(tableId);
  if (!r) return refuse("freeOwned", 0, "no such table");
  const auto* mask = static_cast<const U8*>(dataMask);
  const U32 maskBytes = std::min(maskSize, r->memoryEntrySize);
  S32 freed = 0;
  for (U32 e = 0; e < r->entryCount; ++e) {
    AgentId& owner = owners_[r->firstEntrySlot + e];
    if (owner != agentId) continue;
    U8* data = memory_.data() + r->entryOffset(e);
    if (!mask) {
      std::memset(data, 0, r->memoryEntrySize);
    } else {
      for (U32 i = 0; i < maskBytes; ++i) data[i] = static_cast<U8>(data[i] & ~mask[i]);
    }
    owner = Zorvek::kInvalidAgentId;
    ++freed;
  }
  ++counters_.frees;
  DUWISP_TRACE(th(), 8, "SimChip::freeOwned device %s table 0x%x agent %s freed %s", devId_,
               tableId.id(), agentId, freed);
  return freed;
}

S32 SimChip::tableWipe(const PhysicalResourceId& tableId) {
  const ResourceLayout* r = table(tableId);
  if (!r) return refuse("tableWipe", 0, "no such table");
  std::fill_n(memory_.begin() + r->base, r->sizeBytes(), U8{0});
  std::fill_n(owners_.begin() + r->firstEntrySlot, r->entryCount, Zorvek::kInvalidAgentId);
  return 0;
}

const ResourceLayout& SimChip::inspected(const PhysicalResourceId& rid, U32 index,
                                         bool tableOnly) const {
  const ResourceLayout* r = tableOnly ? table(rid) : geometry_->layout(rid);
  const std::string where = "geometry '" + geometry_->name() + "': ";
  if (!r)
    throw GeometryError(where + (tableOnly ? "no table " : "no resource ") + hexText(rid.id()));
  if (index >= r->entryCount)
    throw GeometryError(where + "'" + r->name + "' has no entry " + std::to_string(index));
  return *r;
}

std::span<const U8> SimChip::entry(const PhysicalResourceId& rid, U32 index) const {
  const ResourceLayout& r = inspected(rid, index, false);
  return {memory_.data() + r.entryOffset(index), r.memoryEntrySize};
}

AgentId SimChip::owner(const PhysicalResourceId& tableId, U32 index) const {
  return owners_[inspected(tableId, index, true).firstEntrySlot + index];
}

bool SimChip::addressed(const char* what, DeviceId devId, const PhysicalResourceId& rid,
                        DeviceOffset offset) {
  const char* reason = nullptr;
  if (devId != devId_) {
    reason = "another device";
  } else if (const ResourceLayout* r = geometry_->find(offset); !r || r->id != rid) {
    reason = "the resource id is not the one at the offset";
  }
  if (!reason) return true;
  refuse(what, offset, reason);
  return false;
}

S32 SimChip::read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
                  U32 size) {
  if (!addressed("read", devId, rid, offset)) return -1;
  return readAt(offset, data, size);
}

S32 SimChip::write(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                   const void* data, const void* dataMask, U32 size, AgentId agentId) {
  if (!addressed("write", devId, rid, offset)) return -1;
  return writeAt(offset, data, dataMask, size, agentId);
}

S32 SimChip::bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                      PhysicalAddr physAddr, U32 entrySize, U32 numEntries) {
  if (!addressed("bulkRead", devId, rid, offset)) return -1;
  if (!physAddr) return refuse("bulkRead", offset, "no memory at physical address 0");
  return bulkReadAt(offset, entrySize, numEntries, memoryAt(physAddr));
}

S32 SimChip::bulkWrite(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                       PhysicalAddr physAddr, const void* data, U32 entrySize, U32 numEntries,
                       AgentId agentId) {
  if (!addressed("bulkWrite", devId, rid, offset)) return -1;
  const void* from = data ? data : memoryAt(physAddr);
  if (!from) return refuse("bulkWrite", offset, "no memory at physical address 0");
  return bulkWriteAt(offset, entrySize, numEntries, from, agentId);
}

SimChipSet::~SimChipSet() = default;

void SimChipSet::chipIs(const Kel::Ptr<SimChip>& chip) { chips_[chip->devId()] = chip; }

Kel::Ptr<SimChip> SimChipSet::chip(DeviceId devId) const {
  const auto it = chips_.find(devId);
  return it == chips_.end() ? nullptr : it->second;
}

SimChip* SimChipSet::chipFor(const char* what, DeviceId devId) const {
  const auto it = chips_.find(devId);
  if (it != chips_.end()) return it->second.ptr();
  DUWISP_TRACE(th(), 3, "SimChipSet::%s device %s refused: no chip", what, devId);
  return nullptr;
}

S32 SimChipSet::read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
                     U32 size) {
  SimChip* c = chipFor("read", devId);
  return c ? c->read(devId, rid, offset, data, size) : -1;
}

S32 SimChipSet::write(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                      const void* data, const void* dataMask, U32 size, AgentId agentId) {
  SimChip* c = chipFor("write", devId);
  return c ? c->write(devId, rid, offset, data, dataMask, size, agentId) : -1;
}

S32 SimChipSet::bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                         PhysicalAddr physAddr, U32 entrySize, U32 numEntries) {
  SimChip* c = chipFor("bulkRead", devId);
  return c ? c->bulkRead(devId, rid, offset, physAddr, entrySize, numEntries) : -1;
}

S32 SimChipSet::bulkWrite(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                          PhysicalAddr physAddr, const void* data, U32 entrySize, U32 numEntries,
                          AgentId agentId) {
  SimChip* c = chipFor("bulkWrite", devId);
  return c ? c->bulkWrite(devId, rid, offset, physAddr, data, entrySize, numEntries, agentId) : -1;
}

}  // namespace sim
