// The entity framework: reflective access errors and notifiee lists under disruption. Live
// counts are what the switch leak test reads; text parsing is checked on the DAL's own text
// forms and fuzzed.
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/Ptr.h"

namespace {

// A notifier with one observable event, and an observer that logs "<name><value>" and then
// runs an optional one-shot disruption.
class Source : public Kel::Entity {
  KEL_ENTITY_TYPE(Source)
 public:
  struct NotifieeConst : Kel::NotifieeConst<Source> {
    virtual void onTick(int) {}
  };
  void tick(int v) { notifiees_.visit(&NotifieeConst::onTick, v); }
  Kel::NotifieeList<Source>& notifiees() const { return notifiees_; }
  mutable Kel::NotifieeList<Source> notifiees_;
};

struct Observer : Source::NotifieeConst {
  Observer(std::string name, std::string* log) : name(std::move(name)), log(log) {}
  void onTick(int v) override {
    *log += (log->empty() ? "" : " ") + name + std::to_string(v);
    if (auto once = std::exchange(disruption, nullptr)) once();
  }
  std::string name;
  std::string* log;
  std::function<void()> disruption;
};

KEL_DEFINE_ENTITY_TYPE(Source, "KelTest::Source")

// Live counts are process-wide: each test compares against the count seen when it started,
// once the members of the fixture (and of derived fixtures) are gone.
struct EntityFixture : ::testing::Test {
  ~EntityFixture() override { EXPECT_EQ(Kel::TypeRegistry::liveEntities(), allLive); }
  const std::int64_t allLive = Kel::TypeRegistry::liveEntities();
};

TEST(EntityTest, UnknownAttributeIsAnErrorNamingTheType) {
  const Kel::Ptr<Source> source = Kel::allocate<Source>();
  EXPECT_THAT([&] { source->attributeIs("colour", "red"); },
              ::testing::ThrowsMessage<Kel::AttributeError>(
                  ::testing::StrEq("no attribute 'colour' in KelTest::Source")));
}

// Observers a, b and c of one source; the leak check covers both sides.
struct NotifieeListTest : EntityFixture {
  void SetUp() override {
    for (const char* name : {"a", "b", "c"}) o.push_back(watch(name));
  }
  Kel::Ptr<Observer> watch(const std::string& name) {
    auto w = Kel::allocate<Observer>(name, &log);
    w->notifierIs(source);
    return w;
  }
  // The log of one tick of the source.
  std::string tick(int v) {
    log.clear();
    source->tick(v);
    return log;
  }
  std::string log;
  Kel::Ptr<Source> source = Kel::allocate<Source>();
  std::vector<Kel::Ptr<Observer>> o;
  Kel::Ptr<Observer> added;  // by the disruption "Add"
};

// (name, what b does to the list during the first tick, the logs of that tick and the next)
using Disruption = std::tuple<const char*, void (*)(NotifieeListTest&), const char*, const char*>;

class NotifieeListDisruptionTest : public NotifieeListTest,
                                   public ::testing::WithParamInterface<Disruption> {};

TEST_P(NotifieeListDisruptionTest, FollowsTheListPolicy) {
  const auto& [name, during, first, second] = GetParam();
  o[1]->disruption = [this, during = during] { during(*this); };
  EXPECT_EQ(tick(1), first);
  EXPECT_EQ(tick(2), second);
}

using T = NotifieeListTest;
INSTANTIATE_TEST_SUITE_P(
    Policy, NotifieeListDisruptionTest,
    ::testing::ValuesIn(std::vector<Disruption>{
        {"DetachSelf", [](T& t) { t.o[1]->notifierIs(nullptr); }, "a1 b1 c1", "a2 c2"},
        {"DetachLater", [](T& t) { t.o[2]->notifierIs(nullptr); }, "a1 b1", "a2 b2"},
        {"DetachEarlier", [](T& t) { t.o[0]->notifierIs(nullptr); }, "a1 b1 c1", "b2 c2"},
        {"DestroySelf", [](T& t) { t.o[1] = nullptr; }, "a1 b1 c1", "a2 c2"},
        {"DestroyLater", [](T& t) { t.o[2] = nullptr; }, "a1 b1", "a2 b2"},
        {"Add", [](T& t) { t.added = t.watch("d"); }, "a1 b1 c1", "a2 b2 c2 d2"},
        {"DeactivateLater", [](T& t) { t.o[2]->hasNotificationActiveIs(false); }, "a1 b1", "a2 b2"},
        {"UnregisterLater", [](T& t) { t.o[2]->isRegisteredNotifieeIs(false); }, "a1 b1", "a2 b2"},
        // Off the list and back: b keeps its notifier and comes back at the end.
        {"ReregisterSelf",
         [](T& t) {
           t.o[1]->isRegisteredNotifieeIs(false);
           t.o[1]->isRegisteredNotifieeIs(true);
         },
         "a1 b1 c1", "a2 c2 b2"},
        // In a nested visit c detaches itself: the outer visit must not reach c either.
        {"NestedVisit",
         [](T& t) {
           t.o[2]->disruption = [&t] { t.o[2]->notifierIs(nullptr); };
           t.source->tick(7);
         },
         "a1 b1 a7 b7 c7", "a2 b2"}}),
    [](const auto& info) { return std::string(std::get<0>(info.param)); });

}  // namespace
