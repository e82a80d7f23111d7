// The workload that the leak test runs on a simulated switch: every resource of
// every device, through the DAL agent's tree.
#pragma once

#include <algorithm>
#include <vector>

#include "sim/SimSwitch.h"

namespace sim::test {

// Writes (on device 0, the only device the DAL writes), reads, bulk-writes and bulk-reads the
// first 64 entries of every resource of every device through `dal`, every byte `fill`, and
// waits for the commands. Returns how many accesses failed.
inline unsigned exerciseSwitch(SimSwitch& sw, Zorvek::DemuxDal& dal, U8 fill) {
  unsigned failed = 0;
  for (const auto& [devId, chip] : sw.chips()->chips()) {
    const Zorvek::TargetMask target = Zorvek::oneDeviceMask(devId);
    const bool written = devId.value() == 0;
    for (const ResourceLayout& r : chip->geometry()->resources()) {
      const U16 size = static_cast<U16>(r.memoryEntrySize);
      std::vector<U8> data(std::size_t{size} * std::min<U32>(r.entryCount, 64), fill);
      for (U32 e = 0; e * size < data.size(); ++e) {
        SimOptArg arg = sw.optArg(devId, r.entryOffset(e));
        U8* entry = data.data() + e * size;
        failed += written && dal.dalWrite(target, r.entryOffset(e), size, entry, &arg) != 0;
        failed += dal.dalRead(devId, r.entryOffset(e), size, entry, &arg) != 0;
      }
      if (!r.isTable()) continue;
      SimOptArg arg = sw.optArg(devId, r.base);
      SimDalHelper::bulkBufferIs(&arg, data.data());
      const U32 bytes = static_cast<U32>(data.size());
      failed += written && dal.dalBulkWrite(target, r.base, bytes, data.data(), &arg) != 0;
      failed += dal.dalBulkRead(devId, r.base, bytes, data.data(), &arg) != 0;
      dal.waitForCompletion(devId);
    }
  }
  return failed;
}

}  // namespace sim::test
