#include "Skorra/ReadOnlyDir.h"

#include "Skorra/MountGroup.h"

namespace Skorra {

KEL_DEFINE_ENTITY_TYPE(ReadOnlyDir, "Skorra::ReadOnlyDir")

// Keeps the view in step with its target.
class ReadOnlyDir::KelTarget : public Kel::Dir::NotifieeConst {
 public:
  explicit KelTarget(ReadOnlyDir* view) : view_(view) {}
  void onEntity(const Kel::String& name) override { view_->handleEntity(name); }

 private:
  ReadOnlyDir* view_;  // the owner; never owning
};

ReadOnlyDir::ReadOnlyDir(Kel::String path, Kel::String mode, Kel::Ptr<const Kel::Dir> target)
    : Kel::Dir(target->name()),
      path_(std::move(path)),
      mode_(std::move(mode)),
      target_(std::move(target)) {
  for (const auto& [name, child] : *target_) doEntityIs(name, viewOf(name, child));
  kelTarget_ = Kel::allocate<KelTarget>(this);
  kelTarget_->notifierIs(target_);
}

ReadOnlyDir::~ReadOnlyDir() { kelTarget_->notifierIs(nullptr); }

void ReadOnlyDir::writeCheck(const Kel::String& name) const {
  const Kel::String path = childPath(name);
  throw MountError(
      path, mode_,
      "Skorra: cannot write \"" + path + "\": mounted read-only (mode \"" + mode_ + "\")");
}

void ReadOnlyDir::handleEntity(const Kel::String& name) {
  const Kel::Ptr<Kel::Entity> child = target_->entity(name);
  if (!child) return doEntityDel(name);
  const Kel::Ptr<Kel::Entity> held = entity(name);
  const auto* heldView = dynamic_cast<const ReadOnlyDir*>(held.ptr());
  if (heldView && heldView->target_ == child) return;
  doEntityIs(name, viewOf(name, child));
}

Kel::Ptr<Kel::Entity> ReadOnlyDir::viewOf(const Kel::String& name,
                                          const Kel::Ptr<Kel::Entity>& child) const {
  if (auto dir = Kel::dynamicPtrCast<const Kel::Dir>(child))
    return Kel::allocate<ReadOnlyDir>(childPath(name), mode_, dir);
  return child;
}

Kel::String ReadOnlyDir::childPath(const Kel::String& name) const {
  return path_.empty() ? name : Kel::String(path_ + "/" + name);
}

}  // namespace Skorra
