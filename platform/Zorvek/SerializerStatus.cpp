#include "Zorvek/SerializerStatus.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(SerializerStatus, "Zorvek::SerializerStatus")

SerializerStatus::~SerializerStatus() = default;

void SerializerStatus::servedQueueIs(const Kel::String& name) {
  writeCheck(*this, "servedQueue");
  if (!servedQueues_.insert(name).second) return;
  notifiees_.visit(&NotifieeConst::onServedQueue, name);
}

void SerializerStatus::servedQueueDel(const Kel::String& name) {
  writeCheck(*this, "servedQueue");
  if (!servedQueues_.erase(name)) return;
  notifiees_.visit(&NotifieeConst::onServedQueue, name);
}

void SerializerStatus::restartCountIs(U64 v) {
  writeCheck(*this, "restartCount");
  notifiees_.store(restartCount_, v, &NotifieeConst::onRestartCount);
}

}  // namespace Zorvek
