// The published coprocessor status of a switch and the log it is rebuilt from.
//
// CoprocessorStatus holds one Corvane::Coprocessor per coprocessor name and notifies
// onCoprocessor(name) whenever the value under a name changes. The platform publishes the
// status as an attribute log (CoprocessorStatusAttrLog): an append-only list of set and
// delete records. A CoprocessorStatusAttrLogAdapterSm replays such a log into a status and
// keeps following it:
//
//   auto status = Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("dalCoprocessorStatus"));
//   auto adapter = Corvane::CoprocessorStatusAttrLogAdapterSm::
//       CoprocessorStatusAttrLogAdapterSmIs(log, status);   // status now mirrors the log
//
// Used from the agent's activity thread only; notifications run inside the call that
// changes the value.
#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "Corvane/Coprocessor.h"
#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/String.h"
#include "Kel/WriteGuard.h"

namespace Corvane {

// A collection of coprocessors keyed by name (iteration order not defined).
class KEL_EXPORT CoprocessorStatus : public Kel::Entity {
  KEL_ENTITY_TYPE(CoprocessorStatus)

 public:
  class NotifieeConst : public Kel::NotifieeConst<CoprocessorStatus> {
   public:
    // The value under `name` changed: inserted, replaced by a different value, or removed.
    virtual void onCoprocessor(const Kel::String& name) { (void)name; }
  };
  using CoprocessorMap = std::unordered_map<Kel::String, Coprocessor>;

  explicit CoprocessorStatus(Kel::Name name) : name_(std::move(name)) {}
  const Kel::Name& name() const { return name_; }

  // The value under `name`, or the default value (not valid()) when there is none.
  Coprocessor coprocessor(const Kel::String& name) const;
  // Inserts or replaces; notifies only when the stored value changes.
  void coprocessorIs(const Kel::String& name, const Coprocessor& coprocessor);
  // Removes the entry and notifies; nothing happens when there is no entry.
  void coprocessorDel(const Kel::String& name);
  // Removes every entry, notifying once per removed name.
  void coprocessorDelAll();
  // Notifies onCoprocessor(name) without a change, so that observers re-evaluate the name.
  void coprocessorNotify(const Kel::String& name) const;
  const CoprocessorMap& coprocessorCol() const { return coprocessors_; }

  Kel::NotifieeList<CoprocessorStatus>& notifiees() const { return notifiees_; }

 protected:
  ~CoprocessorStatus() override = default;

 private:
  Kel::Name name_;
  CoprocessorMap coprocessors_;
  mutable Kel::NotifieeList<CoprocessorStatus> notifiees_;
};

// The append-only log through which a coprocessor status is published: each record either
// sets the value of a name or deletes the name. Records are never changed or removed, so a
// follower remembers how many it has applied and applies the rest when notified.
class KEL_EXPORT CoprocessorStatusAttrLog : public Kel::Entity, public Kel::WriteGuarded {
  KEL_ENTITY_TYPE(CoprocessorStatusAttrLog)

 public:
  struct Record {
    enum class Kind : unsigned char { set, del };
    Kind kind;
    Kel::String name;
    Coprocessor coprocessor;  // the value of a set record; the default value in a delete
  };
  class NotifieeConst : public Kel::NotifieeConst<CoprocessorStatusAttrLog> {
   public:
    // The record at `index` has just been appended.
    virtual void onRecord(std::size_t index) { (void)index; }
  };

  explicit CoprocessorStatusAttrLog(Kel::Name name) : name_(std::move(name)) {}
  const Kel::Name& name() const { return name_; }

  // Append a set record / a delete record for `name`, then notify onRecord(its index).
  void setRecordIs(const Kel::String& name, const Coprocessor& coprocessor);
  void delRecordIs(const Kel::String& name);

  std::size_t records() const { return records_.size(); }
  // The record at `index`; asserts "index < records()".
  const Record& record(std::size_t index) const;

  Kel::NotifieeList<CoprocessorStatusAttrLog>& notifiees() const { return notifiees_; }

 protected:
  ~CoprocessorStatusAttrLog() override = default;

 private:
  void recordIs(Record r);

  Kel::Name name_;
  std::vector<Record> records_;
  mutable Kel::NotifieeList<CoprocessorStatusAttrLog> notifiees_;
};

// Keeps a CoprocessorStatus in step with a CoprocessorStatusAttrLog: at construction it
// applies every record of the log in order, then applies each record appended later. A set
// record becomes coprocessorIs(), a delete record coprocessorDel(), so the status notifies
// only the names whose value actually changes. A null log leaves the status untouched.
//
// The adapter holds the log and the status; its reactor watches the log without owning it
// and points back at the adapter with a raw pointer, so no reference cycle forms.
class KEL_EXPORT CoprocessorStatusAttrLogAdapterSm : public Kel::Entity {
  KEL_ENTITY_TYPE(CoprocessorStatusAttrLogAdapterSm)

 public:
  // The factory. `status` must not be null (asserts "coprocessorStatus"); `log` may be.
  static Kel::Ptr<CoprocessorStatusAttrLogAdapterSm> CoprocessorStatusAttrLogAdapterSmIs(
      const Kel::Ptr<const CoprocessorStatusAttrLog>& log,
      const Kel::Ptr<CoprocessorStatus>& status);
  // Public for Kel::allocate only; create adapters through the factory.
  CoprocessorStatusAttrLogAdapterSm(const Kel::Ptr<const CoprocessorStatusAttrLog>& log,
                                    const Kel::Ptr<CoprocessorStatus>& status);

  const Kel::Ptr<const CoprocessorStatusAttrLog>& coprocessorStatusAttrLog() const { return log_; }
  const Kel::Ptr<CoprocessorStatus>& coprocessorStatus() const { return status_; }
  // How many records of the log have been applied.
  std::size_t recordsApplied() const { return applied_; }

 protected:
  ~CoprocessorStatusAttrLogAdapterSm() override = default;

 private:
  class KelCoprocessorStatusAttrLog : public CoprocessorStatusAttrLog::NotifieeConst {
   public:
    explicit KelCoprocessorStatusAttrLog(CoprocessorStatusAttrLogAdapterSm* sm) : sm_(sm) {}
    void onRecord(std::size_t) override { sm_->handleRecords(); }

   private:
    CoprocessorStatusAttrLogAdapterSm* sm_;  // the owning adapter; never owning
  };

  // Applies every record not applied yet, in log order.
  void handleRecords();

  Kel::Ptr<const CoprocessorStatusAttrLog> log_;
  Kel::Ptr<CoprocessorStatus> status_;
  Kel::Ptr<KelCoprocessorStatusAttrLog> kelCoprocessorStatusAttrLog_;
  std::size_t applied_ = 0;
};

}  // namespace Corvane
