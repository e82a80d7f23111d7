#include "Corvane/CoprocessorStatus.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace Corvane {
namespace {

using namespace ::testing;

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
  EXPECT_TRUE(status->coprocessorCol().empty());

  status->coprocessorIs("a", Coprocessor(1, 1));
  status->coprocessorIs("b", Coprocessor(2, 1));
  recorder->calls.clear();
  status->coprocessorDelAll();
  EXPECT_THAT(recorder->calls, UnorderedElementsAre("a:gone", "b:gone"));
}

using CoprocessorStatusAttrLogAdapterSmTest = CoprocessorStatusTest;

// Replays the log, follows its appends, and once released neither follows nor leaks.
TEST_F(CoprocessorStatusAttrLogAdapterSmTest, ReplaysLogThenFollowsAppendsUntilReleased) {
  using Sm = CoprocessorStatusAttrLogAdapterSm;
  const auto* entityType = Kel::TypeRegistry::type("Kel::Entity");
  const auto entitiesBefore = entityType->liveCount();
  auto log = Kel::allocate<CoprocessorStatusAttrLog>(Kel::Name("coprocessorStatusAttrLog"));
  log->setRecordIs("a", Coprocessor(1, 1));
  log->setRecordIs("b", Coprocessor(2, 1));
  log->delRecordIs("a");
  log->delRecordIs("never");  // a delete of an absent name changes nothing
  auto sm = Sm::CoprocessorStatusAttrLogAdapterSmIs(log, status);
  EXPECT_THAT(recorder->calls, ElementsAre("a:set", "b:set", "a:gone"));
  log->setRecordIs("b", Coprocessor(2, 1));  // unchanged value: no notification
  log->setRecordIs("b", Coprocessor(2, 5));
  EXPECT_THAT(recorder->calls, ElementsAre("a:set", "b:set", "a:gone", "b:set"));
  EXPECT_THAT(status->coprocessorCol(), ElementsAre(Pair("b", Coprocessor(2, 5))));
  EXPECT_EQ(std::pair(sm->recordsApplied(), log->notifiees().size()),
            std::pair(std::size_t{6}, std::size_t{1}));
  sm = nullptr;
  log->setRecordIs("c", Coprocessor(3, 1));
  EXPECT_EQ(log->notifiees().size(), 0u);
  EXPECT_EQ(recorder->calls.size(), 4u);
  log = nullptr;
  EXPECT_EQ(entityType->liveCount(), entitiesBefore);
  // The assembly makes the adapter even when the log was not found.
  EXPECT_EQ(Sm::CoprocessorStatusAttrLogAdapterSmIs(nullptr, status)->recordsApplied(), 0u);
  EXPECT_EQ(status->coprocessor("b"), Coprocessor(2, 5));
}

TEST(CoprocessorStatusAttrLogAdapterSmDeathTest, NullStatusAborts) {
  EXPECT_DEATH(
      CoprocessorStatusAttrLogAdapterSm::CoprocessorStatusAttrLogAdapterSmIs(nullptr, nullptr),
      "Assertion failed: coprocessorStatus");
}

}  // namespace
}  // namespace Corvane
