#include "Skorra/MountGroup.h"

#include <algorithm>

#include "Duwisp/Duwisp.h"
#include "Skorra/Backend.h"
#include "Skorra/ReadOnlyDir.h"

namespace Skorra {

KEL_DEFINE_ENTITY_TYPE(MountGroup, "Skorra::MountGroup")

namespace {

KEL_FILE_TRACE_HANDLE("SkorraMountGroup")

constexpr std::string_view kDirType = "Kel::Dir";

// A mode is 'r' or 'w', optionally followed by 'i'.
bool validMode(const Kel::String& mode) {
  if (mode.empty() || mode.size() > 2) return false;
  if (mode[0] != 'r' && mode[0] != 'w') return false;
  return mode.size() == 1 || mode[1] == 'i';
}

MountError mountError(const Mount& m, const std::string& why) {
  return MountError(m.path(), m.mode(),
                    "Skorra: cannot mount \"" + m.path() + "\" as " + m.typeName() + " (mode \"" +
                        m.mode() + "\"): " + why);
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Mount& m) {
  return os << "Mount(\"" << m.path() << "\", \"" << m.typeName() << "\", \"" << m.mode() << "\""
            << (m.filter().enabled() ? ", filtered" : "") << ")";
}

MountGroup::MountGroup(Kel::Ptr<Database> database) : database_(std::move(database)) {}

MountGroup::~MountGroup() = default;

void MountGroup::doMount(const Mount& mount) {
  DUWISP_TRACE(th(), 7, "doMount path %s type %s mode %s", mount.path(), mount.typeName(),
               mount.mode());
  if (!validMode(mount.mode())) throw mountError(mount, "unknown mode");
  if (mount.typeName().empty()) throw mountError(mount, "no type name");
  if (mount.filter().enabled()) throw mountError(mount, "filtered mounts are not supported");
  mounts_.push_back(mount);
  mountsCompleteIs(false);
}

void MountGroup::completeMounts() {
  while (bindings_.size() < mounts_.size()) bindings_.push_back(bind(mounts_[bindings_.size()]));
  mountsCompleteIs(true);
}

MountGroup::Binding MountGroup::bind(const Mount& mount) const {
  if (database_->backend()) database_->backend()->mountIs(*database_, mount);
  std::vector<Kel::String> names = pathNames(mount.path());
  Kel::Ptr<Kel::Entity> entity;
  if (mount.typeName() == kDirType) {
    try {
      entity = database_->dirIs(mount.path());
    } catch (const PathError& e) {
      throw mountError(mount, e.what());
    }
  } else {
    // An optional entity (the watch list, a coprocessor status log) may be absent: the
    // mount then answers null for its path, and its users go without.
    entity = database_->entity(mount.path());
    if (entity && entity->fwkType().name() != mount.typeName())
      throw mountError(mount, "it holds an entity of type " + entity->fwkType().name());
  }
  const bool writable = mount.mode()[0] == 'w';
  if (auto dir = Kel::dynamicPtrCast<const Kel::Dir>(entity); dir && !writable)
    entity = Kel::allocate<ReadOnlyDir>(pathOf(names, names.size()), mount.mode(), dir);
  DUWISP_TRACE(th(), 7, "completeMounts bound %s mode %s", mount.path(), mount.mode());
  return Binding{std::move(names), writable, mount.mode().size() == 2, std::move(entity)};
}

void MountGroup::mountsCompleteIs(bool v) {
  notifiees_.store(mountsComplete_, v, &NotifieeConst::onMountsComplete);
}

Kel::Ptr<Kel::Entity> EntityManager::getEntity(Kel::String path) const {
  const std::vector<Kel::String> names = pathNames(path);
  const MountGroup::Binding* best = nullptr;
  for (const MountGroup::Binding& b : group_.bindings_) {
    if (b.names.size() > names.size() || !std::equal(b.names.begin(), b.names.end(), names.begin()))
      continue;
    if (b.names.size() < names.size() && !b.inclusive) continue;
    if (!best || b.names.size() > best->names.size() ||
        (b.names.size() == best->names.size() && b.writable && !best->writable))
      best = &b;
  }
  if (!best) return nullptr;
  Kel::Ptr<Kel::Entity> current = best->entity;
  for (std::size_t i = best->names.size(); i < names.size() && current; ++i) {
    const auto* dir = dynamic_cast<const Kel::Dir*>(current.ptr());
    current = dir ? dir->entity(names[i]) : nullptr;
  }
  return current;
}

}  // namespace Skorra
