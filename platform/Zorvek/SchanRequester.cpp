#include "Zorvek/SchanRequester.h"

#include <algorithm>
#include <cstdio>

#include "Duwisp/Duwisp.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(SchanRequester, "Zorvek::SchanRequester")

namespace {

KEL_FILE_TRACE_HANDLE("ZorvekSchanRequester")

}  // namespace

// Follows the process's backend registration.
class SchanRequester::KelBackendRegistry : public SchanBackendRegistry::NotifieeConst {
 public:
  explicit KelBackendRegistry(SchanRequester* requester) : requester_(requester) {}
  void onBackend() override { requester_->handleBackend(); }

 private:
  SchanRequester* requester_;  // the owner; never owning
};

bool SchanRequester::BackendConsumer::commandExecute(const RequesterQueue&, QueueCommand& cmd) {
  const Kel::Ptr<SchanBackend>& backend = schanBackend();
  return backend && backend->commandExecute(cmd, owner_) >= 0;
}

SchanRequester::SchanRequester(Kel::String name, AgentId agentId, unsigned int queueSize,
                               DalId dalId, const Kel::Ptr<DalProcessingStatus>& status,
                               const Kel::Ptr<Orv::WatchList>& watchList, unsigned int ownerAgentId)
    : Requester(std::move(name), agentId, dalId, status),
      ownerAgentId_(ownerAgentId),
      consumer_(static_cast<AgentId>(ownerAgentId)),
      heldBack_(Kel::allocate<RequesterQueue>(this->name(), agentId, dalId, queueSize,
                                              IoMemType::queueMemory_)),
      watchLog_(watchList) {
  KEL_ASSERT(ownerAgentId <= kInvalidAgentId);
  DUWISP_TRACE(th(), 1, "SchanRequester %s dalId %s queueSize %s ownerAgentId %s", this->name(),
               dalId, queueSize, ownerAgentId);
  kelBackendRegistry_ = Kel::allocate<KelBackendRegistry>(this);
  kelBackendRegistry_->notifierIs(&schanBackendRegistry());
  handleBackend();
}

SchanRequester::~SchanRequester() { kelBackendRegistry_->notifierIs(nullptr); }

void SchanRequester::handleBackend() {
  const bool present = schanBackend() != nullptr;
  DUWISP_TRACE(th(), 6, "handleBackend %s backend %s", name(), present);
  heldBack_->consumerIs(present ? &consumer_ : nullptr);
  issueHeldBack();
  readyIs(present);
}

bool SchanRequester::canIssue(const TargetMask& targets) const {
  if (!schanBackend()) return false;
  const Kel::Ptr<CoprocessorChecker>& checker = coprocessorChecker();
  if (!checker) return true;
  for (DeviceId d = targets.firstDevice(); !d.isNull(); d = targets.fapmask().nextFapId(d))
    if (checker->deviceBlocked(d)) return false;
  return true;
}

void SchanRequester::issueHeldBack() {
  while (const QueueCommand* next = heldBack_->front()) {
    if (!canIssue(next->targets) || !heldBack_->drain(next->cmdIndex)) return;
  }
}

S64 SchanRequester::submit(CommandHeader header, const void* data, U32 dataBytes, const void* mask,
                           U32 maskBytes, bool immediate, void* readData) {
  issueHeldBack();
  if (immediate && (heldBack_->depth() || !canIssue(header.targets))) {
    DUWISP_TRACE(th(), 3, "SchanRequester::%s %s cannot be issued now: backend %s heldBack %s",
                 commandName(header.command), name(), bool(schanBackend()), heldBack_->depth());
    return -1;
  }
  if (heldBack_->full()) {
    DUWISP_TRACE(th(), 3, "SchanRequester::%s %s held-back queue full", commandName(header.command),
                 name());
    return -1;
  }
  header.cmdIndex = takeCmdIndex();
  const U64 index = header.cmdIndex;
  const bool queued = heldBack_->enqueue(header, data, dataBytes, mask, maskBytes);
  KEL_ASSERT(queued);
  watchLog_.commandIs(header.command, header.targets, header.resourceId, header.offset,
                      header.bytes(), index);
  DUWISP_TRACE(th(), 9, "SchanRequester::%s %s cmdIndex %s offset 0x%x",
               commandName(header.command), name(), index, header.offset);
  bool failed;
  if (header.command == Command::readCmd_) {
    failed = !heldBack_->drainRead(index, readData, header.size);
  } else {
    issueHeldBack();
    failed = heldBack_->lastFailedCmdIndex() == index ||
             (immediate && heldBack_->lastCompletedCmdIndex() < index);
  }
  if (!failed) return static_cast<S64>(index);
  DUWISP_TRACE(th(), 3, "SchanRequester::%s %s cmdIndex %s failed", commandName(header.command),
               name(), index);
  return -1;
}

