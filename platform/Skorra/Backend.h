// Skorra::Backend: where a state database keeps what it shares with the agents of other
// processes. A database without a backend (the default) lives in its process alone; with
// one, each mount of the database's MountGroups first asks the backend to bring the entities
// at the mount's path into the database and to keep them in step from then on: changes made
// elsewhere are applied here through the entities' ordinary setters, changes made here under
// a writable mount are shared.
//
//   auto db = Kel::allocate<Skorra::Database>();
//   db->backendIs(backend);                  // before the first mount completes
//   auto group = Kel::allocate<Skorra::MountGroup>(db);
//
// Used from the agent's activity thread only.
#pragma once

#include <stdexcept>
#include <string>

#include "Kel/Entity.h"
#include "Skorra/MountGroup.h"

namespace Skorra {

// A shared state database that cannot be reached or used: a malformed address, a server
// that does not answer or refuses a command, a connection lost for good. The message names
// the database's address.
class KEL_EXPORT DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KEL_EXPORT Backend : public Kel::Entity {
 public:
  // Called by a mount group before it binds `mount` to an entity of `database`. Throws
  // DatabaseError when the shared store cannot be used, MountError for a mount it cannot
  // share.
  virtual void mountIs(Database& database, const Mount& mount) = 0;

 protected:
  ~Backend() override = default;
};

}  // namespace Skorra
