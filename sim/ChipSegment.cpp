#include "sim/ChipSegment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace sim {

namespace {

constexpr U64 kMagic = 0x504948434b56525aull;  // "ZRVKCHIP" in memory order
constexpr U32 kVersion = 1;
constexpr U64 kAlign = 64;

static_assert(std::is_trivially_copyable_v<AgentId> && sizeof(AgentId) == 2,
              "an owner is a fixed-size plain word in shared memory");

struct Header {
  U64 magic;
  U32 version;
  U32 devices;
};
struct DeviceEntry {
  U32 id;
  U32 reserved;
  U64 memoryBytes;
  U64 ownerSlots;
  U64 memoryAt;
  U64 ownersAt;
};

U64 aligned(U64 at) { return (at + kAlign - 1) / kAlign * kAlign; }

// The devices of a topology and their geometries, and where each lives in a segment.
struct Plan {
  std::vector<const DeviceDef*> devices;
  std::vector<Kel::Ptr<const Geometry>> geometries;
  std::vector<DeviceEntry> entries;
  U64 bytes = 0;
};

Plan planOf(const Topology& topology) {
  Plan plan;
  U64 at = aligned(sizeof(Header) + topology.devices.size() * sizeof(DeviceEntry));
  for (const DeviceDef& d : topology.devices) {
    Kel::Ptr<const Geometry> g = deviceGeometry(d);
    DeviceEntry e{d.id, 0, g->sizeBytes(), g->tableEntrySlots(), 0, 0};
    e.memoryAt = at;
    at = aligned(at + e.memoryBytes);
    e.ownersAt = at;
    at = aligned(at + e.ownerSlots * sizeof(AgentId));
    plan.devices.push_back(&d);
    plan.geometries.push_back(std::move(g));
    plan.entries.push_back(e);
  }
  plan.bytes = at;
  return plan;
}

// A mapping of a segment, unmapped when the last chip over it goes.
struct Mapping {
  U8* base;
  std::size_t bytes;
  Mapping(U8* b, std::size_t n) : base(b), bytes(n) {}
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() { munmap(base, bytes); }
};

std::string error(const std::string& name, const std::string& what) {
  return "ChipSegment: segment \"" + name + "\": " + what;
}
std::string systemError(const std::string& name, const char* call) {
  return error(name, std::string(call) + " failed: " + std::strerror(errno));
}

Kel::Ptr<SimChipSet> chipsOver(const std::shared_ptr<Mapping>& mapping, const Plan& plan) {
  auto chips = Kel::allocate<SimChipSet>();
  for (std::size_t i = 0; i < plan.entries.size(); ++i) {
    const DeviceEntry& e = plan.entries[i];
    SimChip::Storage storage{{mapping->base + e.memoryAt, e.memoryBytes},
                             {reinterpret_cast<AgentId*>(mapping->base + e.ownersAt), e.ownerSlots},
                             mapping};
    chips->chipIs(Kel::allocate<SimChip>(DeviceId(e.id), plan.geometries[i], std::move(storage)));
  }
  return chips;
}

// What is wrong with the segment's header for `plan`, or empty.
std::string mismatch(const U8* base, std::size_t bytes, const Plan& plan) {
  Header h;
  std::memcpy(&h, base, sizeof h);
  if (h.magic != kMagic) return "not a chip segment (bad magic)";
  if (h.version != kVersion)
    return "layout version " + std::to_string(h.version) + ", expected " + std::to_string(kVersion);
  if (h.devices != plan.entries.size())
    return "laid out for " + std::to_string(h.devices) + " devices, the topology has " +
           std::to_string(plan.entries.size());
  if (bytes < sizeof h + plan.entries.size() * sizeof(DeviceEntry))
    return "not a chip segment (truncated)";
  for (std::size_t i = 0; i < plan.entries.size(); ++i) {
    DeviceEntry e;
    std::memcpy(&e, base + sizeof h + i * sizeof e, sizeof e);
    const DeviceEntry& want = plan.entries[i];
    const std::string device = "device " + std::to_string(want.id);
    if (e.id != want.id)
      return "device " + std::to_string(i) + " of the segment is device " + std::to_string(e.id) +
             ", the topology's is device " + std::to_string(want.id);
    if (e.memoryBytes != want.memoryBytes || e.ownerSlots != want.ownerSlots)
      return device + " has " + std::to_string(e.memoryBytes) + " bytes and " +
             std::to_string(e.ownerSlots) + " table entries here, the topology gives it " +
             std::to_string(want.memoryBytes) + " and " + std::to_string(want.ownerSlots);
    if (e.memoryAt != want.memoryAt || e.ownersAt != want.ownersAt)
      return device + " lies elsewhere in the segment";
  }
  if (bytes < plan.bytes) return "not a chip segment (truncated)";
  return "";
}

}  // namespace

