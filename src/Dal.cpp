#include "Zorvek/Dal.h"

#include <cstdio>

#include "AccessScope.h"
#include "Kel/Assert.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(Dal, "Zorvek::Dal")

namespace {

const char* pyBool(bool v) { return v ? "True" : "False"; }

}  // namespace

Dal::Dal(Kel::Name name) : name_(std::move(name)) {}

Dal::~Dal() = default;

void Dal::initLocalCache(DeviceId, bool) {
  KEL_ASSERT(0 && "Must be implemented by derived class");
}
void Dal::waitForCompletion(DeviceId) { KEL_ASSERT(0 && "Must be implemented by derived class"); }
void Dal::waitForCompletionDefaultDal(DeviceId) {
  KEL_ASSERT(0 && "Must be implemented by derived class");
}

S32 Dal::dalWrite(const TargetMask&, DeviceOffset, U16, const void*, void*) {
  KEL_ASSERT(0);
  return -1;
}

S32 Dal::dalRead(DeviceId, DeviceOffset, U16, void*, void*) {
  KEL_ASSERT(0);
  return -1;
}

S32 Dal::dalBulkWrite(const TargetMask&, DeviceOffset, U32, const void*, void*) {
  KEL_ASSERT(0);
  return -1;
}

S32 Dal::dalBulkRead(DeviceId, DeviceOffset, U32, void*, void*) {
  KEL_ASSERT(0);
  return -1;
}

void Dal::handleCoprocessorChecker() { KEL_ASSERT(0 && "Must be implemented by derived class"); }

void Dal::showDalState(U32 fd) {
  const int f = static_cast<int>(fd);
  dprintf(f, "'name':'%s',", name_.c_str());
  dprintf(f, "'hwAccessAllowed':%s,", pyBool(hwAccessAllowed()));
  dprintf(f, "'forceReadFromShadow':%s,", pyBool(forceReadFromShadow()));
  dprintf(f, "'okToReadFromShadow':%s,", pyBool(okToReadFromShadow()));
  dprintf(f, "'okToWriteToShadow':%s,", pyBool(okToWriteToShadow()));
  dprintf(f, "'skipHwWriteIfShadowHit':%s,", pyBool(skipHwWriteIfShadowHit()));
  dprintf(f, "'verifyEnabled':%s,", pyBool(verifyEnabled()));
  dprintf(f, "'blocking':%s,", pyBool(blocking()));
  dprintf(f, "'cacheReadHits':%llu, ", static_cast<unsigned long long>(cacheReadHits_));
  dprintf(f, "'cacheReadMisses':%llu, ", static_cast<unsigned long long>(cacheReadMisses_));
  dprintf(f, "'cacheWriteHits':%llu, ", static_cast<unsigned long long>(cacheWriteHits_));
  dprintf(f, "'cacheWriteMisses':%llu, ", static_cast<unsigned long long>(cacheWriteMisses_));
}

void Dal::readyIs(bool v) { notifiees_.store(ready_, v, &NotifieeConst::onReady); }

void Dal::reclaimWhenProgrammedIs(bool v) {
  notifyingOptionIs(kReclaimWhenProgrammed, v, &NotifieeConst::onReclaimWhenProgrammed);
}

void Dal::hwAccessAllowedIs(bool v) {
  notifyingOptionIs(kHwAccessAllowed, v, &NotifieeConst::onHwAccessAllowed);
}

void Dal::helperIs(const Kel::Ptr<DalHelper>& h) { helper_ = h; }

void Dal::coprocessorCheckerIs(const Kel::Ptr<CoprocessorChecker>& c) {
  if (&c == &coprocessorChecker_) return;
  if (c != coprocessorChecker_) coprocessorChecker_ = c;
  handleCoprocessorChecker();
}

void Dal::doUpdateCacheHitOnRead(DeviceOffset offset, void* optArg) {
  countReadHit(detail::AccessScope::resourceId(*this, offset, optArg));
}

void Dal::doUpdateCacheMissOnRead(DeviceOffset offset, void* optArg) {
  countReadMiss(detail::AccessScope::resourceId(*this, offset, optArg));
}

void Dal::doUpdateCacheHitOnWrite(DeviceOffset offset, void* optArg) {
  countWriteHit(detail::AccessScope::resourceId(*this, offset, optArg));
}

void Dal::doUpdateCacheMissOnWrite(DeviceOffset offset, void* optArg) {
  countWriteMiss(detail::AccessScope::resourceId(*this, offset, optArg));
}

}  // namespace Zorvek
