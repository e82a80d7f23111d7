// Kel::WriteGuard: a refusal of writes that an entity's owner can put on it from outside.
//
// An entity that the state database shares between processes exists once per process. In a
// process that reaches it only through read-only mounts, the copy must not be written: the
// state database's backend puts a guard on that copy, and the entity's setters ask the guard
// before they change anything, so a refused write changes nothing and notifies no one.
//
//   class WatchList : public Kel::Entity, public Kel::WriteGuarded { ... };
//   void WatchList::watchIs(...) { writeCheck(*this, "watch"); ... }
//   list->writeGuardIs(guard);          // the guard outlives its use, or is taken off first
//
// Used from the agent's activity thread only.
#pragma once

#include <string_view>

#include "Kel/Entity.h"

namespace Kel {

class KEL_EXPORT WriteGuard {
 public:
  // Throws to refuse a write of `attribute` of `entity`; returns to allow it.
  virtual void writeCheck(const Entity& entity, std::string_view attribute) const = 0;

 protected:
  ~WriteGuard() = default;
};

// The base of an entity whose setters a guard may refuse. Without a guard, writes are free.
class WriteGuarded {
 public:
  const WriteGuard* writeGuard() const { return writeGuard_; }
  void writeGuardIs(const WriteGuard* guard) { writeGuard_ = guard; }

 protected:
  void writeCheck(const Entity& self, std::string_view attribute) const {
    if (writeGuard_) writeGuard_->writeCheck(self, attribute);
  }

 private:
  const WriteGuard* writeGuard_ = nullptr;
};

}  // namespace Kel
