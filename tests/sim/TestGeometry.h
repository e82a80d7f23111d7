// The device geometry the simulation tests share, and its layout worked out by hand:
//
//   resource        id           base  bytes  entries  entry slots
//   route #0        table 0x10      0     64  4 x 16   0..3
//   route #1        table 0x11     64     64  4 x 16   4..7
//   hashed          table 0x20    128     24  3 x 8    8..10
//   ctrl            register 0x1  152      4
//   stat            register 0x2  156      8
//   (end of the offset space: 164)
//
// And a serializer bench: the serializer s1 (agent 20) on a chip of that geometry, and the
// queue requesters of other agents, meeting in a state database through mounts of opposite
// modes.
#pragma once

#include <array>
#include <string>
#include <tuple>

#include "Skorra/MountGroup.h"
#include "Zorvek/QueueRequester.h"
#include "sim/Geometry.h"
#include "sim/SimSerializer.h"

namespace sim::test {

constexpr PhysicalResourceId kRoute0{ResourceType::tableResource_, 0x10},
    kRoute1{ResourceType::tableResource_, 0x11}, kHashed{ResourceType::tableResource_, 0x20};
constexpr DeviceOffset kRoute1Base = 64, kHashedBase = 128, kStatBase = 156;
constexpr U32 kSpaceBytes = 164;

// A memory entry of the route table.
using Entry = std::array<U8, 16>;
inline Entry filled(U8 v) {
  Entry e;
  e.fill(v);
  return e;
}

inline Kel::Ptr<Geometry> testGeometry() {
  return Kel::allocate<Geometry>(
      Kel::Name("chip"),
      std::vector<TableDef>{{"route", 0x10, 8, 16, 4, 2, true, false},
                            {"hashed", 0x20, 4, 8, 3, 1, false, true}},
      std::vector<RegisterDef>{{"ctrl", 0x1, 4, true}, {"stat", 0x2, 8, false}});
}

struct SerializerBench {
  SerializerBench() {
    for (auto [group, configMode, statusMode] :
         {std::tuple(requesterMounts, "wi", "ri"), std::tuple(serializerMounts, "ri", "wi")}) {
      group->doMount(Skorra::Mount("s1/config", "Kel::Dir", configMode));
      group->doMount(Skorra::Mount("s1/status", "Kel::Dir", statusMode));
      group->completeMounts();
    }
    chips->chipIs(chip);
  }
  // Starts s1, the owner of both instances of the route table.
  void startSerializer() {
    const Skorra::EntityManager* em = serializerMounts->entityManager();
    serializer = Kel::allocate<SimSerializer>(
        Zorvek::SerializerId(1), AgentId(20), Kel::Name("s1"), chips,
        Kel::dynamicPtrCast<const Kel::Dir>(em->getEntity("s1/config")),
        Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s1/status")));
    serializer->ownedTableIs(kRoute0);
  }
  // The requester of agent `agentId` towards s1: a<agentId>-s1-Queue.
  Kel::Ptr<Zorvek::QueueRequester> requester(AgentId agentId, unsigned queueSize = 8) const {
    const Skorra::EntityManager* em = requesterMounts->entityManager();
    const std::string name = "a" + std::to_string(agentId) + "-s1-Queue";
    return Kel::allocate<Zorvek::QueueRequester>(
        name, agentId, queueSize, Zorvek::DalId(1), nullptr, nullptr,
        Zorvek::IoMemType::queueMemory_, Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s1/config")),
        Kel::dynamicPtrCast<const Kel::Dir>(em->getEntity("s1/status")), "s1-kick", "Kick-" + name);
  }

  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> requesterMounts = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Skorra::MountGroup> serializerMounts = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<SimChip> chip = Kel::allocate<SimChip>(DeviceId(0), testGeometry());
  Kel::Ptr<SimChipSet> chips = Kel::allocate<SimChipSet>();
  Kel::Ptr<SimSerializer> serializer;
};

}  // namespace sim::test
