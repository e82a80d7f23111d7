#include "SkorraRedis/EntityCodec.h"

#include <charconv>
#include <set>
#include <type_traits>
#include <vector>

#include "Corvane/CoprocessorStatus.h"
#include "Orv/WatchList.h"
#include "Skorra/Backend.h"
#include "Zorvek/RequesterQueue.h"
#include "Zorvek/SerializerStatus.h"

namespace Skorra {

namespace {

using Zorvek::U64;

// The number in `text`, which the field `field` of an entity of `type` holds.
U64 numberIn(std::string_view text, std::string_view field, std::string_view type) {
  U64 v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty())
    throw DatabaseError("Skorra: field \"" + std::string(field) + "\" of a " + std::string(type) +
                        " holds \"" + std::string(text) + "\", not a number");
  return v;
}

U64 numberField(const Fields& f, std::string_view field, std::string_view type) {
  const auto it = f.find(std::string(field));
  return numberIn(it == f.end() ? std::string_view() : std::string_view(it->second), field, type);
}

const std::string& textField(const Fields& f, std::string_view field, std::string_view type) {
  const auto it = f.find(std::string(field));
  if (it == f.end())
    throw DatabaseError("Skorra: a " + std::string(type) + " has no field \"" + std::string(field) +
                        "\"");
  return it->second;
}

// The names after `prefix` of the fields that start with it: the elements of a collection.
std::set<std::string> elements(const Fields& f, std::string_view prefix) {
  std::set<std::string> names;
  for (auto it = f.lower_bound(std::string(prefix)); it != f.end() && it->first.starts_with(prefix);
       ++it)
    names.insert(it->first.substr(prefix.size()));
  return names;
}

// What every codec does the same way: the casts to its type, its guard, and an observer of
// type Observer (none when void).
template <class T, class Observer>
class TypedCodec : public EntityCodec {
 public:
  Kel::Ptr<Kel::Entity> observerNew(const Kel::Entity& e, Changed changed) const final {
    if constexpr (std::is_void_v<Observer>)
      return nullptr;
    else
      return Kel::allocate<Observer>(static_cast<const T&>(e), std::move(changed));
  }
  Fields fields(const Kel::Entity& e) const final { return fieldsOf(static_cast<const T&>(e)); }
  bool fieldsIs(Kel::Entity& e, const Fields& f) const final {
    return fieldsIsOf(static_cast<T&>(e), f);
  }
  Kel::WriteGuarded* guarded(Kel::Entity& e) const final {
    if constexpr (std::is_base_of_v<Kel::WriteGuarded, T>)
      return &static_cast<T&>(e);
    else
      return nullptr;
  }

 protected:
  static std::string_view typeName() { return T::staticType().name(); }
  virtual Fields fieldsOf(const T& e) const = 0;
  virtual bool fieldsIsOf(T& e, const Fields& f) const = 0;
};

// An observer that reports every notification of a T as a change of one field.
template <class T, class Base = typename T::NotifieeConst>
class FieldObserver : public Base {
 public:
  FieldObserver(const T& notifier, EntityCodec::Changed changed) : changed_(std::move(changed)) {
    this->notifierIs(&notifier);
  }

 protected:
  EntityCodec::Changed changed_;
};

// The codec of an entity made with a name alone and brought to its fields by its setters.
template <class T, class Observer>
class SetterCodec : public TypedCodec<T, Observer> {
 public:
  Kel::Ptr<Kel::Entity> entityNew(const Kel::String& name, const Fields& f) const override {
    auto entity = Kel::allocate<T>(Kel::Name(name));
    this->fieldsIsOf(*entity, f);
    return entity;
  }
};

// "restartCount": the count; "q:NAME": a served queue.
struct StatusObserver final : FieldObserver<Zorvek::SerializerStatus> {
  using FieldObserver::FieldObserver;
  void onServedQueue(const Kel::String& name) override { changed_("q:" + name); }
  void onRestartCount() override { changed_("restartCount"); }
};

class SerializerStatusCodec final : public SetterCodec<Zorvek::SerializerStatus, StatusObserver> {
  using Status = Zorvek::SerializerStatus;

  Fields fieldsOf(const Status& s) const override {
    Fields f{{"restartCount", std::to_string(s.restartCount())}};
    for (const Kel::String& q : s.servedQueues()) f.emplace("q:" + q, "");
    return f;
  }
  bool fieldsIsOf(Status& s, const Fields& f) const override {
    const std::set<std::string> served = elements(f, "q:");
    const U64 restartCount = numberField(f, "restartCount", typeName());
    for (const Kel::String& q : std::set<Kel::String>(s.servedQueues()))
      if (!served.count(q)) s.servedQueueDel(q);
    for (const std::string& q : served) s.servedQueueIs(q);
    s.restartCountIs(restartCount);
    return true;
  }
};

// "w:DEVICE:TYPE:ID": a watched (device, resource) pair.
std::string watchField(const Orv::WatchList::Watch& w) {
  return "w:" + std::to_string(w.first.value()) + ":" +
         std::to_string(static_cast<unsigned>(w.second.type())) + ":" +
         std::to_string(w.second.id());
}

struct WatchObserver final : FieldObserver<Orv::WatchList> {
  using FieldObserver::FieldObserver;
  void onWatch(const Orv::WatchList::Watch& w) override { changed_(watchField(w)); }
};

class WatchListCodec final : public SetterCodec<Orv::WatchList, WatchObserver> {
  using List = Orv::WatchList;
  static List::Watch watchOf(const std::string& text) {
    const std::size_t a = text.find(':'), b = text.find(':', a + 1);
    if (a == std::string::npos || b == std::string::npos)
      throw DatabaseError("Skorra: field \"w:" + text +
                          "\" of an Orv::WatchList is not DEVICE:TYPE:ID");
    const std::string_view t(text);
    return {Zorvek::DeviceId(unsigned(numberIn(t.substr(0, a), "w:" + text, typeName()))),
            Zorvek::PhysicalResourceId(
                Zorvek::ResourceType(numberIn(t.substr(a + 1, b - a - 1), "w:" + text, typeName())),
                numberIn(t.substr(b + 1), "w:" + text, typeName()))};
  }