S64 SchanRequester::read(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                         void* data, U32 size) {
  return submit(singleCommand(Command::readCmd_, oneDeviceMask(devId), rid, offset, size), nullptr,
                0, nullptr, 0, true, data);
}

S64 SchanRequester::write(const TargetMask& targets, const PhysicalResourceId& rid,
                          DeviceOffset offset, void* data, const void* dataMask, U32 size,
                          bool reclaimWhenProgrammed) {
  return submit(
      singleCommand(Command::writeCmd_, targets, rid, offset, size, reclaimWhenProgrammed), data,
      size, dataMask, dataMask ? size : 0, false, nullptr);
}

S64 SchanRequester::blockingWrite(const TargetMask& targets, const PhysicalResourceId& rid,
                                  DeviceOffset offset, void* data, const void* dataMask, U32 size,
                                  bool reclaimWhenProgrammed) {
  return submit(
      singleCommand(Command::blockingWriteCmd_, targets, rid, offset, size, reclaimWhenProgrammed),
      data, size, dataMask, dataMask ? size : 0, true, nullptr);
}

S64 SchanRequester::bulkRead(DeviceId devId, const PhysicalResourceId& rid, DeviceOffset offset,
                             const PhysicalAddr& physAddr, U32 entrySize, U32 numEntries) {
  return submit(bulkCommand(Command::bulkReadCmd_, oneDeviceMask(devId), rid, offset, physAddr,
                            entrySize, numEntries),
                nullptr, 0, nullptr, 0, false, nullptr);
}

S64 SchanRequester::bulkWrite(const TargetMask& targets, const PhysicalResourceId& rid,
                              DeviceOffset offset, const PhysicalAddr& physAddr, const void* data,
                              U32 entrySize, U32 numEntries) {
  return submit(
      bulkCommand(Command::bulkWriteCmd_, targets, rid, offset, physAddr, entrySize, numEntries),
      data, data ? entrySize * numEntries : 0, nullptr, 0, false, nullptr);
}

void SchanRequester::waitForCmdIndex(U64 index) {
  issueHeldBack();
  if (index >= cmdIndex() || index <= heldBack_->lastCompletedCmdIndex()) return;
  DUWISP_TRACE(th(), 3, "SchanRequester::waitForCmdIndex %s cmdIndex %s is held back", name(),
               index);
}

void SchanRequester::attachCoprocessor(const Corvane::Coprocessor& coprocessor) {
  if (!coprocessor.valid()) {
    DUWISP_TRACE(th(), 3, "attachCoprocessor %s ignoring %s", name(), coprocessor);
    return;
  }
  DUWISP_TRACE(th(), 0, "attachCoprocessor %s %s", name(), coprocessor);
  auto it = std::find_if(attached_.begin(), attached_.end(), [&](const Corvane::Coprocessor& c) {
    return c.coprocessorId() == coprocessor.coprocessorId();
  });
  if (it != attached_.end())
    *it = coprocessor;
  else
    attached_.push_back(coprocessor);
}

void SchanRequester::detachCoprocessor(const Corvane::Coprocessor& coprocessor) {
  auto it = attached_.end();
  if (coprocessor.valid())
    it = std::find_if(attached_.begin(), attached_.end(), [&](const Corvane::Coprocessor& c) {
      return c.coprocessorId() == coprocessor.coprocessorId();
    });
  else if (attached_.size() == 1)
    it = attached_.begin();
  if (it == attached_.end()) {
    ++unidentifiedDetaches_;
    DUWISP_TRACE(th(), 3, "detachCoprocessor %s %s identifies none of %s attached", name(),
                 coprocessor, attached_.size());
    return;
  }
  DUWISP_TRACE(th(), 0, "detachCoprocessor %s %s", name(), *it);
  attached_.erase(it);
}

void SchanRequester::showRequesterState(U32 fd) const {
  const int out = static_cast<int>(fd);
  Requester::showRequesterState(fd);
  dprintf(out, "'ownerAgentId':%u,'backend':%s,'heldBack':{", ownerAgentId_,
          schanBackend() ? "True" : "False");
  heldBack_->show(out);
  dprintf(out, "},'attachedCoprocessors':{");
  for (const Corvane::Coprocessor& c : attached_)
    dprintf(out, "'%u':{'coprocessorId':%u,'genId':%llu,},", c.coprocessorId(), c.coprocessorId(),
            static_cast<unsigned long long>(c.genId()));
  dprintf(out, "},'unidentifiedDetaches':%llu,",
          static_cast<unsigned long long>(unidentifiedDetaches_));
  watchLog_.show(out);
}

}  // namespace Zorvek
