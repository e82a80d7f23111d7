// Skorra::EntityCodec: how the state database keeps an entity of a shared type in Redis: as
// a hash of fields (an attribute per field, an element of a collection per field), rebuilt
// in another process through the entity's constructor and its ordinary setters.
//
//   const Skorra::EntityCodec* codec = Skorra::entityCodec("Zorvek::SerializerStatus");
//   Skorra::Fields f = codec->fields(*status);          // {"q:a7-s1-Queue": "", "restartCount":
//   "2"} codec->fieldsIs(*replica, f);                       // setters: observers hear each change
//
// The shared types: Zorvek::SerializerStatus, Zorvek::RequesterQueue (its registration:
// owner, channel, size, memory type), Orv::WatchList and Corvane::CoprocessorStatusAttrLog.
// Directories are the backend's own business (Skorra/RedisBackend.h).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "Kel/Entity.h"
#include "Kel/String.h"
#include "Kel/WriteGuard.h"

namespace Skorra {

using Fields = std::map<std::string, std::string>;

class KEL_EXPORT EntityCodec {
 public:
  using Changed = std::function<void(const std::string& field)>;

  // A new entity named `name` holding `fields`. Throws DatabaseError for a field that does
  // not parse.
  virtual Kel::Ptr<Kel::Entity> entityNew(const Kel::String& name, const Fields& fields) const = 0;
  // The entity's whole state.
  virtual Fields fields(const Kel::Entity& entity) const = 0;
  // Brings the entity to `fields` through its setters, so that its observers hear each
  // change once. False, changing nothing, when an attribute fixed at construction differs:
  // the entity must then be replaced.
  virtual bool fieldsIs(Kel::Entity& entity, const Fields& fields) const = 0;
  // An observer calling `changed(field)` after each change of the entity; null for a type
  // that does not change after construction.
  virtual Kel::Ptr<Kel::Entity> observerNew(const Kel::Entity& entity, Changed changed) const = 0;
  // The entity's guard against writes, or null for a type that does not change.
  virtual Kel::WriteGuarded* guarded(Kel::Entity& entity) const = 0;

 protected:
  ~EntityCodec() = default;
};

// The codec of the type named `typeName`, or null when that type is not shared.
KEL_EXPORT const EntityCodec* entityCodec(std::string_view typeName);

}  // namespace Skorra
