// zorvek-serializer: one serializer agent of a simulated switch, in a process of its own.
// It maps the chips (a shared-memory segment that outlives it), publishes its status in the
// shared state database, serves every requester queue registered in its configuration
// directory through that queue's shared-memory ring, and executes the commands on the chips,
// on its own activity loop. zorvek-sim run --processes starts one per serializer.
//
// A process that finds the status of a previous process of its serializer starts cold: it
// wipes its tables, starts a new generation of each ring (discarding what the previous one
// left there) and counts the restart, which makes the requesters' remote DALs replay their
// shadows. SIGTERM or SIGINT: it runs what its rings hold, stops serving (its queues are no
// longer served) and exits 0, leaving its status and restart count to the next process.
//
// Exit codes: 0 stopped on request; 1 the state database or a ring failed; 2 bad input.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "Kel/ActivityLoop.h"
#include "Kel/Trace.h"
#include "Kwisp/Kwisp.h"
#include "Skorra/MountGroup.h"
#include "SkorraRedis/RedisBackend.h"
#include "sim/ChipSegment.h"
#include "sim/SimSerializer.h"
#include "sim/Topology.h"

namespace {

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

// How long the serializer sleeps on its rings before it looks at the state database again.
constexpr std::chrono::milliseconds kTurn(20);

struct Options {
  std::string topologyPath;
  std::string serializer;
  std::string stateDb;
  std::string chip;
  std::string traceDir;
};

class BadInput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

const sim::SerializerDef& serializerOf(const sim::Topology& topology, const Options& o) {
  if (const sim::SerializerDef* s = topology.serializer(o.serializer)) return *s;
  std::string known;
  for (const auto& s : topology.serializers) known += (known.empty() ? "" : ", ") + s.name;
  throw BadInput("--serializer " + o.serializer + ": " +
                 (o.topologyPath.empty() ? "the embedded default" : o.topologyPath) +
                 " has no serializer named '" + o.serializer +
                 "' (it has: " + (known.empty() ? "none" : known) + ")");
}

int serve(const Options& o) {
  const sim::Topology topology = o.topologyPath.empty() ? sim::Topology::embeddedDefault()
                                                        : sim::Topology::load(o.topologyPath);
  const sim::SerializerDef& def = serializerOf(topology, o);
  try {
    Skorra::redisAddress(o.stateDb);  // a bad URL is bad input, before anything connects
  } catch (const Skorra::DatabaseError& e) {
    throw BadInput(std::string("--state-db: ") + e.what());
  }
  const sim::ChipSegment chips = sim::ChipSegment::open(o.chip, topology);

  if (!o.traceDir.empty()) {
    // Every level into a ring in a file, which a kill leaves behind for zorvek-sim trace.
    Kel::ringLevelsIs("*/0-9");
    Kwisp::ringFileIs(o.traceDir + "/" + def.name + "-" + std::to_string(getpid()) + ".kwisp");
  }
  signal(SIGTERM, requestStop);
  signal(SIGINT, requestStop);
  Kel::ActivityLoop loop;
  const Kel::Ptr<Skorra::Database> db = Skorra::redisDatabase(o.stateDb, loop);
  const auto group = Kel::allocate<Skorra::MountGroup>(db);
  group->doMount(Skorra::Mount(def.configDir, "Kel::Dir", "ri"));
  group->doMount(Skorra::Mount(def.statusDir, "Kel::Dir", "wi"));
  group->completeMounts();
  const auto configDir = Kel::dynamicPtrCast<const Kel::Dir>(db->entity(def.configDir));
  const auto statusDir = Kel::dynamicPtrCast<Kel::Dir>(db->entity(def.statusDir));

  const auto serializer =
      Kel::allocate<sim::SimSerializer>(Zorvek::SerializerId(def.id), def.agent,
                                        Kel::Name(def.name), chips.chips(), configDir, statusDir);
  for (const sim::LogicalResourceDef& res : def.resources)
    for (sim::U64 table : res.tables)
      serializer->ownedTableIs(sim::PhysicalResourceId(sim::ResourceType::tableResource_, table));
  if (serializer->tookOver()) serializer->restart();

  while (!stopRequested) {
    serializer->serve();
    // With rings to serve, sleep on them and look at the database between sleeps; without,
    // sleep on the database (a queue registered there brings the first ring).
    const bool command = serializer->waitForCommand(kTurn);
    loop.runOnce(command || serializer->ringsServed() ? std::chrono::milliseconds(0) : kTurn);
  }
  serializer->serve();
  serializer->retire();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"zorvek-serializer: one serializer agent of a simulated switch, in its own process"};
  Options o;
  app.add_option("--topology", o.topologyPath,
                 "Topology file (JSON); the embedded default when not given")
      ->check(CLI::ExistingFile);
  app.add_option("--serializer", o.serializer, "The serializer of the topology to run")->required();
  app.add_option("--state-db", o.stateDb,
                 "The state database: unix:///PATH or tcp://HOST:PORT of a redis-server")
      ->required();
  app.add_option("--chip", o.chip,
                 "The shared-memory segment of the chips, as zorvek-sim run --processes made it")
      ->required();
  app.add_option("--trace-dir", o.traceDir,
                 "Keep the trace ring, every level on, in DIR/<serializer>-<pid>.kwisp, which "
                 "outlives a kill (decode it with zorvek-sim trace)")
      ->check(CLI::ExistingDirectory);
  CLI11_PARSE(app, argc, argv);
  try {
    return serve(o);
  } catch (const BadInput& e) {
    std::cerr << "zorvek-serializer: " << e.what() << "\n";
    return 2;
  } catch (const sim::TopologyError& e) {
    std::cerr << "zorvek-serializer: " << e.what() << "\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "zorvek-serializer " << o.serializer << ": " << e.what() << "\n";
    return 1;
  }
}
