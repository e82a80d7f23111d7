// simtool::checkChip: whether every entry the agent wrote is on the simulated chip, with
// the entry's data mask applied: of each byte, the bits the agent may write must hold what
// it wrote last; a byte beyond the mask, or a bit outside it, belongs to someone else.
//
//   simtool::ChipCheck check = simtool::checkChip(sw, workload.written());
//   if (!check.ok()) ...
#pragma once

#include <string>
#include <vector>

#include "Workload.h"

namespace simtool {

struct Mismatch {
  DeviceId devId;
  std::string resource;
  U32 entry;
  DeviceOffset offset;
  std::vector<U8> expected;  // what the agent wrote
  std::vector<U8> onChip;
  std::vector<U8> mask;    // empty: every byte
  std::string serializer;  // the table's owner; empty for a resource of the S-channel
};

struct ChipCheck {
  U64 entries = 0;
  std::vector<Mismatch> mismatches;
  bool ok() const { return mismatches.empty(); }
  // The mismatches in tables of that serializer.
  U64 lost(const std::string& serializer) const;
};

// Reads the chips through their inspection interface, which counts no access.
ChipCheck checkChip(const sim::SimSwitch& sw, const WrittenEntries& written);

}  // namespace simtool
