#include "Zorvek/Requester.h"

#include <cstdio>

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(Requester, "Zorvek::Requester")

Requester::Requester(Kel::String name, AgentId agentId, DalId dalId,
                     Kel::Ptr<DalProcessingStatus> processingStatus)
    : name_(std::move(name)),
      agentId_(agentId),
      dalId_(dalId),
      processingStatus_(std::move(processingStatus)) {}

Requester::~Requester() = default;

void Requester::readyIs(bool v) { notifiees_.store(ready_, v, &NotifieeConst::onReady); }

void Requester::serializerRestartCountIs(U64 v) {
  notifiees_.store(serializerRestartCount_, v, &NotifieeConst::onSerializerRestartCount);
}

U64 Requester::takeCmdIndex() {
  const U64 index = cmdIndex_++;
  if (processingStatus_) processingStatus_->lastEnqueuedCmdIndexIs(index);
  return index;
}

void Requester::showRequesterState(U32 fd) const {
  dprintf(static_cast<int>(fd), "'name':'%s','agentId':%u,'dalId':%u,'ready':%s,'cmdIndex':%llu,",
          name_.c_str(), static_cast<unsigned>(agentId_), static_cast<unsigned>(dalId_.value()),
          ready_ ? "True" : "False", static_cast<unsigned long long>(cmdIndex_));
}

}  // namespace Zorvek
