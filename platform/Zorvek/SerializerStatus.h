// Zorvek::SerializerStatus: what a serializer publishes in its status directory, under the
// name SerializerStatus::kEntryName, for the requesters that send it commands: the names
// of the queues it serves and how many times it has restarted.
//
//   auto status = Kel::allocate<Zorvek::SerializerStatus>(Kel::Name("s0"));
//   statusDir->entityIs(Kel::String(Zorvek::SerializerStatus::kEntryName), status);
//   status->servedQueueIs("agent1-s0-Queue");   // that requester becomes ready
//   status->restartCountInc(1);                // requesters follow the new count
//
// A QueueRequester is ready while the status in its serializer's status directory serves
// its queue, and takes the status's restart count as its serializerRestartCount.
//
// Used from the agents' activity thread only.
#pragma once

#include <set>
#include <string_view>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Kel/WriteGuard.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT SerializerStatus : public Kel::Entity, public Kel::WriteGuarded {
  KEL_ENTITY_TYPE(SerializerStatus)

 public:
  // The name of the status in the serializer's status directory.
  static constexpr std::string_view kEntryName = "serializerStatus";

  class NotifieeConst : public Kel::NotifieeConst<SerializerStatus> {
   public:
    // The queue `name` started or stopped being served.
    virtual void onServedQueue(const Kel::String& name) { (void)name; }
    virtual void onRestartCount() {}
  };

  explicit SerializerStatus(Kel::Name name) : name_(std::move(name)) {}
  // The serializer's name.
  const Kel::Name& name() const { return name_; }

  bool servedQueue(const Kel::String& name) const { return servedQueues_.count(name) != 0; }
  // Adds / removes a served queue; notifies only on change.
  void servedQueueIs(const Kel::String& name);
  void servedQueueDel(const Kel::String& name);
  const std::set<Kel::String>& servedQueues() const { return servedQueues_; }

  U64 restartCount() const { return restartCount_; }
  // Notifies only on change.
  void restartCountIs(U64 v);
  void restartCountInc(U64 delta) { restartCountIs(restartCount_ + delta); }

  Kel::NotifieeList<SerializerStatus>& notifiees() const { return notifiees_; }

 protected:
  ~SerializerStatus() override;

 private:
  Kel::Name name_;
  std::set<Kel::String> servedQueues_;
  U64 restartCount_ = 0;
  mutable Kel::NotifieeList<SerializerStatus> notifiees_;
};

}  // namespace Zorvek
