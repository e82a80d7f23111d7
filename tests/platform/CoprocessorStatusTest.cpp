#include "Corvane/CoprocessorStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

// Records every onCoprocessor() with the value the status holds at that moment.
class Recorder : public CoprocessorStatus::NotifieeConst {
 public:
  void onCoprocessor(const Kel::String& name) override {
    calls.push_back(name + (notifier()->coprocessor(name).valid() ? ":set" : ":gone"));
  }
  std::vector<std::string> calls;
};

class CoprocessorStatusTest : public ::testing::Test {
 protected:
  void SetUp() override { recorder->notifierIs(status); }
  Kel::Ptr<CoprocessorStatus> status = Kel::allocate<CoprocessorStatus>(Kel::Name("status"));
  Kel::Ptr<Recorder> recorder = Kel::allocate<Recorder>();
};

TEST_F(CoprocessorStatusTest, NotifiesPerNameOnlyOnChange) {
  EXPECT_EQ(status->coprocessor("cop0"), Coprocessor());  // absent: the invalid default
  status->coprocessorIs("cop0", Coprocessor(1, 7));
  status->coprocessorIs("cop0", Coprocessor(1, 7));  // same value: silent
  status->coprocessorIs("cop0", Coprocessor(1, 8));  // new genId: a change
  status->coprocessorDel("cop1");                    // absent: silent
  status->coprocessorDel("cop0");
  status->coprocessorDel("cop0");
  EXPECT_THAT(recorder->calls, ElementsAre("cop0:set", "cop0:set", "cop0:gone"));
  EXPECT_THAT(status->coprocessorCol(), IsEmpty());

  status->coprocessorIs("a", Coprocessor(1, 1));
  status->coprocessorIs("b", Coprocessor(2, 1));
  recorder->calls.clear();
  status->coprocessorDelAll();
  EXPECT_THAT(recorder->calls, UnorderedElementsAre("a:gone", "b:gone"));
}

class CoprocessorStatusAttrLogAdapterSmTest : public CoprocessorStatusTest {
 protected:
  Kel::Ptr<CoprocessorStatusAttrLog> log =
      Kel::allocate<CoprocessorStatusAttrLog>(Kel::Name("coprocessorStatusAttrLog"));
  using Sm = CoprocessorStatusAttrLogAdapterSm;
};

TEST_F(CoprocessorStatusAttrLogAdapterSmTest, ReplaysLogThenFollowsAppends) {
  log->setRecordIs("a", Coprocessor(1, 1));
  log->setRecordIs("b", Coprocessor(2, 1));
  log->delRecordIs("a");
  log->delRecordIs("never");  // a delete of an absent name changes nothing
  auto sm = Sm::CoprocessorStatusAttrLogAdapterSmIs(log, status);
  EXPECT_THAT(recorder->calls, ElementsAre("a:set", "b:set", "a:gone"));
  EXPECT_EQ(sm->recordsApplied(), 4u);

  log->setRecordIs("b", Coprocessor(2, 1));  // unchanged value: no notification
  log->setRecordIs("b", Coprocessor(2, 5));
  EXPECT_THAT(recorder->calls, ElementsAre("a:set", "b:set", "a:gone", "b:set"));
  EXPECT_THAT(status->coprocessorCol(), ElementsAre(Pair("b", Coprocessor(2, 5))));
  EXPECT_EQ(sm->recordsApplied(), 6u);
}

// The assembly makes the adapter even when the log was not found.
TEST_F(CoprocessorStatusAttrLogAdapterSmTest, NullLogLeavesStatusAlone) {
  status->coprocessorIs("a", Coprocessor(1, 1));
  auto sm = Sm::CoprocessorStatusAttrLogAdapterSmIs(nullptr, status);
  EXPECT_EQ(sm->recordsApplied(), 0u);
  EXPECT_EQ(status->coprocessor("a"), Coprocessor(1, 1));
}

TEST_F(CoprocessorStatusAttrLogAdapterSmTest, ReleasedAdapterStopsFollowingAndFreesReactor) {
  const auto* entityType = Kel::TypeRegistry::type("Kel::Entity");
  const auto reactorsBefore = entityType->liveCount();
  auto sm = Sm::CoprocessorStatusAttrLogAdapterSmIs(log, status);
  EXPECT_EQ(log->notifiees().size(), 1u);
  sm = nullptr;
  EXPECT_EQ(log->notifiees().size(), 0u);
  EXPECT_EQ(entityType->liveCount(), reactorsBefore);
  log->setRecordIs("a", Coprocessor(1, 1));
  EXPECT_THAT(recorder->calls, IsEmpty());
}

TEST(CoprocessorStatusAttrLogAdapterSmDeathTest, NullStatusAborts) {
  EXPECT_DEATH(
      CoprocessorStatusAttrLogAdapterSm::CoprocessorStatusAttrLogAdapterSmIs(nullptr, nullptr),
      "Assertion failed: coprocessorStatus");
}

}  // namespace
}  // namespace Corvane
