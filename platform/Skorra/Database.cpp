#include "Skorra/Database.h"

#include "Skorra/Backend.h"

namespace Skorra {

KEL_DEFINE_ENTITY_TYPE(Database, "Skorra::Database")

std::vector<Kel::String> pathNames(std::string_view path) {
  std::vector<Kel::String> names;
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (end > start) names.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return names;
}

Kel::String pathOf(const std::vector<Kel::String>& names, std::size_t count) {
  Kel::String path;
  for (std::size_t i = 0; i < count && i < names.size(); ++i) {
    if (i) path += '/';
    path += names[i];
  }
  return path;
}

Database::Database() : root_(Kel::allocate<Kel::Dir>(Kel::Name(""))) {}

Database::~Database() = default;

void Database::backendIs(Kel::Ptr<Backend> backend) { backend_ = std::move(backend); }

Kel::Ptr<Kel::Entity> Database::entity(std::string_view path) const {
  Kel::Ptr<Kel::Entity> current = root_;
  for (const Kel::String& name : pathNames(path)) {
    const auto* dir = dynamic_cast<const Kel::Dir*>(current.ptr());
    if (!dir) return nullptr;
    current = dir->entity(name);
  }
  return current;
}

Kel::Ptr<Kel::Dir> Database::dirIs(std::string_view path) {
  const std::vector<Kel::String> names = pathNames(path);
  Kel::Ptr<Kel::Dir> dir = root_;
  for (std::size_t i = 0; i < names.size(); ++i) {
    Kel::Ptr<Kel::Entity> child = dir->entity(names[i]);
    if (!child) {
      child = Kel::allocate<Kel::Dir>(Kel::Name(names[i]));
      dir->entityIs(names[i], child);
    }
    dir = Kel::dynamicPtrCast<Kel::Dir>(child);
    if (!dir) {
      const Kel::String at = pathOf(names, i + 1);
      throw PathError(at, "\"" + at + "\" holds an entity of type " + child->fwkType().name() +
                              ", not a directory");
    }
  }
  return dir;
}

Kel::Ptr<Kel::Dir> Database::parentDirIs(std::string_view path, Kel::String& leaf) {
  std::vector<Kel::String> names = pathNames(path);
  if (names.empty()) throw PathError("", "the root directory cannot be replaced");
  leaf = names.back();
  return dirIs(pathOf(names, names.size() - 1));
}

void Database::entityIs(std::string_view path, const Kel::Ptr<Kel::Entity>& entity) {
  Kel::String leaf;
  Kel::Ptr<Kel::Dir> parent = parentDirIs(path, leaf);
  parent->entityIs(leaf, entity);
}

void Database::entityDel(std::string_view path) {
  std::vector<Kel::String> names = pathNames(path);
  if (names.empty()) return;
  auto parent = Kel::dynamicPtrCast<Kel::Dir>(entity(pathOf(names, names.size() - 1)));
  if (parent) parent->entityDel(names.back());
}

const Kel::Ptr<Database>& defaultDatabase() {
  // Never destroyed: agents torn down during unload may still release entities into it.
  static const Kel::Ptr<Database>* db = new Kel::Ptr<Database>(Kel::allocate<Database>());
  return *db;
}

}  // namespace Skorra
