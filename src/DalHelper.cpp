#include "Zorvek/DalHelper.h"

#include <cstring>

#include "Kel/Assert.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(DalHelper, "Zorvek::DalHelper")

bool DalHelper::deviceValid(DeviceId, std::int16_t*) const { return true; }

ResourceType DalHelper::resourceType(DeviceOffset, void*) const {
  KEL_ASSERT(0);
  return ResourceType::none_;
}

bool DalHelper::resourceExists(DeviceId, const PhysicalResourceId&) const {
  KEL_ASSERT(0);
  return false;
}

PhysicalResourceId DalHelper::resourceId(DeviceOffset, void*) const {
  KEL_ASSERT(0);
  return {};
}

void DalHelper::setOptArg(DeviceId, const PhysicalResourceId&, DeviceOffset, void*) const {
  KEL_ASSERT(0);
}

PhysicalResourceId DalHelper::normalizedResourceId(const PhysicalResourceId& rid) const {
  return rid;
}

PhysicalResourceId DalHelper::nextPridInstance(DeviceId, const PhysicalResourceId&) const {
  return {};
}

bool DalHelper::isHashTable(DeviceId, const PhysicalResourceId&) const {
  KEL_ASSERT(0);
  return false;
}

bool DalHelper::cacheable(DeviceId, const PhysicalResourceId&) const {
  KEL_ASSERT(0);
  return false;
}

S32 DalHelper::shadowRead(DeviceId, DeviceOffset, U16, void*, void*) const {
  KEL_ASSERT(0);
  return -1;
}

S32 DalHelper::shadowWrite(DeviceId, DeviceOffset, U16, const void*, void*) {
  KEL_ASSERT(0);
  return -1;
}

PhysicalAddr DalHelper::physicalAddr(DeviceId, void*) const {
  KEL_ASSERT(0);
  return 0;
}

U32 DalHelper::optArgSizeBytes() const {
  KEL_ASSERT(0);
  return 0;
}

U32 DalHelper::entrySizeBytes(DeviceId, const PhysicalResourceId&) const {
  KEL_ASSERT(0);
  return 0;
}

U32 DalHelper::memoryEntrySizeBytes(DeviceId, const PhysicalResourceId&) const {
  KEL_ASSERT(0);
  return 0;
}

U32 DalHelper::numMemoryEntries(DeviceId, const PhysicalTableId&) const {
  KEL_ASSERT(0);
  return 0;
}

void DalHelper::addHashTableEntry(const void*) { KEL_ASSERT(0); }

bool DalHelper::isDefaultEntry(DeviceId, void* data, U32 size, const PhysicalResourceId&) const {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (U32 w = 0; w + sizeof(U32) <= size; w += sizeof(U32)) {
    U32 word;
    std::memcpy(&word, bytes + w, sizeof word);
    if (word != 0) return false;
  }
  return true;
}

void DalHelper::verifyOptArgMapping(DeviceId, const PhysicalResourceId&, DeviceOffset,
                                    void*) const {}

U32 DalHelper::numEntriesPerMemoryEntry(DeviceId devId, const PhysicalResourceId& rid) const {
  const U32 m = memoryEntrySizeBytes(devId, rid);
  const U32 t = entrySizeBytes(devId, rid);
  KEL_ASSERT_TEXT(t % sizeof(U32) == 0, "t % sizeof( U32 ) == 0");
  if (m < t) return 0;
  return m / t;
}

const void* DalHelper::nthEntry(DeviceId devId, const PhysicalResourceId& rid,
                                const void* memoryEntry, U32 n) const {
  KEL_ASSERT_TEXT(n < numEntriesPerMemoryEntry(devId, rid),
                  "n < numEntriesPerMemoryEntry( devId, rid )");
  return static_cast<const unsigned char*>(memoryEntry) +
         static_cast<std::size_t>(n) * entrySizeBytes(devId, rid);
}

}  // namespace Zorvek