ChipSegment ChipSegment::create(std::string name, const Topology& topology) {
  topology.validate("topology");
  const Plan plan = planOf(topology);
  // The name carries the creator's pid: one of that name is a leftover of a process that had
  // the same pid, and nobody else will ever unlink it.
  shm_unlink(name.c_str());
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0) throw ChipSegmentError(systemError(name, "shm_open"));
  void* base = MAP_FAILED;
  if (ftruncate(fd, static_cast<off_t>(plan.bytes)) == 0)
    base = mmap(nullptr, plan.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int saved = errno;
  close(fd);
  if (base == MAP_FAILED) {
    shm_unlink(name.c_str());
    errno = saved;
    throw ChipSegmentError(systemError(name, "mapping"));
  }
  auto mapping = std::make_shared<Mapping>(static_cast<U8*>(base), plan.bytes);
  // The segment comes zeroed: memory zero; no entry owned is another word.
  for (const DeviceEntry& e : plan.entries)
    std::fill_n(reinterpret_cast<AgentId*>(mapping->base + e.ownersAt), e.ownerSlots,
                Zorvek::kInvalidAgentId);
  std::memcpy(mapping->base + sizeof(Header), plan.entries.data(),
              plan.entries.size() * sizeof(DeviceEntry));
  // The header last: a half-made segment is no chip segment.
  const Header h{kMagic, kVersion, static_cast<U32>(plan.entries.size())};
  std::memcpy(mapping->base, &h, sizeof h);
  return ChipSegment(std::move(name), true, chipsOver(mapping, plan));
}

ChipSegment ChipSegment::open(std::string name, const Topology& topology) {
  topology.validate("topology");
  const Plan plan = planOf(topology);
  const int fd = shm_open(name.c_str(), O_RDWR, 0);
  if (fd < 0) throw ChipSegmentError(systemError(name, "shm_open"));
  struct stat st {};
  void* base = MAP_FAILED;
  const bool fits = fstat(fd, &st) == 0 && std::size_t(st.st_size) >= sizeof(Header);
  if (fits)
    base = mmap(nullptr, std::size_t(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (base == MAP_FAILED)
    throw ChipSegmentError(error(name, "not a chip segment (too small to hold one)"));
  auto mapping = std::make_shared<Mapping>(static_cast<U8*>(base), std::size_t(st.st_size));
  if (const std::string what = mismatch(mapping->base, mapping->bytes, plan); !what.empty())
    throw ChipSegmentError(error(name, what));
  return ChipSegment(std::move(name), false, chipsOver(mapping, plan));
}

ChipSegment::ChipSegment(ChipSegment&& other) noexcept
    : name_(std::move(other.name_)),
      owner_(std::exchange(other.owner_, false)),
      chips_(std::move(other.chips_)) {}

ChipSegment::~ChipSegment() { unlink(); }

void ChipSegment::unlink() {
  if (std::exchange(owner_, false)) shm_unlink(name_.c_str());
}

}  // namespace sim
