#include "Kel/Entity.h"

#include <map>
#include <memory>
#include <mutex>

namespace Kel {

namespace {

struct Registry {
  std::mutex mutex;
  std::vector<std::unique_ptr<Type>> ordered;
  std::map<std::string, Type*, std::less<>> byName;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: entities may die during unload
  return *r;
}

}  // namespace

Type& TypeRegistry::registerType(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (auto it = r.byName.find(name); it != r.byName.end()) return *it->second;
  struct Constructible : Type {
    Constructible(std::string n, unsigned i) : Type(std::move(n), i) {}
  };
  r.ordered.push_back(
      std::make_unique<Constructible>(std::string(name), static_cast<unsigned>(r.ordered.size())));
  Type* t = r.ordered.back().get();
  r.byName.emplace(t->name(), t);
  return *t;
}

const Type* TypeRegistry::type(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

std::vector<const Type*> TypeRegistry::types() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::vector<const Type*> out;
  for (auto& t : r.ordered) out.push_back(t.get());
  return out;
}

std::int64_t TypeRegistry::liveEntities() {
  std::int64_t n = 0;
  for (const Type* t : types()) n += t->liveCount();
  return n;
}

const Type& Entity::staticType() {
  static const Type& t = TypeRegistry::registerType("Kel::Entity");
  return t;
}

const Type& Entity::fwkType() const { return staticType(); }

Entity::~Entity() {
  if (tracked_) const_cast<Type*>(tracked_)->live_.fetch_sub(1, std::memory_order_relaxed);
}

void Entity::trackAllocation() noexcept {
  Type& t = const_cast<Type&>(fwkType());
  t.live_.fetch_add(1, std::memory_order_relaxed);
  t.allocated_.fetch_add(1, std::memory_order_relaxed);
  tracked_ = &t;
}

void Entity::deleteRef() const noexcept {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool Entity::attribute(std::string_view, std::string&) const { return false; }

void Entity::attributeIs(std::string_view name, std::string_view) {
  throw AttributeError("no attribute '" + std::string(name) + "' in " + fwkType().name());
}

}  // namespace Kel
