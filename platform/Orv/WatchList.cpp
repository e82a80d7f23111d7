#include "Orv/WatchList.h"

#include <cstdio>
#include <sstream>

namespace Orv {

KEL_DEFINE_ENTITY_TYPE(WatchList, "Orv::WatchList")

WatchList::~WatchList() = default;

void WatchList::watchIs(Zorvek::DeviceId devId, const Zorvek::PhysicalResourceId& rid) {
  writeCheck(*this, "watch");
  const Watch w(devId, rid);
  if (!watches_.insert(w).second) return;
  notifiees_.visit(&NotifieeConst::onWatch, w);
}

void WatchList::watchDel(Zorvek::DeviceId devId, const Zorvek::PhysicalResourceId& rid) {
  writeCheck(*this, "watch");
  const Watch w(devId, rid);
  if (!watches_.erase(w)) return;
  notifiees_.visit(&NotifieeConst::onWatch, w);
}

WatchLog::WatchLog(Kel::Ptr<const WatchList> watchList, std::size_t capacity)
    : watchList_(std::move(watchList)), capacity_(capacity) {
  KEL_ASSERT(capacity > 0);
}

void WatchLog::commandIs(Zorvek::Command command, const Zorvek::TargetMask& targets,
                         const Zorvek::PhysicalResourceId& rid, Zorvek::DeviceOffset offset,
                         Zorvek::U32 size, Zorvek::U64 cmdIndex) {
  if (!watchList_ || watchList_->watchCol().empty()) return;
  for (Zorvek::DeviceId d = targets.firstDevice(); !d.isNull();
       d = targets.fapmask().nextFapId(d)) {
    if (!watchList_->watch(d, rid)) continue;
    if (records_.size() == capacity_) records_.pop_front();
    records_.push_back(Record{command, d, rid, offset, size, cmdIndex});
    ++recorded_;
  }
}

void WatchLog::show(int fd) const {
  dprintf(fd, "'watchLog':{'recorded':%llu,'records':{",
          static_cast<unsigned long long>(recorded_));
  unsigned i = 0;
  for (const Record& r : records_) {
    std::ostringstream command, type;
    command << r.command;
    type << r.resourceId.type();
    dprintf(fd,
            "'%u':{'cmdIndex':%llu,'command':'%s','device':%u,'resourceType':'%s',"
            "'resourceId':0x%llx,'offset':0x%x,'size':%u,},",
            i++, static_cast<unsigned long long>(r.cmdIndex), command.str().c_str(),
            static_cast<unsigned>(r.devId.value()), type.str().c_str(),
            static_cast<unsigned long long>(r.resourceId.id()), r.offset, r.size);
  }
  dprintf(fd, "},},");
}

}  // namespace Orv
