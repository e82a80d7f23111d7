// The entity framework: Ptr, tracked allocation, the type registry, reflective access errors,
// notifiee lists under disruption, and text parsing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Entity.h"
#include "Kel/Notifiee.h"
#include "Kel/Parse.h"
#include "Kel/Ptr.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

// Counts its destructions in a counter owned by the test.
class Widget : public Kel::Entity {
  KEL_ENTITY_TYPE(Widget)

 public:
  explicit Widget(int* destroyed) : destroyed_(destroyed) {}

 protected:
  ~Widget() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

class Gadget : public Widget {
  KEL_ENTITY_TYPE(Gadget)

 public:
  using Widget::Widget;
};

// Wraps `this` in a Ptr during construction, as reactors do when they register themselves.
class SelfWrapping : public Widget {
  KEL_ENTITY_TYPE(SelfWrapping)

 public:
  explicit SelfWrapping(int* destroyed) : Widget(destroyed) {
    const Kel::Ptr<SelfWrapping> self(this);
    seenReferences_ = self->references();
  }
  long seenReferences_;
};

KEL_DEFINE_ENTITY_TYPE(Widget, "KelTest::Widget")
KEL_DEFINE_ENTITY_TYPE(Gadget, "KelTest::Gadget")
KEL_DEFINE_ENTITY_TYPE(SelfWrapping, "KelTest::SelfWrapping")

// Live counts are process-wide: each test compares against the counts seen in SetUp.
class EntityFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    widgetsLive_ = Widget::staticType().liveCount();
    gadgetsLive_ = Gadget::staticType().liveCount();
    allLive_ = Kel::TypeRegistry::liveEntities();
  }
  void TearDown() override {
    EXPECT_EQ(Widget::staticType().liveCount(), widgetsLive_);
    EXPECT_EQ(Gadget::staticType().liveCount(), gadgetsLive_);
    EXPECT_EQ(Kel::TypeRegistry::liveEntities(), allLive_);
  }
  std::int64_t widgetsLive_ = 0, gadgetsLive_ = 0, allLive_ = 0;
  int destroyed_ = 0;
};

using PtrTest = EntityFixture;

TEST_F(PtrTest, CopyMoveAndConvertShareOneCount) {
  Kel::Ptr<Gadget> g = Kel::allocate<Gadget>(&destroyed_);
  EXPECT_EQ(g->references(), 1);
  Kel::Ptr<Widget> w = g;
  Kel::Ptr<const Widget> view = w;
  EXPECT_EQ(g->references(), 3);
  Kel::Ptr<const Widget> moved = std::move(view);
  Kel::Ptr<const Widget> convertedMove = std::move(w);
  EXPECT_FALSE(view);
  EXPECT_FALSE(w);
  EXPECT_EQ(moved, g);
  EXPECT_EQ(convertedMove, g);
  EXPECT_EQ(g->references(), 3);
  EXPECT_EQ(Kel::dynamicPtrCast<Gadget>(Kel::Ptr<Widget>(g)), g);
  EXPECT_FALSE(Kel::dynamicPtrCast<Gadget>(Kel::allocate<Widget>(&destroyed_)));
  EXPECT_EQ(destroyed_, 1);  // the temporary Widget
  g = nullptr;
  convertedMove = nullptr;
  EXPECT_EQ(destroyed_, 1);
  moved = nullptr;
  EXPECT_EQ(destroyed_, 2);
}

