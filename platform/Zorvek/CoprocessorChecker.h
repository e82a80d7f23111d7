// Zorvek::CoprocessorChecker: the requester library's check of whether the packet-processing
// coprocessors that serve a device are usable. A DAL only holds one and hands it to its
// requester; the requester consults it before issuing S-channel commands.
#pragma once

#include <string>
#include <unordered_set>

#include "Kel/Entity.h"
#include "Kel/String.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT CoprocessorChecker : public Kel::Entity {
  KEL_ENTITY_TYPE(CoprocessorChecker)

 public:
  explicit CoprocessorChecker(Kel::Name name) : name_(std::move(name)) {}
  const Kel::Name& name() const { return name_; }

  // Devices whose coprocessor is down; commands to them are held back by the requester.
  bool deviceBlocked(DeviceId d) const { return blocked_.count(d.value()) != 0; }
  void deviceBlockedIs(DeviceId d, bool v) {
    if (v)
      blocked_.insert(d.value());
    else
      blocked_.erase(d.value());
  }

 private:
  Kel::Name name_;
  std::unordered_set<unsigned> blocked_;
};

}  // namespace Zorvek
