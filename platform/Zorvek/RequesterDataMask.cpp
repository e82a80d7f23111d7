#include "Zorvek/RequesterDataMask.h"

#include <algorithm>

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(ResourceIdToDataMaskMap, "Zorvek::ResourceIdToDataMaskMap")

U8 RequesterDataMask::maskByte(U32 index) const {
  auto it = bytes_.find(index);
  return it == bytes_.end() ? 0 : it->second;
}

void RequesterDataMask::maskByteIs(U32 index, U8 byte) {
  if (byte == 0)
    bytes_.erase(index);
  else
    bytes_[index] = byte;
}

void RequesterDataMask::maskBytesCopy(U8* out, U32 size) const {
  std::fill(out, out + size, U8{0});
  for (auto it = bytes_.begin(); it != bytes_.end() && it->first < size; ++it)
    out[it->first] = it->second;
}

const RequesterDataMask& noDataMask() {
  static const RequesterDataMask none;
  return none;
}

}  // namespace Zorvek
