// sim::ChipSegment: the chips of a topology's devices in one POSIX shared-memory segment,
// which every agent process maps: the DAL's agent for its S-channel accesses, each serializer
// for its tables. Like the memory of a real chip, it outlives the processes that use it: a
// serializer killed and started again finds its tables as they were, and wipes them itself.
//
//   auto segment = sim::ChipSegment::create("/zorvek-42-chips", topology);   // the supervisor
//   auto mapped = sim::ChipSegment::open("/zorvek-42-chips", topology);      // every agent
//   Kel::Ptr<sim::SimChipSet> chips = mapped.chips();    // a write here is read there
//
// Layout (native byte order): a header (u64 magic "ZRVKCHIP", u32 layout version, u32
// device count), then per device: u32 device id, u32 reserved, u64 memory bytes, u64 owner
// slots, u64 offset of its memory, u64 offset of its owners; then the memories and owner
// arrays, each on a 64-byte boundary. `open` checks all of it against the topology.
//
// The segment's name is the creator's: it unlinks it when it goes (or at unlink()); the
// chips of every process keep their mapping while they live.
#pragma once

#include <stdexcept>
#include <string>

#include "sim/SimChip.h"
#include "sim/Topology.h"

namespace sim {

// A segment that cannot be created, opened or used as the chips of a topology; the text names
// the segment and says what is wrong.
class KEL_EXPORT ChipSegmentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KEL_EXPORT ChipSegment {
 public:
  // Creates the segment `name` (an shm_open name, "/..."), replacing a leftover of that name:
  // every device of the topology (validated) with its memory zero and no entry owned.
  static ChipSegment create(std::string name, const Topology& topology);
  // Maps the existing segment `name`, laid out for the same devices as `topology`.
  static ChipSegment open(std::string name, const Topology& topology);

  ChipSegment(ChipSegment&& other) noexcept;
  ChipSegment& operator=(ChipSegment&&) = delete;
  ~ChipSegment();

  const std::string& name() const { return name_; }
  // The chips, one per device, over the segment.
  const Kel::Ptr<SimChipSet>& chips() const { return chips_; }
  // Creator only: removes the segment's name; mappings stay valid.
  void unlink();

 private:
  ChipSegment(std::string name, bool owner, Kel::Ptr<SimChipSet> chips)
      : name_(std::move(name)), owner_(owner), chips_(std::move(chips)) {}
  std::string name_;
  bool owner_;
  Kel::Ptr<SimChipSet> chips_;
};

}  // namespace sim
