// sim::Topology: what a simulated switch is made of, and its JSON form.
//
// Devices with their geometry (tables, replicated instances, registers), agents with their
// requester names, serializers (id, agent, name, kick queue, directories) with the logical
// resources each owns (their physical tables and an optional data mask), and the agent that
// runs the DAL. Topology::embeddedDefault() serves when no file is given.
//
//   sim::Topology t = sim::Topology::load("switch.json");   // throws sim::TopologyError
//   std::cout << t.toJson();
//
// JSON form (every field shown; unknown fields are errors):
//   { "dalAgent": 1,
//     "agents": [ { "id": 1, "requesterName": "fwd" } ],
//     "devices": [ { "id": 0,
//         "tables": [ { "name": "l2", "id": 16, "entrySize": 8, "memoryEntrySize": 8,
//                       "entryCount": 1024, "instances": 1, "cacheable": true,
//                       "hash": false } ],
//         "registers": [ { "name": "ctrl", "id": 1, "size": 4, "cacheable": true } ] } ],
//     "serializers": [ { "id": 1, "agent": 2, "name": "l2ser", "kickQueue": "kick-l2",
//         "configDir": "serializers/l2ser/config", "statusDir": "serializers/l2ser/status",
//         "resources": [ { "id": 100, "tables": [16], "dataMask": [255, 0, 15] } ] } ] }
// A resource's "dataMask" lists the mask byte of each entry byte (missing bytes are 0); a
// resource without one writes whole entries.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "sim/Geometry.h"

namespace sim {

// A topology that cannot be used: the message names the source, the line (for JSON), the
// field and what is wrong.
class KEL_EXPORT TopologyError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct DeviceDef {
  U32 id = 0;
  std::vector<TableDef> tables;
  std::vector<RegisterDef> registers;
};

struct AgentDef {
  AgentId id = 0;
  std::string requesterName;
};

struct LogicalResourceDef {
  U64 id = 0;
  std::vector<U64> tables;   // physical table ids (base ids of replicated tables)
  std::vector<U8> dataMask;  // empty: no mask
};

struct SerializerDef {
  U16 id = 0;
  AgentId agent = 0;
  std::string name;
  std::string kickQueue;
  std::string configDir;
  std::string statusDir;
  std::vector<LogicalResourceDef> resources;
};

struct KEL_EXPORT Topology {
  AgentId dalAgent = 0;
  std::vector<AgentDef> agents;
  std::vector<DeviceDef> devices;
  std::vector<SerializerDef> serializers;

  // One agent on two devices with an S-channel default DAL and two remote serializers, one
  // of which owns two logical resources, one of them data-masked.
  static Topology embeddedDefault();
  // Parses and validates; `source` names the text in error messages.
  static Topology parse(std::string_view json, const std::string& source);
  // Reads, parses and validates a file.
  static Topology load(const std::string& path);
  // The JSON form, indented; parse(toJson()) gives back an equal topology.
  std::string toJson() const;

  // Throws TopologyError when the topology cannot be built (also run by parse).
  void validate(const std::string& source) const;

  const AgentDef* agent(AgentId id) const;
  const SerializerDef* serializer(std::string_view name) const;
  // The serializer that owns the table `table` (a base id), or null.
  const SerializerDef* owner(U64 table) const;
  friend bool operator==(const Topology&, const Topology&);
};

// The geometry of a device of a topology, named "device<id>".
KEL_EXPORT Kel::Ptr<const Geometry> deviceGeometry(const DeviceDef& device);

}  // namespace sim
