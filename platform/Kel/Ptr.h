// Kel::Ptr<T>: an intrusive shared reference to a Kel entity (see Kel/Entity.h). The count
// lives in the entity, so a raw pointer can be turned back into a Ptr at any time, and
// Ptr<const T> shares the count with Ptr<T>. The entity is destroyed when the last Ptr goes.
//
//   Kel::Ptr<Dal> dal = someFactory(...);   // factories hand out the first reference
//   Kel::Ptr<const Dal> view = dal;         // same object, read-only
//
// Counts are atomic when built with KEL_THREAD_SAFE_PTR; otherwise plain integers, used from
// one activity thread only.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kel {

template <class T>
class Ptr {
 public:
  Ptr() noexcept : p_(nullptr) {}
  Ptr(std::nullptr_t) noexcept : p_(nullptr) {}
  Ptr(T* p) noexcept : p_(p) { retain(); }
  Ptr(const Ptr& o) noexcept : p_(o.p_) { retain(); }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& o)
  noexcept : p_(o.ptr()) { retain(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& o)
  noexcept : p_(o.release()) {}
  ~Ptr() { drop(); }

  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    drop();
    p_ = nullptr;
    return *this;
  }

  // Takes over a reference the caller already holds (no increment).
  static Ptr adopt(T* p) noexcept {
    Ptr r;
    r.p_ = p;
    return r;
  }
  // Gives up the reference without dropping it; the caller now holds it.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  T* ptr() const noexcept { return p_; }
  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

 private:
  void retain() const noexcept {
    if (p_) p_->newRef();
  }
  void drop() noexcept {
    if (p_) p_->deleteRef();
  }
  T* p_;
};

template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
  return a.ptr() == b.ptr();
}
template <class T>
bool operator==(const Ptr<T>& a, std::nullptr_t) noexcept {
  return a.ptr() == nullptr;
}
template <class T, class U>
bool operator==(const Ptr<T>& a, const U* b) noexcept {
  return a.ptr() == b;
}

// Checked downcast: null when the entity is not a T.
template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Kel

template <class T>
struct std::hash<Kel::Ptr<T>> {
  std::size_t operator()(const Kel::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
