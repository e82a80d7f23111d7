#include "sim/SimDalHelper.h"

#include <cstring>
#include <string>

#include "Kel/Assert.h"

namespace sim {

KEL_DEFINE_ENTITY_TYPE(sim::SimDalHelper, "sim::SimDalHelper")

namespace {

// The optArg copied out (it may sit at any alignment in the caller's memory); magic 0 when
// there is none.
SimOptArg optArgOf(const void* optArg) {
  SimOptArg a{};
  if (optArg) std::memcpy(&a, optArg, sizeof a);
  return a;
}

std::string deviceText(DeviceId devId) { return std::to_string(devId.value()); }

}  // namespace

SimDalHelper::~SimDalHelper() = default;

void SimDalHelper::deviceIs(DeviceId devId, Kel::Ptr<const Geometry> geometry) {
  if (devId.isNull()) throw GeometryError("SimDalHelper: the null device cannot have a geometry");
  auto d = std::make_unique<Device>();
  d->shadow.assign(geometry->sizeBytes(), 0);
  d->dma.assign(Zorvek::maxBulkTransactionSizeInBytes(), 0);
  d->geometry = std::move(geometry);
  devices_[devId.value()] = std::move(d);
  if (!firstDevice_ || devId < *firstDevice_) firstDevice_ = devId;
}

const Geometry* SimDalHelper::geometry(DeviceId devId) const {
  const Device* d = findDevice(devId);
  return d ? d->geometry.ptr() : nullptr;
}

SimDalHelper::Device& SimDalHelper::device(DeviceId devId) const {
  Device* d = findDevice(devId);
  if (!d) throw GeometryError("SimDalHelper: no device " + deviceText(devId));
  return *d;
}

const SimDalHelper::Device& SimDalHelper::deviceOf(void* optArg) const {
  // Only the two fields that name the device are read: this runs on every access.
  U32 magic = 0;
  if (optArg) std::memcpy(&magic, optArg, sizeof magic);
  if (magic == kSimOptArgMagic) {
    U32 devId;
    std::memcpy(&devId, static_cast<const U8*>(optArg) + offsetof(SimOptArg, devId), sizeof devId);
    return device(DeviceId(devId));
  }
  if (!firstDevice_) throw GeometryError("SimDalHelper: no device");
  return *devices_[firstDevice_->value()];
}

const ResourceLayout& SimDalHelper::layout(DeviceId devId, const PhysicalResourceId& rid) const {
  const ResourceLayout* r = device(devId).geometry->layout(rid);
  if (!r)
    throw GeometryError("SimDalHelper: device " + deviceText(devId) + " has no resource " +
                        hexText(rid.id()) + " of type " +
                        std::to_string(static_cast<U32>(rid.type())));
  return *r;
}

U8* SimDalHelper::dmaBuffer(DeviceId devId) { return device(devId).dma.data(); }

void SimDalHelper::bulkBufferIs(void* optArg, const void* buffer) {
  const U64 address = reinterpret_cast<U64>(buffer);
  std::memcpy(static_cast<U8*>(optArg) + offsetof(SimOptArg, bulkBuffer), &address, sizeof address);
}

ResourceType SimDalHelper::resourceType(DeviceOffset offset, void* optArg) const {
  const ResourceLayout* r = deviceOf(optArg).geometry->find(offset);
  return r ? r->id.type() : ResourceType::none_;
}

bool SimDalHelper::resourceExists(DeviceId devId, const PhysicalResourceId& rid) const {
  const Geometry* g = geometry(devId);
  return g && g->layout(rid);
}

PhysicalResourceId SimDalHelper::resourceId(DeviceOffset offset, void* optArg) const {
  const Geometry& g = *deviceOf(optArg).geometry;
  if (const ResourceLayout* r = g.find(offset)) return r->id;
  return g.locate(offset).layout->id;  // throws the geometry's error for this offset
}

void SimDalHelper::setOptArg(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                             void* optArg) const {
  const Geometry* g = geometry(devId);
  const ResourceLayout* r = g ? g->layout(rid) : nullptr;
  KEL_ASSERT_TEXT(r, "resourceExists( devId, rid )");
  KEL_ASSERT_TEXT(r->contains(offset, 1), "offset lies in rid");
  const SimOptArg a{kSimOptArgMagic, static_cast<U32>(rid.type()),
                    rid.id(),        (offset - r->base) / r->memoryEntrySize,
                    devId.value(),   0};
  std::memcpy(optArg, &a, sizeof a);
}

PhysicalResourceId SimDalHelper::normalizedResourceId(const PhysicalResourceId& rid) const {
  // An id means the same on every device of the family: the first device that knows it
  // answers.
  for (const auto& d : devices_)
    if (d)
      if (const ResourceLayout* r = d->geometry->layout(rid)) return r->baseId;
  return rid;
}

PhysicalResourceId SimDalHelper::nextPridInstance(DeviceId devId,
                                                  const PhysicalResourceId& rid) const {
  const ResourceLayout& r = layout(devId, rid);
  if (r.instance + 1 == r.instances) return {};
  return {rid.type(), rid.id() + 1};
}

bool SimDalHelper::isHashTable(DeviceId devId, const PhysicalResourceId& rid) const {
  return layout(devId, rid).hash;
}

bool SimDalHelper::cacheable(DeviceId devId, const PhysicalResourceId& rid) const {
  return layout(devId, rid).cacheable;
}

U8* SimDalHelper::shadowAt(DeviceId devId, DeviceOffset offset, U16 size) const {
  Device* d = findDevice(devId);
  if (!d) return nullptr;
  const ResourceLayout* r = d->geometry->find(offset);
  return r && r->contains(offset, size) ? d->shadow.data() + offset : nullptr;
}

S32 SimDalHelper::shadowRead(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                             void*) const {
  const U8* at = shadowAt(devId, offset, size);
  if (!at) return -1;
  std::memcpy(data, at, size);
  return 0;
}

S32 SimDalHelper::shadowWrite(DeviceId devId, DeviceOffset offset, U16 size, const void* data,
                              void*) {
  U8* at = shadowAt(devId, offset, size);
  if (!at) return -1;
  std::memcpy(at, data, size);
  return 0;
}

PhysicalAddr SimDalHelper::physicalAddr(DeviceId devId, void* optArg) const {
  const SimOptArg a = optArgOf(optArg);
  if (a.magic == kSimOptArgMagic && a.bulkBuffer) return a.bulkBuffer;
  return reinterpret_cast<PhysicalAddr>(device(devId).dma.data());
}

U32 SimDalHelper::entrySizeBytes(DeviceId devId, const PhysicalResourceId& rid) const {
  return layout(devId, rid).entrySize;
}

U32 SimDalHelper::memoryEntrySizeBytes(DeviceId devId, const PhysicalResourceId& rid) const {
  return layout(devId, rid).memoryEntrySize;
}

U32 SimDalHelper::numMemoryEntries(DeviceId devId, const PhysicalTableId& tid) const {
  return layout(devId, tid.resourceId()).entryCount;
}

void SimDalHelper::addHashTableEntry(const void* entry) {
  const auto& e = *static_cast<const HashTableEntry*>(entry);
  KEL_ASSERT_TEXT(resourceExists(e.devId, e.table) && isHashTable(e.devId, e.table),
                  "isHashTable( entry.devId, entry.table )");
  hashTableEntries_.push_back(e);
}

void SimDalHelper::verifyOptArgMapping(DeviceId devId, const PhysicalResourceId& rid,
                                       DeviceOffset offset, void* optArg) const {
  if (!optArg) return;
  const SimOptArg a = optArgOf(optArg);
  KEL_ASSERT_TEXT(a.magic == kSimOptArgMagic, "optArg->magic == kSimOptArgMagic");
  KEL_ASSERT_TEXT(a.devId == devId.value(), "optArg->devId == devId");
  KEL_ASSERT_TEXT(a.type == static_cast<U32>(rid.type()) && a.id == rid.id(), "optArg names rid");
  const Location at = device(devId).geometry->locate(offset);
  KEL_ASSERT_TEXT(at.layout->id == rid, "rid is the resource at offset");
  KEL_ASSERT_TEXT(a.entryIndex == at.entry, "optArg->entryIndex is the entry at offset");
}

}  // namespace sim
