#include "Zorvek/SchanBackend.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(SchanBackend, "Zorvek::SchanBackend")
KEL_DEFINE_ENTITY_TYPE(SchanBackendRegistry, "Zorvek::SchanBackendRegistry")

SchanBackend::~SchanBackend() = default;

S32 SchanBackend::commandExecute(QueueCommand& cmd, AgentId agentId) {
  const U8* mask = cmd.dataMask.empty() ? nullptr : cmd.dataMask.data();
  const U8* data = cmd.data.empty() ? nullptr : cmd.data.data();
  const TargetMask& targets = cmd.targets;
  S32 rc = 0;
  switch (cmd.command) {
    case Command::readCmd_:
      cmd.data.resize(cmd.size);
      return read(cmd.devId(), cmd.resourceId, cmd.offset, cmd.data.data(), cmd.size);
    case Command::bulkReadCmd_:
      return bulkRead(cmd.devId(), cmd.resourceId, cmd.offset, cmd.physAddr, cmd.entrySize,
                      cmd.numEntries);
    case Command::writeCmd_:
    case Command::blockingWriteCmd_:
      if (cmd.data.size() < cmd.size) return -1;
      for (DeviceId d = targets.firstDevice(); !d.isNull() && rc >= 0;
           d = targets.fapmask().nextFapId(d))
        rc = write(d, cmd.resourceId, cmd.offset, data, mask, cmd.size, agentId);
      return rc;
    case Command::bulkWriteCmd_:
      for (DeviceId d = targets.firstDevice(); !d.isNull() && rc >= 0;
           d = targets.fapmask().nextFapId(d))
        rc = bulkWrite(d, cmd.resourceId, cmd.offset, cmd.physAddr, data, cmd.entrySize,
                       cmd.numEntries, agentId);
      return rc;
    case Command::freeCmd_:
      break;
  }
  return -1;
}

SchanBackendRegistry::~SchanBackendRegistry() = default;

void SchanBackendRegistry::backendIs(const Kel::Ptr<SchanBackend>& backend) {
  notifiees_.store(backend_, backend, &NotifieeConst::onBackend);
}

SchanBackendRegistry& schanBackendRegistry() {
  // Never destroyed: requesters torn down during unload still unregister from it.
  static SchanBackendRegistry* registry = Kel::allocate<SchanBackendRegistry>().release();
  return *registry;
}

void schanBackendIs(const Kel::Ptr<SchanBackend>& backend) {
  schanBackendRegistry().backendIs(backend);
}

const Kel::Ptr<SchanBackend>& schanBackend() { return schanBackendRegistry().backend(); }

}  // namespace Zorvek
