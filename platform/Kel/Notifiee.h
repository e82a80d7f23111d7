// Observers ("notifiees") of an entity and the list through which the entity notifies them.
//
// A class T that notifies declares, by convention, an observer class T::NotifieeConst that
// derives from Kel::NotifieeConst<T> and adds one virtual `onX()` per observable attribute,
// and a member `mutable Kel::NotifieeList<T> notifiees_` with an accessor `notifiees()`.
// Setters call `notifiees_.visit(&T::NotifieeConst::onX)` after a change.
//
// A notifiee watches at most one notifier at a time: notifierIs() moves it to another
// notifier (or to none), which is how reactors retarget when their attribute is set and
// retire when it is deleted. A notifiee never owns its notifier; when the notifier is
// destroyed, every notifiee still registered is detached (its notifier() becomes null).
//
// List policy (one rule for every notifier): observers are visited in registration order.
// An observer removed during a visit (itself, a neighbour, or destroyed) is not visited
// afterwards; an observer added during a visit is not visited by that visit. Visits may nest.
// Observers whose hasNotificationActive() is false are skipped.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kel/Entity.h"

namespace Kel {

template <class T>
class NotifieeConst;

template <class T>
class NotifieeList {
 public:
  using Observer = NotifieeConst<T>;

  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;
  ~NotifieeList() {
    for (Observer* o : entries_)
      if (o) o->notifierGone();
  }

  // Calls `fn(args...)` on every active observer, in registration order.
  template <class Fn, class... A>
  void visit(Fn fn, const A&... args) {
    if (entries_.empty()) return;
    ++depth_;
    const std::size_t n = entries_.size();
    for (std::size_t i = 0; i < n; ++i) {
      Observer* o = entries_[i];
      if (!o || !o->hasNotificationActive()) continue;
      (static_cast<typename T::NotifieeConst*>(o)->*fn)(args...);
    }
    if (--depth_ == 0 && holes_) compact();
  }

  // The setter of an observable attribute: stores `v` in `field` and visits `fn`, only when
  // that changed the value.
  template <class V, class Fn>
  void store(V& field, const std::type_identity_t<V>& v, Fn fn) {
    if (field == v) return;
    field = v;
    visit(fn);
  }

  std::size_t size() const {
    std::size_t n = 0;
    for (Observer* o : entries_) n += o != nullptr;
    return n;
  }
  bool empty() const { return size() == 0; }

 private:
  friend class NotifieeConst<T>;
  void add(Observer* o) { entries_.push_back(o); }
  void remove(Observer* o) {
    for (Observer*& e : entries_)
      if (e == o) {
        e = nullptr;
        holes_ = true;
      }
    if (depth_ == 0) compact();
  }
  void compact() {
    std::erase(entries_, nullptr);
    holes_ = false;
  }

  std::vector<Observer*> entries_;
  int depth_ = 0;
  bool holes_ = false;
};

// Base of T::NotifieeConst. Registered with its notifier by default once notifierIs() is
// given one; isRegisteredNotifieeIs(false) takes it off the list while keeping the target.
template <class T>
class NotifieeConst : public Entity {
 public:
  Ptr<const T> notifier() const { return Ptr<const T>(notifier_); }

  // Moves this observer to `n` (null: to no notifier).
  void notifierIs(const Ptr<const T>& n) { notifierIs(n.ptr()); }
  void notifierIs(const T* n) {
    if (n == notifier_) return;
    unregister();
    notifier_ = n;
    enroll();
  }

  bool isRegisteredNotifiee() const { return registeredWanted_; }
  void isRegisteredNotifieeIs(bool v) {
    if (v == registeredWanted_) return;
    registeredWanted_ = v;
    if (v)
      enroll();
    else
      unregister();
  }

  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool v) { active_ = v; }

 protected:
  NotifieeConst() = default;
  ~NotifieeConst() override { unregister(); }

 private:
  friend class NotifieeList<T>;
  void enroll() {
    if (notifier_ && registeredWanted_ && !enrolled_) {
      notifier_->notifiees().add(this);
      enrolled_ = true;
    }
  }
  void unregister() {
    if (notifier_ && enrolled_) notifier_->notifiees().remove(this);
    enrolled_ = false;
  }
  void notifierGone() {
    enrolled_ = false;
    notifier_ = nullptr;
  }

  const T* notifier_ = nullptr;
  bool registeredWanted_ = true;
  bool enrolled_ = false;
  bool active_ = true;
};

}  // namespace Kel
