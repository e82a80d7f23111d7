// sim::SimSwitch: a whole simulated switch built from a Topology, and the DAL of the
// topology's DAL agent built on it the way a hosting agent builds it.
//
// The switch has one state database, one chip per device (together the S-channel backend of
// the process), the device helper, every serializer with its configuration and status
// directories, a debug watch list and a coprocessor status log; and the DemuxDalCreator of
// the DAL agent, filled from the topology.
//
//   sim::SimSwitch sw(sim::Topology::embeddedDefault());
//   Kel::Ptr<Zorvek::DemuxDal> dal = sw.buildDal();   // mounts, demuxDal(), local caches
//   sim::SimOptArg arg = sw.optArg(DeviceId(0), offset);
//   dal->dalWrite(Zorvek::oneDeviceMask(DeviceId(0)), offset, size, data, &arg);
//   sw.restart("l2ser");                               // the remote DAL replays its shadow
//
// Serializers as processes: a switch made with Processes builds no serializer. Its
// serializers are zorvek-serializer processes that share the state database and the chips
// (a sim::ChipSegment) with this one, serve their queues by themselves, and are restarted by
// `restarter`, which returns once this agent heard of the new restart count.
//
// One switch at a time per process: the chips are the process's S-channel backend while the
// switch lives. Used from one thread.
#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "Corvane/CoprocessorStatus.h"
#include "Skorra/Database.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/DemuxDalCreator.h"
#include "sim/SimChip.h"
#include "sim/SimDalHelper.h"
#include "sim/SimSerializer.h"
#include "sim/Topology.h"

namespace sim {

class KEL_EXPORT SimSwitch {
 public:
  // Where the switch publishes its coprocessor status log.
  static constexpr const char* kCoprocessorStatusLogPath = "platform/coprocessor/statusLog";

  struct Processes {
    Kel::Ptr<Skorra::Database> database;
    Kel::Ptr<SimChipSet> chips;
    // Restarts the serializer of that name; returns its restart count after.
    std::function<U64(std::string_view)> restarter;
  };

  // Validates the topology (TopologyError) and builds the switch.
  explicit SimSwitch(Topology topology);
  // The same, with the serializers in processes of their own.
  SimSwitch(Topology topology, Processes processes);
  ~SimSwitch();
  SimSwitch(const SimSwitch&) = delete;
  SimSwitch& operator=(const SimSwitch&) = delete;

  const Topology& topology() const { return topology_; }
  const Kel::Ptr<Skorra::Database>& database() const { return database_; }
  const Kel::Ptr<SimChipSet>& chips() const { return chips_; }
  Kel::Ptr<SimChip> chip(DeviceId devId) const { return chips_->chip(devId); }
  const Kel::Ptr<SimDalHelper>& helper() const { return helper_; }
  const std::vector<Kel::Ptr<SimSerializer>>& serializers() const { return serializers_; }
  // The serializer of that name; null when there is none.
  Kel::Ptr<SimSerializer> serializer(std::string_view name) const;
  // The serializer that owns a table (its base id), or null for a table no serializer owns.
  Kel::Ptr<SimSerializer> owner(const PhysicalResourceId& table) const;
  const Kel::Ptr<Corvane::CoprocessorStatusAttrLog>& coprocessorStatusLog() const {
    return coprocessorStatusLog_;
  }
  const Kel::Ptr<Zorvek::DemuxDalCreator>& creator() const { return creator_; }
  const Kel::Ptr<Skorra::MountGroup>& mountGroup() const { return mountGroup_; }

  // What a hosting agent does: doMounts, complete the mounts, demuxDal(), then the helper and
  // a cold initLocalCache on every device. Each call builds a new tree.
  Kel::Ptr<Zorvek::DemuxDal> buildDal();
  // Lets every serializer of this process execute what its queues hold; returns the
  // commands executed.
  unsigned serve();
  // Restarts a serializer by name and returns its restart count after; throws
  // std::invalid_argument for an unknown name.
  U64 restart(std::string_view serializerName);
  // The serializer whose configuration directory holds the queue of `requester`; null for
  // the S-channel's.
  const SerializerDef* serializerOf(const Zorvek::Requester& requester) const;
  // The optional argument of an access at `offset` of `devId`.
  SimOptArg optArg(DeviceId devId, DeviceOffset offset) const;

 private:
  void buildSerializers();
  void fillCreator();

  Topology topology_;
  std::function<U64(std::string_view)> restarter_;
  Kel::Ptr<Skorra::Database> database_;
  Kel::Ptr<SimChipSet> chips_;
  Kel::Ptr<SimDalHelper> helper_;
  std::vector<Kel::Ptr<SimSerializer>> serializers_;
  Kel::Ptr<Corvane::CoprocessorStatusAttrLog> coprocessorStatusLog_;
  Kel::Ptr<Zorvek::DemuxDalCreator> creator_;
  Kel::Ptr<Skorra::MountGroup> mountGroup_;
};

}  // namespace sim
