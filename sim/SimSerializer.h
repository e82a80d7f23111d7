// sim::SimSerializer: a simulated serializer agent. It owns some hardware tables of the
// simulated chips and executes, on those chips, the commands that requesters of other
// agents queue for it.
//
//   auto s = Kel::allocate<sim::SimSerializer>(Zorvek::SerializerId(1), AgentId(10),
//       Kel::Name("s1"), chips, configDir, statusDir);
//   s->ownedTableIs(rid);          // its tables (a replicated table through its base id)
//   ...                            // QueueRequesters publish queues in configDir: served
//   s->restart();                  // wipes its tables; requesters see the new restart count
//
// Protocol (Zorvek/RequesterQueue.h, Zorvek/SerializerStatus.h): the serializer publishes a
// Zorvek::SerializerStatus in its status directory (under SerializerStatus::kEntryName)
// and attaches itself as the consumer of every Zorvek::RequesterQueue that appears in its
// configuration directory, which it observes; the status then names the queue as served,
// which makes its requester ready. Commands run when a queue is drained: by the requester
// (a wait, a full queue, a read or blocking write) or by serve().
//
// Execution: a command for a resource that the serializer does not own is rejected: traced
// at level 3, counted, never executed, and reported to the queue as failed. Reads, writes
// (with their masks), blocking writes and bulk commands (through the memory at their
// physical address) go to the chip of their device(s) on behalf of the queue's agent; a free
// clears the entries of the table that the queue's agent owns (only the bytes of its mask,
// when it has one).
//
// Restart: wipes the chip memory of every table the serializer owns (every instance, on
// every chip) and increments the published restart count, so that the requesters' remote
// DALs replay their shadows.
//
// In a process of its own (zorvek-serializer), over a shared state database: a queue that
// names a shared-memory ring (Zorvek/CommandRing.h) is served there: attaching opens the
// ring, which starts its new generation (discarding what a previous process left in it),
// serve() runs what the ring holds, returning a read's data through it, and
// waitForCommand() sleeps until a ring holds a command. A status that a previous process of
// the serializer left in the status directory is taken over (tookOver()): the process then
// starts cold with restart(), which the requesters hear as the restart count; retire() stops
// serving and leaves the status, with its count, to the next process.
//
// Destruction detaches every queue and withdraws the status (unless retired), so requesters
// stop being ready. Used from the agents' activity thread only.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <unordered_set>

#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "Zorvek/CommandRing.h"
#include "Zorvek/DemuxDalCreator.h"
#include "Zorvek/RequesterQueue.h"
#include "Zorvek/SerializerStatus.h"
#include "sim/SimChip.h"

namespace sim {

class KEL_EXPORT SimSerializer : public Kel::Entity, public Zorvek::QueueConsumer {
  KEL_ENTITY_TYPE(SimSerializer)

 public:
  // What the serializer did with the commands of one queue.
  struct QueueCounters {
    U64 executed = 0;  // handed to the chip (whatever the chip answered)
    U64 rejected = 0;  // for a resource not owned
  };

  // Publishes the status in statusDir (or takes over the one there) and serves the queues
  // already in configDir (which may be a read-only view). Throws std::invalid_argument for a
  // null chip set or directory.
  SimSerializer(Zorvek::SerializerId id, AgentId agentId, Kel::Name name,
                Kel::Ptr<SimChipSet> chips, Kel::Ptr<const Kel::Dir> configDir,
                Kel::Ptr<Kel::Dir> statusDir);

  Zorvek::SerializerId id() const { return id_; }
  AgentId agentId() const { return agentId_; }
  const Kel::Name& name() const { return name_; }
  const Kel::Ptr<SimChipSet>& chips() const { return chips_; }
  const Kel::Ptr<const Kel::Dir>& configDir() const { return configDir_; }
  const Kel::Ptr<Kel::Dir>& statusDir() const { return statusDir_; }
  const Kel::Ptr<Zorvek::SerializerStatus>& status() const { return status_; }

  // The table resources owned. Owning the base id of a replicated table owns every
  // instance.
  bool ownedTable(const PhysicalResourceId& rid) const { return ownedTables_.count(rid) != 0; }
  void ownedTableIs(const PhysicalResourceId& rid) { ownedTables_.insert(rid); }
  void ownedTableDel(const PhysicalResourceId& rid) { ownedTables_.erase(rid); }
  // True when a command for `rid` on `devId` is the serializer's to execute.
  bool owns(DeviceId devId, const PhysicalResourceId& rid) const;

  // Per queue name, the commands it executed and rejected (queues seen so far, served or
  // not), and the totals.
  const std::map<Kel::String, QueueCounters>& queueCounters() const { return queueCounters_; }
  QueueCounters counters(const Kel::String& queueName) const;
  U64 rejectedCmds() const { return rejectedCmds_; }
  U64 restartCount() const { return status_->restartCount(); }
  // Whether the status was left by a previous process of this serializer.
  bool tookOver() const { return tookOver_; }

  // Runs every waiting command of every queue served, the way the serializer's event loop
  // does. Returns the number of commands run.
  unsigned serve();
  void restart();
  // The queues served through a ring.
  std::size_t ringsServed() const { return rings_.size(); }
  // Waits until a ring served holds a command, or `timeout` passes; false when none does.
  bool waitForCommand(std::chrono::milliseconds timeout);
  // Detaches every queue and keeps the status for the next process of this serializer.
  void retire();

  // Zorvek::QueueConsumer.
  bool commandExecute(const Zorvek::RequesterQueue& queue, Zorvek::QueueCommand& cmd) override;
  void queueAttached(Zorvek::RequesterQueue& queue) override;
  void queueDetached(Zorvek::RequesterQueue& queue) override;

 protected:
  ~SimSerializer() override;

 private:
  // A queue served through a ring, and the command it is running (its buffers reused).
  struct Ring {
    Kel::Ptr<Zorvek::RequesterQueue> queue;
    std::unique_ptr<Zorvek::CommandRingConsumer> consumer;
    Zorvek::QueueCommand cmd;
  };
  bool freeExecute(const Zorvek::RequesterQueue& queue, const Zorvek::QueueCommand& cmd);
  unsigned serveRing(Ring& ring);

  Zorvek::SerializerId id_;
  AgentId agentId_;
  Kel::Name name_;
  Kel::Ptr<SimChipSet> chips_;
  Kel::Ptr<const Kel::Dir> configDir_;
  Kel::Ptr<Kel::Dir> statusDir_;
  std::unordered_set<PhysicalResourceId> ownedTables_;
  Kel::Ptr<Zorvek::SerializerStatus> status_;
  std::map<Kel::String, QueueCounters> queueCounters_;
  U64 rejectedCmds_ = 0;
  bool tookOver_ = false;
  bool retired_ = false;
  std::map<Kel::String, Ring> rings_;
  Kel::Ptr<Zorvek::QueueAttacher> attacher_;
};

}  // namespace sim
