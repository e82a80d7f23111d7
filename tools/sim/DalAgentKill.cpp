#include "DalAgentKill.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>

#include "Interrupt.h"

namespace simtool {

DalAgentKill::DalAgentKill(const sim::Topology& topology, Kel::Ptr<sim::SimChipSet> chips)
    : topology_(topology), chips_(std::move(chips)) {}

std::vector<U8> DalAgentKill::entryBytes(sim::AgentId agent, U32 entry, U32 size) {
  std::vector<U8> bytes(size);
  for (U32 i = 0; i < size; ++i) bytes[i] = static_cast<U8>(agent * 31 + entry * 7 + i + 1);
  return bytes;
}

void DalAgentKill::forEachTable(const std::function<void(sim::SimChip&, const sim::ResourceLayout&,
                                                         sim::AgentId)>& visit) const {
  for (const auto& [devId, chip] : chips_->chips())
    for (const sim::SerializerDef& s : topology_.serializers)
      for (const sim::LogicalResourceDef& res : s.resources)
        for (U64 table : res.tables) {
          const sim::PhysicalResourceId rid(sim::ResourceType::tableResource_, table);
          if (!chip->geometry()->layout(rid)) continue;
          for (const sim::ResourceLayout& instance : chip->geometry()->instances(rid))
            visit(*chip, instance, s.agent);
        }
}

void DalAgentKill::run(const WorkloadOptions& workload,
                       const std::function<void(const std::function<void(U64)>& made)>& agent) {
  forEachTable([](sim::SimChip& chip, const sim::ResourceLayout& t, sim::AgentId owner) {
    for (U32 e = 0; e < t.entryCount; e += 2)
      chip.writeAt(t.entryOffset(e), entryBytes(owner, e, t.memoryEntrySize).data(), nullptr,
                   t.memoryEntrySize, owner);
  });
  std::mt19937_64 rng(workload.seed ^ 0x64616cull);
  const U64 quarter = std::max<U64>(workload.accesses / 4, 1);
  killedAt_ = std::uniform_int_distribution<U64>(quarter, 3 * quarter)(rng);
  // The child counts its accesses where the parent sees them.
  void* shared = mmap(nullptr, sizeof(std::atomic<U64>), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) throw std::runtime_error("--kill-dal: cannot map a counter");
  auto* made = new (shared) std::atomic<U64>(0);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("--kill-dal: fork failed");
  if (pid == 0) {
    try {
      agent([made](U64 n) { made->store(n, std::memory_order_relaxed); });
    } catch (...) {
      _exit(3);
    }
    for (;;) pause();  // done before its kill: it waits for it
  }
  pid_ = pid;
  int status = 0;
  while (made->load(std::memory_order_relaxed) < killedAt_) {
    try {
      throwIfInterrupted();
    } catch (const Interrupted&) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      munmap(shared, sizeof(std::atomic<U64>));
      throw;
    }
    if (waitpid(pid, &status, WNOHANG) == pid) {
      munmap(shared, sizeof(std::atomic<U64>));
      throw std::runtime_error("--kill-dal: the DAL's agent (pid " + std::to_string(pid) +
                               ") ended before its kill");
    }
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  killedAt_ = made->load(std::memory_order_relaxed);
  munmap(shared, sizeof(std::atomic<U64>));
  // What the serializers had run of the agent's writes when it died (they may still run more
  // of what its rings hold).
  ownedAtKill_ = 0;
  forEachTable([&](sim::SimChip& chip, const sim::ResourceLayout& t, sim::AgentId) {
    for (U32 e = 0; e < t.entryCount; ++e)
      ownedAtKill_ += chip.owner(t.id, e) == topology_.dalAgent;
  });
}

DalKillLine DalAgentKill::check() const {
  DalKillLine line{pid_, killedAt_, ownedAtKill_};
  forEachTable([&](sim::SimChip& chip, const sim::ResourceLayout& t, sim::AgentId) {
    for (U32 e = 0; e < t.entryCount; ++e) {
      const sim::AgentId owner = chip.owner(t.id, e);
      if (owner == topology_.dalAgent) {
        ++line.leftOwned;
      } else if (owner != Zorvek::kInvalidAgentId) {
        ++line.otherEntries;
        const std::span<const U8> bytes = chip.entry(t.id, e);
        if (!std::ranges::equal(bytes, entryBytes(owner, e, t.memoryEntrySize)))
          ++line.otherEntriesChanged;
      }
    }
  });
  return line;
}

}  // namespace simtool
