// Kel::Dir: a directory of the state database, naming child entities (directories
// included) one name each. Paths ("a/b/c") are walked one Dir at a time.
//
//   auto dir = Kel::allocate<Kel::Dir>(Kel::Name("config"));
//   dir->entityIs("agent1-Queue", queue);          // observers get onEntity("agent1-Queue")
//   Kel::Ptr<Kel::Entity> e = dir->entity("agent1-Queue");
//   for (const auto& [name, child] : *dir) ...     // in name order
//
// Write protection: every write from outside (entityIs, entityDel) first calls the virtual
// writeCheck(name); the base allows every write. A derived directory that must not be
// written (the read-only view of a mounted directory, Skorra::ReadOnlyDir) throws there, and
// updates its own contents through the protected doEntityIs / doEntityDel.
//
// Used from the agent's activity thread only; notifications run inside the write.
#pragma once

#include <cstddef>
#include <map>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"

namespace Kel {

class KEL_EXPORT Dir : public Entity {
  KEL_ENTITY_TYPE(Dir)

 public:
  class NotifieeConst : public Kel::NotifieeConst<Dir> {
   public:
    // The child under `name` was added, replaced by another entity, or removed.
    virtual void onEntity(const String& name) { (void)name; }
  };
  using Entries = std::map<String, Ptr<Entity>>;
  using IteratorConst = Entries::const_iterator;

  explicit Dir(Name name) : name_(std::move(name)) {}
  const Name& name() const { return name_; }

  // The child under `name`, or null.
  Ptr<Entity> entity(const String& name) const;
  // Adds or replaces the child under `name` (a null entity removes it). Notifies only when
  // the entity under the name changes. Throws std::invalid_argument for an empty name or
  // one holding '/', and whatever writeCheck throws.
  void entityIs(const String& name, const Ptr<Entity>& entity);
  // Removes the child (no effect, and no notification, when absent). Throws what
  // writeCheck throws.
  void entityDel(const String& name);

  std::size_t entities() const { return entries_.size(); }
  IteratorConst begin() const { return entries_.begin(); }
  IteratorConst end() const { return entries_.end(); }

  NotifieeList<Dir>& notifiees() const { return notifiees_; }

 protected:
  ~Dir() override;
  // Called before every entityIs / entityDel with the child's name; throws to refuse the
  // write. The base allows every write.
  virtual void writeCheck(const String& name) const;
  // The unchecked writes behind entityIs / entityDel, with the same notifications.
  void doEntityIs(const String& name, const Ptr<Entity>& entity);
  void doEntityDel(const String& name);

 private:
  Name name_;
  Entries entries_;
  mutable NotifieeList<Dir> notifiees_;
};

}  // namespace Kel
