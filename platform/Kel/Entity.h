// The entity base of the framework: reference counting for Kel::Ptr, the registered type of
// each class (fwkType()), tracked allocation with a live count per type, and reflective
// attribute access by name.
//
//   class Dal : public Kel::Entity {
//     KEL_ENTITY_TYPE(Dal)                     // declares staticType() and fwkType()
//     ...
//   };
//   KEL_DEFINE_ENTITY_TYPE(Zorvek::Dal, "Zorvek::Dal")   // in Dal.cpp: registers at load
//   Kel::Ptr<Dal> d = Kel::allocate<Dal>(args...);       // counted under "Zorvek::Dal"
//
// Entities are created only through allocate() (usually behind a class's factory). During
// construction an entity already holds the one reference that allocate() hands out, so a
// constructor may wrap `this` in a Ptr without destroying itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/Export.h"
#include "Kel/Ptr.h"

namespace Kel {

// A registered type: its name, its position in the registration order and the number of
// its entities alive (created through allocate() and not yet destroyed).
class KEL_EXPORT Type {
 public:
  const std::string& name() const { return name_; }
  unsigned registrationIndex() const { return index_; }
  std::int64_t liveCount() const { return live_.load(std::memory_order_relaxed); }
  std::uint64_t allocatedCount() const { return allocated_.load(std::memory_order_relaxed); }

 private:
  friend class TypeRegistry;
  friend class Entity;
  Type(std::string name, unsigned index) : name_(std::move(name)), index_(index) {}
  std::string name_;
  unsigned index_;
  std::atomic<std::int64_t> live_{0};
  std::atomic<std::uint64_t> allocated_{0};
};

class KEL_EXPORT TypeRegistry {
 public:
  // Registers `name` (once; later calls return the same type).
  static Type& registerType(std::string_view name);
  // The type of that name, or null.
  static const Type* type(std::string_view name);
  // Every registered type, in registration order.
  static std::vector<const Type*> types();
  // Sum of the live counts of every type.
  static std::int64_t liveEntities();
};

class KEL_EXPORT Entity {
 public:
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  // The registered type of the most derived class that declares one.
  virtual const Type& fwkType() const;
  static const Type& staticType();

  void newRef() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void deleteRef() const noexcept;
  long references() const noexcept { return refs_.load(std::memory_order_relaxed); }

  // Reflective attribute access by name, with values in the framework's text form. The
  // base knows no attribute: attribute() returns false and attributeIs() throws
  // Kel::AttributeError; classes override them for the attributes they expose.
  virtual bool attribute(std::string_view name, std::string& value) const;
  virtual void attributeIs(std::string_view name, std::string_view value);

 protected:
  Entity() noexcept = default;
  virtual ~Entity();

 private:
  template <class T, class... A>
  friend Ptr<T> allocate(A&&... args);
  void trackAllocation() noexcept;

#ifdef KEL_THREAD_SAFE_PTR
  using Count = std::atomic<long>;
#else
  // Plain count behind the same interface: no atomic instructions on the access path.
  struct Count {
    long v;
    long fetch_add(long d, std::memory_order) noexcept { return std::exchange(v, v + d); }
    long fetch_sub(long d, std::memory_order) noexcept { return std::exchange(v, v - d); }
    long load(std::memory_order) const noexcept { return v; }
  };
#endif
  mutable Count refs_{1};
  const Type* tracked_ = nullptr;
};

// Thrown by reflective access to an attribute that does not exist or does not parse.
class KEL_EXPORT AttributeError : public std::exception {
 public:
  explicit AttributeError(std::string what) : what_(std::move(what)) {}
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string what_;
};

// Tracked allocation: constructs a T, counts it under its registered type and returns the
// first reference.
template <class T, class... A>
Ptr<T> allocate(A&&... args) {
  T* p = new T(std::forward<A>(args)...);
  p->trackAllocation();
  return Ptr<T>::adopt(p);
}

namespace detail {
struct Registrar {
  explicit Registrar(const Type&) noexcept {}
};
}  // namespace detail

}  // namespace Kel

#define KEL_ENTITY_TYPE(Class)                 \
 public:                                       \
  static const ::Kel::Type& staticType();      \
  const ::Kel::Type& fwkType() const override; \
                                               \
 private:

#define KEL_CONCAT_INNER(a, b) a##b
#define KEL_CONCAT(a, b) KEL_CONCAT_INNER(a, b)

// Defines the type functions of an entity class and registers the type at load time.
#define KEL_DEFINE_ENTITY_TYPE(Class, typeName)                                \
  const ::Kel::Type& Class::staticType() {                                     \
    static const ::Kel::Type& t = ::Kel::TypeRegistry::registerType(typeName); \
    return t;                                                                  \
  }                                                                            \
  const ::Kel::Type& Class::fwkType() const { return staticType(); }           \
  static const ::Kel::detail::Registrar KEL_CONCAT(kelRegistrar, __LINE__){Class::staticType()};

// Value types (not entities) register their name the same way and answer fwkType().
#define KEL_DEFINE_VALUE_TYPE(Class, typeName)                                 \
  const ::Kel::Type& Class::fwkType() {                                        \
    static const ::Kel::Type& t = ::Kel::TypeRegistry::registerType(typeName); \
    return t;                                                                  \
  }                                                                            \
  static const ::Kel::detail::Registrar KEL_CONCAT(kelRegistrar, __LINE__){Class::fwkType()};