TEST_F(PtrTest, AdoptTakesOverAReleasedReference) {
  Kel::Ptr<Widget> w = Kel::allocate<Widget>(&destroyed_);
  Widget* raw = w.release();
  EXPECT_FALSE(w);
  EXPECT_EQ(raw->references(), 1);
  Kel::Ptr<Widget> adopted = Kel::Ptr<Widget>::adopt(raw);
  EXPECT_EQ(adopted->references(), 1);
  adopted = adopted;  // self-assignment keeps the entity
  EXPECT_EQ(destroyed_, 0);
  adopted = Kel::allocate<Widget>(&destroyed_);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(PtrTest, ConstructorWrappingThisSurvives) {
  Kel::Ptr<SelfWrapping> s = Kel::allocate<SelfWrapping>(&destroyed_);
  EXPECT_EQ(s->seenReferences_, 2);
  EXPECT_EQ(s->references(), 1);
  EXPECT_EQ(destroyed_, 0);
  s = nullptr;
  EXPECT_EQ(destroyed_, 1);
}

using EntityTest = EntityFixture;

TEST_F(EntityTest, LiveCountIsKeptPerMostDerivedType) {
  const std::uint64_t gadgetsAllocated = Gadget::staticType().allocatedCount();
  std::vector<Kel::Ptr<Widget>> held{Kel::allocate<Widget>(&destroyed_),
                                     Kel::allocate<Widget>(&destroyed_),
                                     Kel::allocate<Gadget>(&destroyed_)};
  EXPECT_EQ(Widget::staticType().liveCount(), widgetsLive_ + 2);
  EXPECT_EQ(Gadget::staticType().liveCount(), gadgetsLive_ + 1);
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), allLive_ + 3);
  EXPECT_EQ(Gadget::staticType().allocatedCount(), gadgetsAllocated + 1);
  EXPECT_EQ(&held[2]->fwkType(), &Gadget::staticType());
  held.clear();
  EXPECT_EQ(destroyed_, 3);
}

TEST_F(EntityTest, UnknownAttributeIsAnError) {
  Kel::Ptr<Gadget> g = Kel::allocate<Gadget>(&destroyed_);
  std::string value = "unchanged";
  EXPECT_FALSE(g->attribute("colour", value));
  EXPECT_EQ(value, "unchanged");
  EXPECT_THAT(
      [&] { g->attributeIs("colour", "red"); },
      ThrowsMessage<Kel::AttributeError>(StrEq("no attribute 'colour' in KelTest::Gadget")));
}

TEST(TypeRegistryTest, RegistrationIsIdempotentAndOrdered) {
  EXPECT_EQ(&Kel::TypeRegistry::registerType("KelTest::Widget"), &Widget::staticType());
  EXPECT_EQ(Kel::TypeRegistry::type("KelTest::Gadget"), &Gadget::staticType());
  EXPECT_EQ(Kel::TypeRegistry::type("KelTest::Unregistered"), nullptr);
  // Load-time registration follows the order of definition in the file.
  EXPECT_LT(Widget::staticType().registrationIndex(), Gadget::staticType().registrationIndex());
  EXPECT_LT(Gadget::staticType().registrationIndex(),
            SelfWrapping::staticType().registrationIndex());
  const Kel::Type& once = Kel::TypeRegistry::registerType("KelTest::Once");
  EXPECT_EQ(&Kel::TypeRegistry::registerType("KelTest::Once"), &once);
  std::vector<std::string> names;
  for (const Kel::Type* t : Kel::TypeRegistry::types()) {
    EXPECT_EQ(t->registrationIndex(), names.size());
    names.push_back(t->name());
  }
  EXPECT_EQ(std::count(names.begin(), names.end(), "KelTest::Once"), 1);
}

// A notifier with one observable event, and an observer that logs "<name><value>" and then
// runs an optional one-shot disruption.
class Source : public Kel::Entity {
  KEL_ENTITY_TYPE(Source)

 public:
  class NotifieeConst : public Kel::NotifieeConst<Source> {
   public:
    virtual void onTick(int) {}
  };
  void tick(int v) { notifiees_.visit(&NotifieeConst::onTick, v); }
  Kel::NotifieeList<Source>& notifiees() const { return notifiees_; }

 private:
  mutable Kel::NotifieeList<Source> notifiees_;
};

class Observer : public Source::NotifieeConst {
  KEL_ENTITY_TYPE(Observer)

 public:
  Observer(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
  void onTick(int v) override {
    log_->push_back(name_ + std::to_string(v));
    if (auto once = std::exchange(disruption, nullptr)) once();
  }
  std::function<void()> disruption;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

KEL_DEFINE_ENTITY_TYPE(Source, "KelTest::Source")
KEL_DEFINE_ENTITY_TYPE(Observer, "KelTest::Observer")

class NotifieeListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    observersLive_ = Observer::staticType().liveCount();
    sourcesLive_ = Source::staticType().liveCount();
    source_ = Kel::allocate<Source>();
    for (const char* name : {"a", "b", "c"}) observers_.push_back(watch(name));
  }
  void TearDown() override {
    observers_.clear();
    source_ = nullptr;
    EXPECT_EQ(Observer::staticType().liveCount(), observersLive_);
    EXPECT_EQ(Source::staticType().liveCount(), sourcesLive_);
  }
  Kel::Ptr<Observer> watch(const std::string& name) {
    auto o = Kel::allocate<Observer>(name, &log_);
    o->notifierIs(source_);
    return o;
  }
  // The log of one tick.
  std::vector<std::string> tick(int v) {
    log_.clear();
    source_->tick(v);
    return log_;
  }
  std::int64_t observersLive_ = 0, sourcesLive_ = 0;
  std::vector<std::string> log_;
  Kel::Ptr<Source> source_;
  std::vector<Kel::Ptr<Observer>> observers_;  // a, b, c
};

