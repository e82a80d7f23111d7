#include "sim/Geometry.h"

#include <algorithm>
#include <limits>
#include <sstream>

namespace sim {

KEL_DEFINE_ENTITY_TYPE(sim::Geometry, "sim::Geometry")

std::string hexText(U64 v) {
  std::ostringstream os;
  os << "0x" << std::hex << v;
  return os.str();
}

namespace {

void checkTable(const TableDef& t) {
  if (t.entrySize == 0 || t.memoryEntrySize == 0 || t.entryCount == 0)
    throw GeometryError("table '" + t.name +
                        "': entrySize, memoryEntrySize and entryCount must not be 0");
  if (t.instances == 0) throw GeometryError("table '" + t.name + "': instances must be at least 1");
  if (t.id > std::numeric_limits<U64>::max() - (t.instances - 1))
    throw GeometryError("table '" + t.name + "': instance ids overflow the 64-bit id");
}

}  // namespace

Geometry::Geometry(Kel::Name name, const std::vector<TableDef>& tables,
                   const std::vector<RegisterDef>& registers)
    : name_(std::move(name)) {
  for (const TableDef& t : tables) {
    checkTable(t);
    const PhysicalResourceId baseId(ResourceType::tableResource_, t.id);
    for (U32 k = 0; k < t.instances; ++k) {
      add({t.name, PhysicalResourceId(ResourceType::tableResource_, t.id + k), baseId, k,
           t.instances, 0, t.entrySize, t.memoryEntrySize, t.entryCount, t.cacheable, t.hash,
           tableEntrySlots_});
      tableEntrySlots_ += t.entryCount;
    }
  }
  for (const RegisterDef& r : registers) {
    if (r.size == 0) throw GeometryError("register '" + r.name + "': size must not be 0");
    const PhysicalResourceId id(ResourceType::registerResource_, r.id);
    add({r.name, id, id, 0, 1, 0, r.size, r.size, 1, r.cacheable, false, 0});
  }
}

Geometry::~Geometry() = default;

// Places `layout` at the current end of the space.
void Geometry::add(ResourceLayout layout) {
  const U64 end = sizeBytes_ + U64{layout.memoryEntrySize} * layout.entryCount;
  if (end > std::numeric_limits<DeviceOffset>::max())
    throw GeometryError("geometry '" + name_ + "': '" + layout.name +
                        "' does not fit the 32-bit offset space");
  const auto [it, added] = byId_.emplace(layout.id, static_cast<U32>(resources_.size()));
  if (!added)
    throw GeometryError("geometry '" + name_ + "': '" + layout.name + "' reuses id " +
                        hexText(layout.id.id()) + " of '" + resources_[it->second].name + "'");
  layout.base = static_cast<DeviceOffset>(sizeBytes_);
  sizeBytes_ = end;
  bases_.push_back(layout.base);
  resources_.push_back(std::move(layout));
}

const ResourceLayout* Geometry::find(DeviceOffset offset) const {
  // Resources leave no gaps from offset 0 on, so an offset inside the space belongs to the
  // last resource whose base is not above it. Found by halving over the bases, which sit
  // together in their own vector: every access of the device asks this.
  if (offset >= sizeBytes_) return nullptr;
  const DeviceOffset* first = bases_.data();
  for (std::size_t n = bases_.size(); n > 1;) {
    const std::size_t half = n / 2;
    if (first[half] <= offset) first += half;
    n -= half;
  }
  return &resources_[static_cast<std::size_t>(first - bases_.data())];
}

Location Geometry::locate(DeviceOffset offset) const {
  const ResourceLayout* r = find(offset);
  if (!r)
    throw GeometryError("geometry '" + name_ + "': offset " + hexText(offset) +
                        " belongs to no resource");
  const U32 inside = offset - r->base;
  return {r, inside / r->memoryEntrySize, inside % r->memoryEntrySize};
}

const ResourceLayout* Geometry::findLayout(const PhysicalResourceId& rid) const {
  const auto it = byId_.find(rid);
  if (it == byId_.end()) return nullptr;
  lastLayout_ = &resources_[it->second];
  return lastLayout_;
}

std::span<const ResourceLayout> Geometry::instances(const PhysicalResourceId& rid) const {
  const ResourceLayout* r = layout(rid);
  if (!r) return {};
  // Instances are laid out one after the other, so they form one run of resources_.
  const ResourceLayout* first = r - r->instance;
  return {first, first->instances};
}

}  // namespace sim
