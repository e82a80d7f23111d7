// Zorvek::DalHelper: what a DAL knows of a device. It maps a device offset to the physical
// resource behind it, gives entry sizes and table geometry, and reads and writes the software
// shadow of device state. Each device family derives its own helper; the defaults below
// either answer for a device with no special needs or assert "0" where only the family can
// answer. A Dal holds one in its `helper` attribute.
#pragma once

#include "Kel/Entity.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT DalHelper : public Kel::Entity {
  KEL_ENTITY_TYPE(DalHelper)

 public:
  DalHelper() = default;

  // True; leaves *status untouched.
  virtual bool deviceValid(DeviceId devId, std::int16_t* status) const;
  virtual ResourceType resourceType(DeviceOffset offset, void* optArg) const;
  virtual bool resourceExists(DeviceId devId, const PhysicalResourceId& rid) const;
  virtual PhysicalResourceId resourceId(DeviceOffset offset, void* optArg) const;
  virtual void setOptArg(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                         void* optArg) const;
  // The id that stands for every instance of a replicated table; by default the id itself.
  virtual PhysicalResourceId normalizedResourceId(const PhysicalResourceId& rid) const;
  // The next instance of a replicated table, or the null id (type 0, id 0) when there is none.
  virtual PhysicalResourceId nextPridInstance(DeviceId devId, const PhysicalResourceId& rid) const;
  virtual bool isHashTable(DeviceId devId, const PhysicalResourceId& rid) const;
  virtual bool cacheable(DeviceId devId, const PhysicalResourceId& rid) const;
  virtual S32 shadowRead(DeviceId devId, DeviceOffset offset, U16 size, void* data,
                         void* optArg) const;
  virtual S32 shadowWrite(DeviceId devId, DeviceOffset offset, U16 size, const void* data,
                          void* optArg);
  virtual PhysicalAddr physicalAddr(DeviceId devId, void* optArg) const;
  virtual U32 optArgSizeBytes() const;
  virtual U32 entrySizeBytes(DeviceId devId, const PhysicalResourceId& rid) const;
  virtual U32 memoryEntrySizeBytes(DeviceId devId, const PhysicalResourceId& rid) const;
  virtual U32 numMemoryEntries(DeviceId devId, const PhysicalTableId& tid) const;
  virtual void addHashTableEntry(const void* entry);
  // True when every whole 32-bit word among the first `size` bytes is zero (trailing bytes
  // of a size that is not a multiple of 4 are not examined).
  virtual bool isDefaultEntry(DeviceId devId, void* data, U32 size,
                              const PhysicalResourceId& rid) const;
  // Checks that optArg describes the resource at the offset; by default nothing to check.
  virtual void verifyOptArgMapping(DeviceId devId, const PhysicalResourceId& rid,
                                   DeviceOffset offset, void* optArg) const;

  // How many logical entries one memory entry packs: memory-entry size / entry size, or 0
  // when the memory entry is smaller. Asserts that the entry size is whole 32-bit words.
  U32 numEntriesPerMemoryEntry(DeviceId devId, const PhysicalResourceId& rid) const;
  // The address of logical entry n inside a memory entry; asserts n is in range.
  const void* nthEntry(DeviceId devId, const PhysicalResourceId& rid, const void* memoryEntry,
                       U32 n) const;

 protected:
  ~DalHelper() override = default;
};

}  // namespace Zorvek
