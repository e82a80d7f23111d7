// sim::SimDalHelper: the device knowledge of the simulated device family, a concrete
// Zorvek::DalHelper over the geometry of each device (sim/Geometry.h). It answers resource
// ids, types, entry sizes and replicated instances from the geometry, keeps a device shadow
// (one byte vector per device over its whole offset space), defines the optional argument
// that travels with an access (SimOptArg below) and gives each device a DMA buffer.
//
//   auto helper = Kel::allocate<sim::SimDalHelper>();
//   helper->deviceIs(DeviceId(0), geometry);
//   sim::SimOptArg arg;
//   helper->setOptArg(DeviceId(0), rid, offset, &arg);
//   sim::SimDalHelper::bulkBufferIs(&arg, entries);   // a bulk access moves `entries`
//   dal->dalBulkWrite(mask, offset, size, entries, &arg);
//
// Which device an offset belongs to: the helper operations that take no device (resourceId,
// resourceType) use the device named by a valid optArg, and otherwise the lowest device
// added (the devices of one family normally share one geometry).
//
// Errors: an offset, device or resource that the geometry does not have throws
// sim::GeometryError; an optArg that does not describe its access fails an assertion.
//
// Used from the agent's activity thread only.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "Zorvek/DalHelper.h"
#include "sim/Geometry.h"

namespace sim {

using Zorvek::PhysicalAddr;
using Zorvek::PhysicalTableId;

// The optional argument of an access, 32 bytes in the host's byte order:
//
//   offset  size  field
//        0     4  magic        kSimOptArgMagic once setOptArg has filled it
//        4     4  type         the resource type (Zorvek::ResourceType)
//        8     8  id           the resource id
//       16     4  entryIndex   the memory entry of the resource that the offset falls in
//       20     4  devId        the device
//       24     8  bulkBuffer   the address of the caller's buffer of a bulk access, 0 for none
//
// setOptArg fills every field and sets bulkBuffer to 0; a caller that makes a bulk access
// names its buffer with SimDalHelper::bulkBufferIs, so that the entries travel between that
// buffer and the chip.
struct SimOptArg {
  U32 magic;
  U32 type;
  U64 id;
  U32 entryIndex;
  U32 devId;
  U64 bulkBuffer;
};
static_assert(sizeof(SimOptArg) == 32);
static_assert(offsetof(SimOptArg, id) == 8 && offsetof(SimOptArg, entryIndex) == 16 &&
              offsetof(SimOptArg, devId) == 20 && offsetof(SimOptArg, bulkBuffer) == 24);
// "SIMA" as a little-endian word.
constexpr U32 kSimOptArgMagic = 0x414D4953;

// What addHashTableEntry records: the key placed in a hash table, and the entry it went to.
struct HashTableEntry {
  DeviceId devId;
  PhysicalResourceId table;
  U32 entryIndex;
  U64 key;
  friend bool operator==(const HashTableEntry&, const HashTableEntry&) = default;
};

class KEL_EXPORT SimDalHelper : public Zorvek::DalHelper {
  KEL_ENTITY_TYPE(SimDalHelper)

 public:
  SimDalHelper() = default;

  // Adds (or replaces) a device of that geometry, with a zeroed shadow and DMA buffer.
  // Throws GeometryError for the null device.
  void deviceIs(DeviceId devId, Kel::Ptr<const Geometry> geometry);
  // The geometry of the device, or null.
  const Geometry* geometry(DeviceId devId) const;
  // The device's DMA buffer: maxBulkTransactionSizeInBytes() bytes. Throws for no device.
  U8* dmaBuffer(DeviceId devId);
  // The recorded hash-table entries, in the order added.
  const std::vector<HashTableEntry>& hashTableEntries() const { return hashTableEntries_; }

  // Names `buffer` as the memory of the bulk access that carries `optArg`.
  static void bulkBufferIs(void* optArg, const void* buffer);

  ResourceType resourceType(DeviceOffset offset, void* optArg) const override;
  bool resourceExists(DeviceId devId, const PhysicalResourceId& rid) const override;
  PhysicalResourceId resourceId(DeviceOffset offset, void* optArg) const override;
  // Asserts "resourceExists( devId, rid )" and "offset lies in rid".
  void setOptArg(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                 void* optArg) const override;
  PhysicalResourceId normalizedResourceId(const PhysicalResourceId& rid) const override;
  PhysicalResourceId nextPridInstance(DeviceId devId, const PhysicalResourceId& rid) const override;
  bool isHashTable(DeviceId devId, const PhysicalResourceId& rid) const override;
  bool cacheable(DeviceId devId, const PhysicalResourceId& rid) const override;
  // 0 when [offset, offset + size) lies inside one resource of the device, -1 otherwise.
  S32 shadowRead(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                 void* optArg) const override;
  S32 shadowWrite(DeviceId devId, DeviceOffset offset, U16 size, const void* data,
                  void* optArg) override;
  PhysicalAddr physicalAddr(DeviceId devId, void* optArg) const override;
  U32 optArgSizeBytes() const override { return sizeof(SimOptArg); }
  U32 entrySizeBytes(DeviceId devId, const PhysicalResourceId& rid) const override;
  U32 memoryEntrySizeBytes(DeviceId devId, const PhysicalResourceId& rid) const override;
  U32 numMemoryEntries(DeviceId devId, const PhysicalTableId& tid) const override;
  // `entry` is a HashTableEntry; asserts "isHashTable( entry.devId, entry.table )".
  void addHashTableEntry(const void* entry) override;
  // Asserts that a non-null optArg describes the resource at the offset of that device (a
  // null optArg describes nothing and is accepted: such accesses carry no routing).
  void verifyOptArgMapping(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                           void* optArg) const override;

 protected:
  ~SimDalHelper() override;

 private:
  struct Device {
    Kel::Ptr<const Geometry> geometry;
    std::vector<U8> shadow;  // the offset space of the geometry
    std::vector<U8> dma;
  };
  // The device named by a valid optArg, else the lowest device; throws when there is none.
  const Device& deviceOf(void* optArg) const;
  // The device, or null. The shadow and DMA buffer of a device are the simulated device
  // memory that const operations hand out for writing, so these return them writable.
  Device* findDevice(DeviceId devId) const {
    return devId.isNull() ? nullptr : devices_[devId.value()].get();
  }
  // The device; throws GeometryError when there is none.
  Device& device(DeviceId devId) const;
  const ResourceLayout& layout(DeviceId devId, const PhysicalResourceId& rid) const;
  // The shadow bytes of an access inside one resource of the device, or null.
  U8* shadowAt(DeviceId devId, DeviceOffset offset, U16 size) const;

  std::array<std::unique_ptr<Device>, DeviceId::null> devices_;
  std::optional<DeviceId> firstDevice_;  // the lowest device added
  std::vector<HashTableEntry> hashTableEntries_;
};

}  // namespace sim
