// Skorra::ReadOnlyDir: the read-only view of a directory that a read-only mount hands out
// (see Skorra/MountGroup.h for the design).
//
// The view holds the same entries as its target, except that each child directory appears
// as a read-only view of its own. It follows the target: every change of the target is
// applied to the view, which notifies its own observers. Writes through the view
// (entityIs, entityDel) throw MountError naming the entry's path and the mount's mode.
//
// Used from the agent's activity thread only.
#pragma once

#include "Kel/Dir.h"
#include "Kel/String.h"

namespace Skorra {

class KEL_EXPORT ReadOnlyDir : public Kel::Dir {
  KEL_ENTITY_TYPE(ReadOnlyDir)

 public:
  // A view of `target`, found at `path` and mounted with `mode`.
  ReadOnlyDir(Kel::String path, Kel::String mode, Kel::Ptr<const Kel::Dir> target);
  const Kel::String& path() const { return path_; }
  const Kel::String& mode() const { return mode_; }
  const Kel::Ptr<const Kel::Dir>& target() const { return target_; }

 protected:
  ~ReadOnlyDir() override;
  // Always throws MountError.
  void writeCheck(const Kel::String& name) const override;

 private:
  class KelTarget;
  // Brings the entry `name` in line with the target.
  void handleEntity(const Kel::String& name);
  // What the view holds for the target's child `child` under `name`.
  Kel::Ptr<Kel::Entity> viewOf(const Kel::String& name, const Kel::Ptr<Kel::Entity>& child) const;
  Kel::String childPath(const Kel::String& name) const;

  Kel::String path_;
  Kel::String mode_;
  Kel::Ptr<const Kel::Dir> target_;
  Kel::Ptr<KelTarget> kelTarget_;
};

}  // namespace Skorra
