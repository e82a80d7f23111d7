// Orv::WatchList: the platform's debug watch list, published in the state database at
// "platform/debug/watchlist" and handed to every requester: the (device, resource) pairs
// whose accesses a developer wants to follow. Orv::WatchLog is what a requester keeps of
// it: a small bounded log of the commands it issued that touch a watched pair.
//
//   watchList->watchIs(DeviceId(0), PhysicalResourceId(ResourceType::tableResource_, 7));
//   Orv::WatchLog log(watchList);
//   log.commandIs(Command::writeCmd_, targets, rid, offset, size, cmdIndex);
//   log.records();   // the latest kCapacity watched commands, oldest first
//
// Used from the agents' activity thread only.
#pragma once

#include <cstddef>
#include <deque>
#include <set>
#include <utility>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Kel/WriteGuard.h"
#include "ZorvekTypes/Types.h"

namespace Orv {

class KEL_EXPORT WatchList : public Kel::Entity, public Kel::WriteGuarded {
  KEL_ENTITY_TYPE(WatchList)

 public:
  using Watch = std::pair<Zorvek::DeviceId, Zorvek::PhysicalResourceId>;

  class NotifieeConst : public Kel::NotifieeConst<WatchList> {
   public:
    // The pair started or stopped being watched.
    virtual void onWatch(const Watch& watch) { (void)watch; }
  };

  explicit WatchList(Kel::Name name) : name_(std::move(name)) {}
  const Kel::Name& name() const { return name_; }

  bool watch(Zorvek::DeviceId devId, const Zorvek::PhysicalResourceId& rid) const {
    return !watches_.empty() && watches_.count(Watch(devId, rid)) != 0;
  }
  // Adds / removes a pair; notifies only on change.
  void watchIs(Zorvek::DeviceId devId, const Zorvek::PhysicalResourceId& rid);
  void watchDel(Zorvek::DeviceId devId, const Zorvek::PhysicalResourceId& rid);
  const std::set<Watch>& watchCol() const { return watches_; }

  Kel::NotifieeList<WatchList>& notifiees() const { return notifiees_; }

 protected:
  ~WatchList() override;

 private:
  Kel::Name name_;
  std::set<Watch> watches_;
  mutable Kel::NotifieeList<WatchList> notifiees_;
};

class KEL_EXPORT WatchLog {
 public:
  static constexpr std::size_t kCapacity = 64;

  struct Record {
    Zorvek::Command command;
    Zorvek::DeviceId devId;
    Zorvek::PhysicalResourceId resourceId;
    Zorvek::DeviceOffset offset;
    Zorvek::U32 size;
    Zorvek::U64 cmdIndex;
    friend bool operator==(const Record&, const Record&) = default;
  };

  // A log of the commands touching a pair of `watchList` (may be null: nothing is
  // watched), keeping the latest `capacity` records.
  explicit WatchLog(Kel::Ptr<const WatchList> watchList, std::size_t capacity = kCapacity);
  const Kel::Ptr<const WatchList>& watchList() const { return watchList_; }

  // Records the command once per device of `targets` on which `rid` is watched. `size` is
  // the command's byte count (entry size times entries for a bulk command).
  void commandIs(Zorvek::Command command, const Zorvek::TargetMask& targets,
                 const Zorvek::PhysicalResourceId& rid, Zorvek::DeviceOffset offset,
                 Zorvek::U32 size, Zorvek::U64 cmdIndex);
  // The kept records, oldest first.
  const std::deque<Record>& records() const { return records_; }
  // Every record made, including those pushed out of the log.
  Zorvek::U64 recorded() const { return recorded_; }

  // Writes "'watchLog':{'recorded':N,'records':{...},}," to `fd`, one group per record
  // keyed by its command index.
  void show(int fd) const;

 private:
  Kel::Ptr<const WatchList> watchList_;
  std::size_t capacity_;
  std::deque<Record> records_;
  Zorvek::U64 recorded_ = 0;
};

}  // namespace Orv
