// Zorvek::Dal: the data access layer an agent calls to read and write device resources.
//
// It is abstract: the accesses and the fan-out operations are supplied by the requester DALs
// and the demultiplexing DAL. The Dal holds the access policy flags every concrete DAL obeys,
// the DalHelper that knows the device, and the cache hit / miss statistics that concrete DALs
// update through the four doUpdateCache...() helpers.
//
//   Kel::Ptr<Dal> dal = creator->demuxDal();
//   dal->dalWrite(oneDeviceMask(0), offset, size, data, optArg);   // 0 success, -1 failure
//
// Used from the agent's activity thread only.
#pragma once

#include <unordered_map>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Zorvek/CoprocessorChecker.h"
#include "Zorvek/DalHelper.h"
#include "ZorvekTypes/Types.h"

// The accessors of one per-resource U64 counter collection: read (0 when absent), set,
// delete one, delete all, and the whole collection for iteration.
#define ZORVEK_DAL_COUNTER_COLLECTION(name, Key)                                  \
 public:                                                                          \
  U64 name(const Key& k) const { return name##_.value(k); }                       \
  void name##Is(const Key& k, U64 v) { name##_.valueIs(k, v); }                   \
  void name##Del(const Key& k) { name##_.del(k); }                                \
  void name##DelAll() { name##_.delAll(); }                                       \
  const std::unordered_map<Key, U64>& name##Col() const { return name##_.map(); } \
                                                                                  \
 private:                                                                         \
  DalCounterCollection<Key> name##_;

namespace Zorvek {

namespace detail {
class AccessScope;
class AccessPath;
}  // namespace detail

// A per-resource U64 counter collection (hashed by the resource-id hash). inc() remembers
// the counter it last counted: accesses come in runs on one table, and a run then hashes
// its key once. Element addresses of the map survive rehashing; only erasing forgets one.
template <class Key>
class DalCounterCollection {
 public:
  U64 value(const Key& k) const {
    auto it = findByKey(map_, k);
    return it == map_.end() ? 0 : it->second;
  }
  void valueIs(const Key& k, U64 v) { map_[k] = v; }
  void del(const Key& k) {
    if (last_ && lastKey_ == k) last_ = nullptr;
    map_.erase(k);
  }
  void delAll() {
    last_ = nullptr;
    map_.clear();
  }
  void inc(const Key& k) {
    if (!last_ || !(lastKey_ == k)) {
      last_ = &map_[k];
      lastKey_ = k;
    }
    *last_ += 1;
  }
  const std::unordered_map<Key, U64>& map() const { return map_; }

 private:
  std::unordered_map<Key, U64> map_;
  Key lastKey_{};
  U64* last_ = nullptr;
};

class KEL_EXPORT Dal : public Kel::Entity {
  KEL_ENTITY_TYPE(Dal)

 public:
  // Observer of a Dal; every callback does nothing unless overridden.
  class NotifieeConst : public Kel::NotifieeConst<Dal> {
   public:
    virtual void onReady() {}
    virtual void onReclaimWhenProgrammed() {}
    virtual void onHwAccessAllowed() {}
  };
  // Observer that may change the Dal it observes.
  class Notifiee : public NotifieeConst {
   public:
    Kel::Ptr<Dal> notifier() const {
      return Kel::Ptr<Dal>(const_cast<Dal*>(NotifieeConst::notifier().ptr()));
    }
  };

  explicit Dal(Kel::Name name);

  // The accesses and fan-out operations. The base versions assert: every concrete DAL
  // supplies them.
  virtual void initLocalCache(DeviceId devId, bool coldStart);
  virtual void waitForCompletion(DeviceId devId);
  virtual void waitForCompletionDefaultDal(DeviceId devId);
  virtual S32 dalWrite(const TargetMask& targetMask, DeviceOffset offset, U16 size,
                       const void* data, void* optArg);
  virtual S32 dalRead(DeviceId devId, DeviceOffset offset, U16 size, void* data, void* optArg);
  virtual S32 dalBulkWrite(const TargetMask& targetMask, DeviceOffset offset, U32 size,
                           const void* data, void* optArg);
  virtual S32 dalBulkRead(DeviceId devId, DeviceOffset offset, U32 size, void* data, void* optArg);
  // Writes the DAL's fields to `fd` as the inside of a dictionary literal, with no newline.
  virtual void showDalState(U32 fd);
  virtual void handleCoprocessorChecker();

  // Option setters; virtual so that a demultiplexing DAL can pass each option on.
  // reclaimWhenProgrammedIs and hwAccessAllowedIs notify, and only on change.
  virtual void reclaimWhenProgrammedIs(bool v);
  virtual void hwAccessAllowedIs(bool v);
  virtual void helperIs(const Kel::Ptr<DalHelper>& h);
  virtual void blockingIs(bool v) { optionIs(kBlocking, v); }
  virtual void verifyEnabledIs(bool v) { optionIs(kVerifyEnabled, v); }
  virtual void forceReadFromShadowIs(bool v) { optionIs(kForceReadFromShadow, v); }
  virtual void okToReadFromShadowIs(bool v) { optionIs(kOkToReadFromShadow, v); }
  virtual void okToWriteToShadowIs(bool v) { optionIs(kOkToWriteToShadow, v); }
  virtual void skipHwWriteIfShadowHitIs(bool v) { optionIs(kSkipHwWriteIfShadowHit, v); }

  const Kel::Name& name() const { return name_; }
  const Kel::Ptr<DalHelper>& helper() const { return helper_; }
  bool ready() const { return ready_; }
  // Notifies onReady() on change only.
  void readyIs(bool v);
  bool blocking() const { return options_ & kBlocking; }
  bool reclaimWhenProgrammed() const { return options_ & kReclaimWhenProgrammed; }
  bool verifyEnabled() const { return options_ & kVerifyEnabled; }
  bool hwAccessAllowed() const { return options_ & kHwAccessAllowed; }
  bool forceReadFromShadow() const { return options_ & kForceReadFromShadow; }
  bool okToReadFromShadow() const { return options_ & kOkToReadFromShadow; }
  bool okToWriteToShadow() const { return options_ & kOkToWriteToShadow; }
  bool skipHwWriteIfShadowHit() const { return options_ & kSkipHwWriteIfShadowHit; }

  const Kel::Ptr<CoprocessorChecker>& coprocessorChecker() const { return coprocessorChecker_; }
  // Stores the checker and runs handleCoprocessorChecker(), also when the value is unchanged;
  // only handing back the attribute's own stored reference does nothing.
  void coprocessorCheckerIs(const Kel::Ptr<CoprocessorChecker>& c);

  U64 cacheReadHits() const { return cacheReadHits_; }
  U64 cacheReadMisses() const { return cacheReadMisses_; }
  U64 cacheWriteHits() const { return cacheWriteHits_; }
  U64 cacheWriteMisses() const { return cacheWriteMisses_; }
  void cacheReadHitsIs(U64 v) { cacheReadHits_ = v; }
  void cacheReadMissesIs(U64 v) { cacheReadMisses_ = v; }
  void cacheWriteHitsIs(U64 v) { cacheWriteHits_ = v; }
  void cacheWriteMissesIs(U64 v) { cacheWriteMisses_ = v; }
  void cacheReadHitsInc(U64 d) { cacheReadHits_ += d; }
  void cacheReadMissesInc(U64 d) { cacheReadMisses_ += d; }
  void cacheWriteHitsInc(U64 d) { cacheWriteHits_ += d; }
  void cacheWriteMissesInc(U64 d) { cacheWriteMisses_ += d; }

  ZORVEK_DAL_COUNTER_COLLECTION(cacheReadRegHits, PhysicalRegisterId)
  ZORVEK_DAL_COUNTER_COLLECTION(cacheReadRegMisses, PhysicalRegisterId)
  ZORVEK_DAL_COUNTER_COLLECTION(cacheReadTableHits, PhysicalTableId)
  ZORVEK_DAL_COUNTER_COLLECTION(cacheReadTableMisses, PhysicalTableId)
  ZORVEK_DAL_COUNTER_COLLECTION(cacheWriteTableHits, PhysicalTableId)
  ZORVEK_DAL_COUNTER_COLLECTION(cacheWriteTableMisses, PhysicalTableId)

 public:
  Kel::NotifieeList<Dal>& notifiees() const { return notifiees_; }

 protected:
  ~Dal() override;

  // Cache statistics: each adds 1 to its total, then to the counter of the resource at the
  // offset (per table for tables; per register for every other type on reads; writes keep
  // no per-register counters).
  void doUpdateCacheHitOnRead(DeviceOffset offset, void* optArg);
  void doUpdateCacheMissOnRead(DeviceOffset offset, void* optArg);
  void doUpdateCacheHitOnWrite(DeviceOffset offset, void* optArg);
  void doUpdateCacheMissOnWrite(DeviceOffset offset, void* optArg);

  // Plain stores for derived setters that order storing, reacting and notifying themselves.
  void storeHwAccessAllowed(bool v) { optionIs(kHwAccessAllowed, v); }
  void storeReclaimWhenProgrammed(bool v) { optionIs(kReclaimWhenProgrammed, v); }

 private:
  // The policy flags, one bit each in one word: an access reads the word once and tests
  // its bits, rather than loading each flag again after every call it makes.
  enum Option : U32 {
    kBlocking = 1u << 0,
    kReclaimWhenProgrammed = 1u << 1,
    kVerifyEnabled = 1u << 2,
    kHwAccessAllowed = 1u << 3,
    kForceReadFromShadow = 1u << 4,
    kOkToReadFromShadow = 1u << 5,
    kOkToWriteToShadow = 1u << 6,
    kSkipHwWriteIfShadowHit = 1u << 7,
  };
  void optionIs(Option option, bool v) { options_ = v ? options_ | option : options_ & ~option; }
  // Stores an observable flag and notifies `fn`, only when that changed it.
  template <class Fn>
  void notifyingOptionIs(Option option, bool v, Fn fn) {
    if (((options_ & option) != 0) == v) return;
    optionIs(option, v);
    notifiees_.visit(fn);
  }

  // Counts an access in a total and under its resource: a table's counter, or a register's
  // where registers are counted (reads; writes count tables only). Inline: every access
  // counts once, and the access path counts with the resource it already holds.
  [[gnu::always_inline]] static void countAccess(
      U64& total, DalCounterCollection<PhysicalTableId>& tables,
      DalCounterCollection<PhysicalRegisterId>* registers, const PhysicalResourceId& rid) {
    total += 1;
    if (rid.type() == ResourceType::tableResource_)
      tables.inc(PhysicalTableId(rid));
    else if (registers)
      registers->inc(PhysicalRegisterId(rid));
  }
  [[gnu::always_inline]] void countReadHit(const PhysicalResourceId& rid) {
    countAccess(cacheReadHits_, cacheReadTableHits_, &cacheReadRegHits_, rid);
  }
  [[gnu::always_inline]] void countReadMiss(const PhysicalResourceId& rid) {
    countAccess(cacheReadMisses_, cacheReadTableMisses_, &cacheReadRegMisses_, rid);
  }
  [[gnu::always_inline]] void countWriteHit(const PhysicalResourceId& rid) {
    countAccess(cacheWriteHits_, cacheWriteTableHits_, nullptr, rid);
  }
  [[gnu::always_inline]] void countWriteMiss(const PhysicalResourceId& rid) {
    countAccess(cacheWriteMisses_, cacheWriteTableMisses_, nullptr, rid);
  }

  Kel::Name name_;
  Kel::Ptr<DalHelper> helper_;
  bool ready_ = false;
  U32 options_ = kHwAccessAllowed | kOkToReadFromShadow | kOkToWriteToShadow;
  U64 cacheReadHits_ = 0;
  U64 cacheReadMisses_ = 0;
  U64 cacheWriteHits_ = 0;
  U64 cacheWriteMisses_ = 0;
  Kel::Ptr<CoprocessorChecker> coprocessorChecker_;
  mutable Kel::NotifieeList<Dal> notifiees_;
  // The access being served, if any: what it has learnt from the helper, shared by its steps.
  friend class detail::AccessScope;
  friend class detail::AccessPath;
  detail::AccessScope* access_ = nullptr;
};

}  // namespace Zorvek
