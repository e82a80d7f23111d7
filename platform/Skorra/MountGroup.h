// Mounting state-database paths into an agent: Skorra::Mount (one request),
// Skorra::MountGroup (the requests of one agent, completed together) and the group's
// entity manager, through which the agent reaches the mounted entities.
//
//   auto group = Kel::allocate<Skorra::MountGroup>();          // on the default database
//   group->doMount(Skorra::Mount("serializer/s0/config", "Kel::Dir", "wi"));
//   group->completeMounts();                                    // the hosting agent
//   auto dir = Kel::dynamicPtrCast<Kel::Dir>(
//       group->entityManager()->getEntity("serializer/s0/config"));
//
// Modes: a letter for the access, 'r' (read-only) or 'w' (writable), optionally followed
// by 'i' (inclusive: the mount also answers every path below a mounted directory; without
// it only the mounted path itself is answered). So "ri" and "r" are read-only, "wi" is
// writable.
//
// Completion: a mount binds the entity at its path when the group completes. A "Kel::Dir"
// that is absent is created (with the directories above it); any other type is optional:
// when published, it must be an entity whose registered type name (fwkType()) is the
// requested one (another type is a MountError); when absent, the mount answers null.
//
// Read-only enforcement. The database is shared: the same directory is often mounted
// read-only by one agent and writable by another (a serializer reads the configuration
// directory that its requesters write). So the protection belongs to the mount, not to
// the directory. A writable mount hands out the directory itself. A read-only mount of a
// directory hands out a Skorra::ReadOnlyDir: a Kel::Dir that mirrors the directory's
// entries (kept in step by observing it, so its own observers see every change), that
// shows each child directory as a read-only view in turn, and whose entityIs / entityDel
// throw MountError naming the path written and the mode. What is protected is the tree:
// which entity each name holds. The entities in it (a queue, a status) are shared objects
// with their own owners and are handed out as they are.
//
// Used from the agent's activity thread only.
#pragma once

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Skorra/Database.h"

namespace Skorra {

// A mount that cannot be made, or a write refused by a read-only mount. Names the path
// and the mode.
class KEL_EXPORT MountError : public std::runtime_error {
 public:
  MountError(Kel::String path, Kel::String mode, const std::string& what)
      : std::runtime_error(what), path_(std::move(path)), mode_(std::move(mode)) {}
  const Kel::String& path() const { return path_; }
  const Kel::String& mode() const { return mode_; }

 private:
  Kel::String path_;
  Kel::String mode_;
};

// Restricts a mount to part of the published entity. Only unrestricted mounts (a filter
// made with false) are supported: doMount refuses an enabled filter.
class MountFilter {
 public:
  explicit MountFilter(bool enabled) : enabled_(enabled) {}
  bool enabled() const { return enabled_; }
  friend bool operator==(const MountFilter&, const MountFilter&) = default;

 private:
  bool enabled_;
};

// One mount request: the path, the type name of the entity expected there, the mode, and
// an unrestricted filter.
class Mount {
 public:
  Mount(Kel::String path, Kel::String typeName, Kel::String mode)
      : path_(std::move(path)),
        typeName_(std::move(typeName)),
        mode_(std::move(mode)),
        filter_(false) {}
  const Kel::String& path() const { return path_; }
  const Kel::String& typeName() const { return typeName_; }
  const Kel::String& mode() const { return mode_; }
  const MountFilter& filter() const { return filter_; }
  friend bool operator==(const Mount&, const Mount&) = default;

 private:
  Kel::String path_;
  Kel::String typeName_;
  Kel::String mode_;
  MountFilter filter_;
};
KEL_EXPORT std::ostream& operator<<(std::ostream& os, const Mount& m);

class MountGroup;

// The agent's view of its completed mounts.
class KEL_EXPORT EntityManager {
 public:
  // The entity at `path` as this agent sees it (a read-only view for a directory mounted
  // read-only), or null when no completed mount covers the path or nothing is there. The
  // mount with the longest path that covers `path` answers; a writable mount wins over a
  // read-only one of the same path.
  Kel::Ptr<Kel::Entity> getEntity(Kel::String path) const;

 private:
  friend class MountGroup;
  explicit EntityManager(const MountGroup& group) : group_(group) {}
  const MountGroup& group_;
};

class KEL_EXPORT MountGroup : public Kel::Entity {
  KEL_ENTITY_TYPE(MountGroup)

 public:
  class NotifieeConst : public Kel::NotifieeConst<MountGroup> {
   public:
    // mountsComplete() changed.
    virtual void onMountsComplete() {}
  };

  explicit MountGroup(Kel::Ptr<Database> database = defaultDatabase());
  const Kel::Ptr<Database>& database() const { return database_; }

  // Records the request (after every earlier one). Throws MountError for an unknown mode,
  // an empty type name or an enabled filter. The group is incomplete until the next
  // completeMounts(). mountsComplete notifies onMountsComplete on change.
  void doMount(const Mount& mount);
  // Every request, in the order made.
  const std::vector<Mount>& mounts() const { return mounts_; }

  // Binds every request not bound yet, in order; then the group is complete. Throws MountError on
  // the first request that cannot be bound: the requests before it stay bound, the group stays
  // incomplete.
  void completeMounts();
  bool mountsComplete() const { return mountsComplete_; }

  const EntityManager* entityManager() const { return &entityManager_; }

  Kel::NotifieeList<MountGroup>& notifiees() const { return notifiees_; }

 protected:
  ~MountGroup() override;

 private:
  friend class EntityManager;
  struct Binding {
    std::vector<Kel::String> names;
    bool writable;
    bool inclusive;
    Kel::Ptr<Kel::Entity> entity;  // a read-only view for a directory mounted read-only
  };
  Binding bind(const Mount& mount) const;
  void mountsCompleteIs(bool v);

  Kel::Ptr<Database> database_;
  std::vector<Mount> mounts_;
  std::vector<Binding> bindings_;  // bindings_[i] binds mounts_[i]
  bool mountsComplete_ = false;
  EntityManager entityManager_{*this};
  mutable Kel::NotifieeList<MountGroup> notifiees_;
};

}  // namespace Skorra
