// Zorvek::SchanBackend: the device end of the local S-channel, the direct path from an
// agent to the chip's tables and registers. The chip (or its simulation) implements it
// and registers itself process-wide; S-channel requesters (Zorvek/SchanRequester.h) issue
// their commands on the registered backend and are ready while there is one.
//
//   class Chip : public Zorvek::SchanBackend { ... };          // the four accesses
//   Zorvek::schanBackendIs(Kel::allocate<Chip>(...));          // requesters become ready
//   Zorvek::schanBackendIs(nullptr);                           // ... and not ready again
//
// A serializer that executes queued commands on the chip can hand each one to
// commandExecute(), which issues it on every device it targets.
//
// Used from the agents' activity thread only.
#pragma once

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Zorvek/RequesterQueue.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT SchanBackend : public Kel::Entity {
  KEL_ENTITY_TYPE(SchanBackend)

 public:
  // Each access returns 0 on success, negative when the device refuses it (no such
  // resource, offset or size out of range).
  //
  // Reads `size` bytes at `offset` into `data`.
  virtual S32 read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset, void* data,
                   U32 size) = 0;
  // Writes `size` bytes at `offset` on behalf of agent `agentId` (who then owns the
  // entry). A null `dataMask` writes every bit; otherwise only the bits set in the mask
  // byte of each data byte are written.
  virtual S32 write(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                    const void* data, const void* dataMask, U32 size, AgentId agentId) = 0;
  // Moves numEntries entries of entrySize bytes from `offset` to the memory behind
  // `physAddr`.
  virtual S32 bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                       PhysicalAddr physAddr, U32 entrySize, U32 numEntries) = 0;
  // Writes numEntries entries of entrySize bytes at `offset`, taken from `data` or, when it
  // is null, from the memory behind `physAddr`.
  virtual S32 bulkWrite(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                        PhysicalAddr physAddr, const void* data, U32 entrySize, U32 numEntries,
                        AgentId agentId) = 0;

  // Issues a queued command: a write or bulk write on every device of its target mask
  // (stopping at the first refusal), a read (filling cmd.data) or a bulk read on its
  // device. A free is not an S-channel command (entry ownership is the serializer's
  // business) and is refused. Returns 0, or negative on refusal.
  S32 commandExecute(QueueCommand& cmd, AgentId agentId);

 protected:
  ~SchanBackend() override;
};

// The process-wide registration point of the backend.
class KEL_EXPORT SchanBackendRegistry : public Kel::Entity {
  KEL_ENTITY_TYPE(SchanBackendRegistry)

 public:
  class NotifieeConst : public Kel::NotifieeConst<SchanBackendRegistry> {
   public:
    virtual void onBackend() {}
  };

  SchanBackendRegistry() = default;
  // The registered backend, or null.
  const Kel::Ptr<SchanBackend>& backend() const { return backend_; }
  // Registers (null: unregisters) a backend; notifies only on change.
  void backendIs(const Kel::Ptr<SchanBackend>& backend);

  Kel::NotifieeList<SchanBackendRegistry>& notifiees() const { return notifiees_; }

 protected:
  ~SchanBackendRegistry() override;

 private:
  Kel::Ptr<SchanBackend> backend_;
  mutable Kel::NotifieeList<SchanBackendRegistry> notifiees_;
};

// The registry of the process (created on first use, never destroyed).
KEL_EXPORT SchanBackendRegistry& schanBackendRegistry();
// Shorthands for schanBackendRegistry().backendIs(...) / backend().
KEL_EXPORT void schanBackendIs(const Kel::Ptr<SchanBackend>& backend);
KEL_EXPORT const Kel::Ptr<SchanBackend>& schanBackend();

}  // namespace Zorvek
