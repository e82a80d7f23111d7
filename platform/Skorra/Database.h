// Skorra::Database: the in-memory state database of the process, a tree of entities whose
// inner nodes are Kel::Dir directories, addressed by path ("a/b/c"). Every agent of the
// process shares the default database; tests make their own.
//
//   Kel::Ptr<Skorra::Database> db = Skorra::defaultDatabase();
//   db->dirIs("serializer/s0/config");                 // creates every missing directory
//   db->entityIs("platform/debug/watchlist", watchList);
//   Kel::Ptr<Kel::Entity> e = db->entity("platform/debug/watchlist");
//
// Paths: names separated by '/'; empty names (leading, trailing or doubled '/') are
// skipped, so "" and "/" name the root directory. Agents normally reach the database
// through the mounts of a Skorra::MountGroup, which also enforce read-only access.
//
// Used from the agents' activity thread only.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/String.h"

namespace Skorra {

// A path that cannot be walked or created: a name along it holds an entity that is not a
// directory, or the path names no entry at all where one is required. The message names
// the path: "\"a/b\" holds an entity of type Orv::WatchList, not a directory".
class KEL_EXPORT PathError : public std::runtime_error {
 public:
  PathError(Kel::String path, const std::string& what)
      : std::runtime_error(what), path_(std::move(path)) {}
  const Kel::String& path() const { return path_; }

 private:
  Kel::String path_;
};

// The names of a path, in order (empty names skipped).
KEL_EXPORT std::vector<Kel::String> pathNames(std::string_view path);
// The path of those names, joined with '/'.
KEL_EXPORT Kel::String pathOf(const std::vector<Kel::String>& names, std::size_t count);

class Backend;

class KEL_EXPORT Database : public Kel::Entity {
  KEL_ENTITY_TYPE(Database)

 public:
  Database();
  const Kel::Ptr<Kel::Dir>& root() const { return root_; }

  // The entity at `path`, or null when a name along it is absent or is not a directory.
  Kel::Ptr<Kel::Entity> entity(std::string_view path) const;
  // The directory at `path`, created with every missing directory above it. Throws
  // PathError when a name along the path (or the path itself) holds a non-directory.
  Kel::Ptr<Kel::Dir> dirIs(std::string_view path);
  // Stores `entity` at `path` (a null entity removes it), creating the directories above
  // it. Throws PathError for the root path or a non-directory along the path.
  void entityIs(std::string_view path, const Kel::Ptr<Kel::Entity>& entity);
  // Removes the entry at `path`; nothing happens when there is none.
  void entityDel(std::string_view path);

  // Where the database shares its entities with other processes (Skorra/Backend.h); null
  // for a database of this process alone.
  const Kel::Ptr<Backend>& backend() const { return backend_; }
  void backendIs(Kel::Ptr<Backend> backend);

 protected:
  ~Database() override;

 private:
  Kel::Ptr<Kel::Dir> parentDirIs(std::string_view path, Kel::String& leaf);
  Kel::Ptr<Kel::Dir> root_;
  Kel::Ptr<Backend> backend_;
};

// The database shared by every agent of the process (created on first use, never
// destroyed, so that entities outlive any agent torn down during unload).
KEL_EXPORT const Kel::Ptr<Database>& defaultDatabase();

}  // namespace Skorra
