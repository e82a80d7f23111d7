#include "Corvane/CoprocessorStatus.h"

#include "Kel/Assert.h"

namespace Corvane {

KEL_DEFINE_ENTITY_TYPE(CoprocessorStatus, "Corvane::CoprocessorStatus")
KEL_DEFINE_ENTITY_TYPE(CoprocessorStatusAttrLog, "Corvane::CoprocessorStatusAttrLog")
KEL_DEFINE_ENTITY_TYPE(CoprocessorStatusAttrLogAdapterSm,
                       "Corvane::CoprocessorStatusAttrLogAdapterSm")

Coprocessor CoprocessorStatus::coprocessor(const Kel::String& name) const {
  auto it = coprocessors_.find(name);
  return it == coprocessors_.end() ? Coprocessor() : it->second;
}

void CoprocessorStatus::coprocessorIs(const Kel::String& name, const Coprocessor& coprocessor) {
  auto [it, inserted] = coprocessors_.try_emplace(name, coprocessor);
  if (!inserted) {
    if (it->second == coprocessor) return;
    it->second = coprocessor;
  }
  coprocessorNotify(name);
}

void CoprocessorStatus::coprocessorDel(const Kel::String& name) {
  if (coprocessors_.erase(name) == 0) return;
  coprocessorNotify(name);
}

void CoprocessorStatus::coprocessorDelAll() {
  while (!coprocessors_.empty()) {
    // Each observer sees the collection without the name it is told about.
    const Kel::String name = coprocessors_.begin()->first;
    coprocessors_.erase(coprocessors_.begin());
    coprocessorNotify(name);
  }
}

void CoprocessorStatus::coprocessorNotify(const Kel::String& name) const {
  notifiees_.visit(&NotifieeConst::onCoprocessor, name);
}

void CoprocessorStatusAttrLog::setRecordIs(const Kel::String& name,
                                           const Coprocessor& coprocessor) {
  recordIs(Record{Record::Kind::set, name, coprocessor});
}

void CoprocessorStatusAttrLog::delRecordIs(const Kel::String& name) {
  recordIs(Record{Record::Kind::del, name, Coprocessor()});
}

const CoprocessorStatusAttrLog::Record& CoprocessorStatusAttrLog::record(std::size_t index) const {
  KEL_ASSERT(index < records());
  return records_[index];
}

void CoprocessorStatusAttrLog::recordIs(Record r) {
  writeCheck(*this, "record");
  records_.push_back(std::move(r));
  notifiees_.visit(&NotifieeConst::onRecord, records_.size() - 1);
}

Kel::Ptr<CoprocessorStatusAttrLogAdapterSm>
CoprocessorStatusAttrLogAdapterSm::CoprocessorStatusAttrLogAdapterSmIs(
    const Kel::Ptr<const CoprocessorStatusAttrLog>& log,
    const Kel::Ptr<CoprocessorStatus>& status) {
  return Kel::allocate<CoprocessorStatusAttrLogAdapterSm>(log, status);
}

CoprocessorStatusAttrLogAdapterSm::CoprocessorStatusAttrLogAdapterSm(
    const Kel::Ptr<const CoprocessorStatusAttrLog>& log, const Kel::Ptr<CoprocessorStatus>& status)
    : log_(log), status_(status) {
  KEL_ASSERT_TEXT(status_, "coprocessorStatus");
  if (!log_) return;
  kelCoprocessorStatusAttrLog_ = Kel::allocate<KelCoprocessorStatusAttrLog>(this);
  kelCoprocessorStatusAttrLog_->notifierIs(log_);
  handleRecords();
}

void CoprocessorStatusAttrLogAdapterSm::handleRecords() {
  while (applied_ < log_->records()) {
    // Copied and counted before applying: a status observer may append to the log, and the
    // nested notification then applies the new record itself.
    const CoprocessorStatusAttrLog::Record r = log_->record(applied_++);
    if (r.kind == CoprocessorStatusAttrLog::Record::Kind::set)
      status_->coprocessorIs(r.name, r.coprocessor);
    else
      status_->coprocessorDel(r.name);
  }
}

}  // namespace Corvane