TEST_F(NotifieeListTest, VisitsInRegistrationOrderOncePerObserver) {
  observers_[1]->notifierIs(source_);  // already there: not added twice
  EXPECT_THAT(tick(1), ElementsAre("a1", "b1", "c1"));
  EXPECT_EQ(source_->notifiees().size(), 3u);
}

// What observer b does to the list during the first tick.
enum class Disruption { detachSelf, detachLater, detachEarlier, destroySelf, destroyLater, add };

struct DisruptionCase {
  const char* name;
  Disruption disruption;
  std::vector<std::string> first, second;
};

class NotifieeListDisruptionTest : public NotifieeListTest,
                                   public ::testing::WithParamInterface<DisruptionCase> {};

TEST_P(NotifieeListDisruptionTest, FollowsTheListPolicy) {
  Kel::Ptr<Observer> added;
  auto& o = observers_;
  o[1]->disruption = [&, d = GetParam().disruption] {
    switch (d) {
      case Disruption::detachSelf:
        return o[1]->notifierIs(nullptr);
      case Disruption::detachLater:
        return o[2]->notifierIs(nullptr);
      case Disruption::detachEarlier:
        return o[0]->notifierIs(nullptr);
      case Disruption::destroySelf:
        return void(o[1] = nullptr);
      case Disruption::destroyLater:
        return void(o[2] = nullptr);
      case Disruption::add:
        return void(added = watch("d"));
    }
  };
  EXPECT_EQ(tick(1), GetParam().first);
  EXPECT_EQ(tick(2), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(
    Policy, NotifieeListDisruptionTest,
    ::testing::Values(
        DisruptionCase{"DetachSelf", Disruption::detachSelf, {"a1", "b1", "c1"}, {"a2", "c2"}},
        DisruptionCase{"DetachLater", Disruption::detachLater, {"a1", "b1"}, {"a2", "b2"}},
        DisruptionCase{
            "DetachEarlier", Disruption::detachEarlier, {"a1", "b1", "c1"}, {"b2", "c2"}},
        DisruptionCase{"DestroySelf", Disruption::destroySelf, {"a1", "b1", "c1"}, {"a2", "c2"}},
        DisruptionCase{"DestroyLater", Disruption::destroyLater, {"a1", "b1"}, {"a2", "b2"}},
        DisruptionCase{"Add", Disruption::add, {"a1", "b1", "c1"}, {"a2", "b2", "c2", "d2"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NotifieeListTest, NestedVisitsKeepTheOuterVisitInStep) {
  observers_[0]->disruption = [this] { source_->tick(2); };
  observers_[1]->disruption = [this] { observers_[1]->notifierIs(nullptr); };
  EXPECT_THAT(tick(1), ElementsAre("a1", "a2", "b2", "c2", "c1"));
  EXPECT_THAT(tick(3), ElementsAre("a3", "c3"));
}

TEST_F(NotifieeListTest, UnregisteredAndInactiveObserversAreSkipped) {
  observers_[1]->isRegisteredNotifieeIs(false);
  observers_[2]->hasNotificationActiveIs(false);
  EXPECT_THAT(tick(1), ElementsAre("a1"));
  EXPECT_EQ(observers_[1]->notifier(), source_);  // keeps its target while off the list
  observers_[1]->isRegisteredNotifieeIs(true);
  observers_[2]->hasNotificationActiveIs(true);
  EXPECT_THAT(tick(2), ElementsAre("a2", "c2", "b2"));  // b registered again, at the end
}

TEST_F(NotifieeListTest, NotifierIsRetargets) {
  Kel::Ptr<Source> other = Kel::allocate<Source>();
  observers_[0]->notifierIs(other);
  EXPECT_EQ(observers_[0]->notifier(), other);
  EXPECT_THAT(tick(1), ElementsAre("b1", "c1"));
  other->tick(2);
  EXPECT_THAT(log_, ElementsAre("b1", "c1", "a2"));
  EXPECT_EQ(other->notifiees().size(), 1u);
}

TEST_F(NotifieeListTest, NotifierDestroyedFirstDetachesItsObservers) {
  source_ = nullptr;
  for (auto& o : observers_) EXPECT_EQ(o->notifier(), nullptr);
  Kel::Ptr<Source> next = Kel::allocate<Source>();
  observers_[2]->notifierIs(next);
  next->tick(4);
  EXPECT_THAT(log_, ElementsAre("c4"));
}

// Kel::needString / Kel::deserializeAttr.
std::string parse(const std::string& text, std::string_view expected) {
  const Kel::String s(text);
  Kel::String::IteratorConst it = s.begin();
  Kel::needString(it, s.end(), expected);
  return std::string(it, s.end());
}

template <class U>
std::string parseNumber(const std::string& text) {
  const Kel::String s(text);
  Kel::String::IteratorConst it = s.begin();
  U v = 0;
  Kel::deserializeAttr(it, s.end(), "n", v);
  return std::to_string(v) + "|" + std::string(it, s.end());
}

TEST(ParseTest, NeedStringAdvancesPastTheExpectedText) {
  EXPECT_EQ(parse("Value('x')", "Value('"), "x')");
  EXPECT_THAT([] { parse("Valve('x')", "Value('"); },
              ThrowsMessage<Kel::ParseError>(StrEq("expected \"Value('\" at \"Valve('x')\"")));
  EXPECT_THAT([] { parse("Val", "Value"); },
              ThrowsMessage<Kel::ParseError>(StrEq("expected \"Value\" at \"Val\"")));
  EXPECT_THAT([] { parse("", "("); },
              ThrowsMessage<Kel::ParseError>(StrEq("expected \"(\" at end of text")));
  EXPECT_THAT([] { parse("0123456789abcdefXYZ", "("); },
              ThrowsMessage<Kel::ParseError>(StrEq("expected \"(\" at \"0123456789abcdef...\"")));
}

struct WidthCase {
  const char* kind;
  std::string (*parse)(const std::string&);
  const char* max;
  const char* overflow;
  const char* overflowExcerpt;  // what the message quotes of it (at most 16 characters)
};

class DeserializeAttrTest : public ::testing::TestWithParam<WidthCase> {};

TEST_P(DeserializeAttrTest, ReadsUpToTheLargestValueOfItsWidth) {
  const WidthCase& c = GetParam();
  EXPECT_EQ(c.parse(std::string(c.max) + ")"), std::string(c.max) + "|)");
  EXPECT_EQ(c.parse("0007,"), "7|,");
  const std::string kind = std::string("expected ") + c.kind + " for attribute 'n' ";
  EXPECT_THAT([&] { c.parse(c.overflow); },
              ThrowsMessage<Kel::ParseError>(
                  StrEq(kind + "(value out of range) at \"" + c.overflowExcerpt + "\"")));
  EXPECT_THAT([&] { c.parse("-1"); },
              ThrowsMessage<Kel::ParseError>(StrEq(kind + "(no digits) at \"-1\"")));
  EXPECT_THAT([&] { c.parse(""); },
              ThrowsMessage<Kel::ParseError>(StrEq(kind + "(no digits) at end of text")));
}

INSTANTIATE_TEST_SUITE_P(
    Widths, DeserializeAttrTest,
    ::testing::Values(
        WidthCase{"unsigned 8-bit number", parseNumber<std::uint8_t>, "255", "256", "256"},
        WidthCase{"unsigned 16-bit number", parseNumber<std::uint16_t>, "65535", "65536", "65536"},
        WidthCase{"unsigned 32-bit number", parseNumber<std::uint32_t>, "4294967295", "4294967296",
                  "4294967296"},
        WidthCase{"unsigned 64-bit number", parseNumber<std::uint64_t>, "18446744073709551615",
                  "18446744073709551616", "1844674407370955..."}));

TEST(ParseTest, ValueToStrep) {
  EXPECT_EQ(Kel::valueToStrep(std::uint64_t{18446744073709551615ull}), "18446744073709551615");
  EXPECT_EQ(Kel::valueToStrep(true), "True");
  EXPECT_EQ(Kel::valueToStrep(false), "False");
}

}  // namespace
