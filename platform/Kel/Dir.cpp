#include "Kel/Dir.h"

#include <stdexcept>

namespace Kel {

KEL_DEFINE_ENTITY_TYPE(Dir, "Kel::Dir")

Dir::~Dir() = default;

Ptr<Entity> Dir::entity(const String& name) const {
  auto it = entries_.find(name);
  return it == entries_.end() ? nullptr : it->second;
}

void Dir::entityIs(const String& name, const Ptr<Entity>& entity) {
  if (name.empty() || name.find('/') != String::npos)
    throw std::invalid_argument("Kel::Dir " + name_ + ": invalid entry name '" + name + "'");
  writeCheck(name);
  doEntityIs(name, entity);
}

void Dir::entityDel(const String& name) {
  writeCheck(name);
  doEntityDel(name);
}

void Dir::writeCheck(const String&) const {}

void Dir::doEntityIs(const String& name, const Ptr<Entity>& entity) {
  if (!entity) return doEntityDel(name);
  auto [it, inserted] = entries_.try_emplace(name, entity);
  if (!inserted) {
    if (it->second == entity) return;
    it->second = entity;
  }
  notifiees_.visit(&NotifieeConst::onEntity, name);
}

void Dir::doEntityDel(const String& name) {
  auto it = entries_.find(name);
  if (it == entries_.end()) return;
  // Released after the notification, so that observers that look the name up already see
  // it gone while the entity is still alive for them.
  Ptr<Entity> gone = std::move(it->second);
  entries_.erase(it);
  notifiees_.visit(&NotifieeConst::onEntity, name);
}

}  // namespace Kel
