// Processing status of the DAL channels of one agent: per DAL id, the index of the last
// command the channel's requester enqueued, whether command-status tracking is in progress
// for it, and whether the serializer tracks errors of its commands.
//
//   auto col = Kel::allocate<DalProcessingStatusCol>();
//   Kel::Ptr<DalProcessingStatus> s = col->processingStatusIs(DalId(0));
#pragma once

#include <map>

#include "Kel/Entity.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT DalProcessingStatus : public Kel::Entity {
  KEL_ENTITY_TYPE(DalProcessingStatus)

 public:
  explicit DalProcessingStatus(DalId dalId) : dalId_(dalId) {}
  DalId dalId() const { return dalId_; }

  // The index of the last command enqueued on this channel (0 before the first).
  U64 lastEnqueuedCmdIndex() const { return lastEnqueuedCmdIndex_; }
  void lastEnqueuedCmdIndexIs(U64 v) { lastEnqueuedCmdIndex_ = v; }
  // Set while an agent tracks the commands this channel enqueues.
  bool cmdStatusTracking() const { return cmdStatusTracking_; }
  void cmdStatusTrackingIs(bool v) { cmdStatusTracking_ = v; }
  // When set, the serializer records the failures of this channel's commands.
  bool errorTracking() const { return errorTracking_; }
  void errorTrackingIs(bool v) { errorTracking_ = v; }

 private:
  DalId dalId_;
  U64 lastEnqueuedCmdIndex_ = 0;
  bool cmdStatusTracking_ = false;
  bool errorTracking_ = false;
};

// The processing statuses of every DAL channel, keyed (and iterated) by DAL id.
class KEL_EXPORT DalProcessingStatusCol : public Kel::Entity {
  KEL_ENTITY_TYPE(DalProcessingStatusCol)

 public:
  using Map = std::map<DalId, Kel::Ptr<DalProcessingStatus>>;

  // The entry of `dalId`, created when absent.
  Kel::Ptr<DalProcessingStatus> processingStatusIs(DalId dalId);
  // The entry of `dalId`, or null.
  Kel::Ptr<DalProcessingStatus> processingStatus(DalId dalId) const;
  void processingStatusDel(DalId dalId) { statuses_.erase(dalId); }
  const Map& processingStatuses() const { return statuses_; }

 private:
  Map statuses_;
};

}  // namespace Zorvek