  Fields fieldsOf(const List& l) const override {
    Fields f;
    for (const List::Watch& w : l.watchCol()) f.emplace(watchField(w), "");
    return f;
  }
  bool fieldsIsOf(List& l, const Fields& f) const override {
    std::set<List::Watch> watches;
    for (const std::string& w : elements(f, "w:")) watches.insert(watchOf(w));
    for (const List::Watch& w : std::set<List::Watch>(l.watchCol()))
      if (!watches.count(w)) l.watchDel(w.first, w.second);
    for (const List::Watch& w : watches) l.watchIs(w.first, w.second);
    return true;
  }
};

// "r:INDEX": a record of the log, "set COPROCESSOR GENERATION NAME" or "del NAME". The log
// only grows: records it holds are never rewritten.
struct RecordObserver final : FieldObserver<Corvane::CoprocessorStatusAttrLog> {
  using FieldObserver::FieldObserver;
  void onRecord(std::size_t index) override { changed_("r:" + std::to_string(index)); }
};

class AttrLogCodec final : public SetterCodec<Corvane::CoprocessorStatusAttrLog, RecordObserver> {
  using Log = Corvane::CoprocessorStatusAttrLog;

  Fields fieldsOf(const Log& log) const override {
    Fields f;
    for (std::size_t i = 0; i < log.records(); ++i) {
      const Log::Record& r = log.record(i);
      f.emplace("r:" + std::to_string(i),
                r.kind == Log::Record::Kind::del
                    ? "del " + r.name
                    : "set " + std::to_string(r.coprocessor.coprocessorId()) + " " +
                          std::to_string(r.coprocessor.genId()) + " " + r.name);
    }
    return f;
  }
  bool fieldsIsOf(Log& log, const Fields& f) const override {
    for (std::size_t i = log.records();; ++i) {
      const auto it = f.find("r:" + std::to_string(i));
      if (it == f.end()) return true;
      const std::string& text = it->second;
      if (text.starts_with("del ")) {
        log.delRecordIs(text.substr(4));
        continue;
      }
      const std::size_t a = text.find(' ', 4), b = text.find(' ', a + 1);
      if (!text.starts_with("set ") || a == std::string::npos || b == std::string::npos)
        throw DatabaseError("Skorra: field \"" + it->first + "\" of a " + std::string(typeName()) +
                            " holds \"" + text + "\", not a record");
      const std::string_view t(text);
      log.setRecordIs(
          text.substr(b + 1),
          Corvane::Coprocessor(std::uint32_t(numberIn(t.substr(4, a - 4), it->first, typeName())),
                               numberIn(t.substr(a + 1, b - a - 1), it->first, typeName())));
    }
  }
};

// A queue's registration: "agentId", "dalId", "queueSize", "ioMemType", "ringName" (empty
// for a queue held in the requester's process) and "ringBytes", fixed when the requester
// makes the queue.
class RequesterQueueCodec final : public TypedCodec<Zorvek::RequesterQueue, void> {
  using Queue = Zorvek::RequesterQueue;

 public:
  Kel::Ptr<Kel::Entity> entityNew(const Kel::String& name, const Fields& f) const override {
    return Kel::allocate<Queue>(name, Zorvek::AgentId(numberField(f, "agentId", typeName())),
                                Zorvek::DalId(Zorvek::U8(numberField(f, "dalId", typeName()))),
                                unsigned(numberField(f, "queueSize", typeName())),
                                Zorvek::IoMemType(numberField(f, "ioMemType", typeName())),
                                textField(f, "ringName", typeName()),
                                Zorvek::U32(numberField(f, "ringBytes", typeName())));
  }

 private:
  Fields fieldsOf(const Queue& q) const override {
    return {{"agentId", std::to_string(q.agentId())},
            {"dalId", std::to_string(q.dalId().value())},
            {"queueSize", std::to_string(q.queueSize())},
            {"ioMemType", std::to_string(static_cast<unsigned>(q.ioMemType()))},
            {"ringName", q.ringName()},
            {"ringBytes", std::to_string(q.ringBytes())}};
  }
  bool fieldsIsOf(Queue& q, const Fields& f) const override { return fieldsOf(q) == f; }
};

}  // namespace

const EntityCodec* entityCodec(std::string_view typeName) {
  static const SerializerStatusCodec status;
  static const WatchListCodec watchList;
  static const AttrLogCodec attrLog;
  static const RequesterQueueCodec queue;
  static const std::pair<std::string_view, const EntityCodec*> codecs[] = {
      {Zorvek::SerializerStatus::staticType().name(), &status},
      {Orv::WatchList::staticType().name(), &watchList},
      {Corvane::CoprocessorStatusAttrLog::staticType().name(), &attrLog},
      {Zorvek::RequesterQueue::staticType().name(), &queue}};
  for (const auto& [name, codec] : codecs)
    if (name == typeName) return codec;
  return nullptr;
}

}  // namespace Skorra
