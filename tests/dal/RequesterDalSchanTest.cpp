// RequesterDalSchan: the coprocessor decisions, followed on a real SchanRequester (what it
// has attached, and its own traces of each attach and detach) and on the DAL's private
// record; the environment switch of hardware access, the shadow hooks and the state dump.
#include "Zorvek/RequesterDalSchan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Zorvek/QueueRequester.h"
#include "Zorvek/SchanRequester.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using Corvane::Coprocessor;
using doubles::assertion;
using doubles::DalTrace;
using doubles::dumpOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// Every line the DAL ("dal/<level> text") and the S-channel requester ("req/<level> text")
// trace, with each change of the DAL's private record ("record <name> := <value>", "record
// <name> gone") inserted where it happened: the journal shows whether the record changed
// before or after each requester call.
class Journal : public Corvane::CoprocessorStatus::NotifieeConst {
 public:
  void onCoprocessor(const Kel::String& name) override {
    const Coprocessor value = notifier()->coprocessor(name);
    std::ostringstream os;
    os << "record " << name;
    value.valid() ? os << " := " << value : os << " gone";
    marks_.emplace_back(requesterTrace_.records().size(), os.str());
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    auto mark = marks_.begin();
    const std::vector<Kel::TraceRecord>& records = requesterTrace_.records();
    for (std::size_t i = 0;; ++i) {
      for (; mark != marks_.end() && mark->first == i; ++mark) out.push_back(mark->second);
      if (i == records.size()) return out;
      const Kel::TraceRecord& r = records[i];
      const bool fromDal = r.handle == "ZorvekRequesterDalSchan";
      if (fromDal || r.handle == "ZorvekSchanRequester")
        out.push_back((fromDal ? "dal/" : "req/") + std::to_string(r.level) + " " + r.message);
    }
  }
  void clear() {
    requesterTrace_.clear();
    marks_.clear();
  }

 private:
  DalTrace dalTrace_{"ZorvekRequesterDalSchan"};
  // The inner capture: it receives the lines of both handles.
  DalTrace requesterTrace_{"ZorvekSchanRequester"};
  std::vector<std::pair<std::size_t, std::string>> marks_;
};

class RequesterDalSchanTest : public ::testing::Test {
 protected:
  void makeDal() {
    dal = requesterDalSchanFactory("schanDal", requester, status);
    journal->notifierIs(dal->coprocessorSm()->attachedCoprocessor().ptr());
  }
  static Kel::Ptr<QueueRequester> queueRequester() {
    return Kel::allocate<QueueRequester>("queue", AgentId(5), 4, DalId(1), nullptr, nullptr,
                                         IoMemType::queueMemory_, nullptr, nullptr, "", "");
  }
  std::vector<Kel::String> recordNames() const {
    std::vector<Kel::String> names;
    for (const auto& [name, value] : dal->coprocessorSm()->attachedCoprocessor()->coprocessorCol())
      names.push_back(name);
    return names;
  }

  Kel::Ptr<Corvane::CoprocessorStatus> status =
      Kel::allocate<Corvane::CoprocessorStatus>(Kel::Name("dalCoprocessorStatus"));
  Kel::Ptr<SchanRequester> requester =
      Kel::allocate<SchanRequester>("schan", AgentId(5), 8, DalId(0), nullptr, nullptr, 5u);
  Kel::Ptr<Journal> journal = Kel::allocate<Journal>();
  Kel::Ptr<RequesterDalSchan> dal;
};

TEST_F(RequesterDalSchanTest, ConstructionAttachesEachValidCoprocessorOnce) {
  status->coprocessorIs("c0", Coprocessor(7, 1));
  status->coprocessorIs("c1", Coprocessor(8, 2));
  status->coprocessorIs("off", Coprocessor());
  makeDal();
  EXPECT_THAT(journal->lines(),
              UnorderedElementsAre("dal/8 RequesterDalSchan::handleCoprocessor cop c0",
                                   "dal/0 attach coprocessor c0",
                                   "req/0 attachCoprocessor schan Coprocessor(id 7, genId 1)",
                                   "dal/8 RequesterDalSchan::handleCoprocessor cop c1",
                                   "dal/0 attach coprocessor c1",
                                   "req/0 attachCoprocessor schan Coprocessor(id 8, genId 2)"));
  EXPECT_THAT(requester->attachedCoprocessors(),
              UnorderedElementsAre(Coprocessor(7, 1), Coprocessor(8, 2)));
  EXPECT_THAT(recordNames(), UnorderedElementsAre("c0", "c1"));
}

TEST_F(RequesterDalSchanTest, NullStatusNeverAttaches) {
  status = nullptr;
  makeDal();
  EXPECT_EQ(dal->coprocessorSm()->schanRequester(), requester);
  EXPECT_THAT(journal->lines(), IsEmpty());
  EXPECT_THAT(requester->attachedCoprocessors(), IsEmpty());
  EXPECT_THAT(recordNames(), IsEmpty());
}

struct Step {
  enum Kind { set, del, notify } kind;
  const char* name;
  Coprocessor value = {};
};

struct DecisionCase {
  const char* name;
  std::vector<Step> steps;  // applied once the DAL has attached c0 := (7, genId 1)
  std::vector<std::string> journal;
  std::vector<Coprocessor> attached;  // the requester's, in attach order
  U64 unidentifiedDetaches;
  friend void PrintTo(const DecisionCase& c, std::ostream* os) { *os << c.name; }
};

class RequesterDalSchanDecisionTest : public RequesterDalSchanTest,
                                      public ::testing::WithParamInterface<DecisionCase> {};

TEST_P(RequesterDalSchanDecisionTest, EachNotificationAttachesDetachesOrNothing) {
  const DecisionCase& c = GetParam();
  status->coprocessorIs("c0", Coprocessor(7, 1));
  makeDal();
  journal->clear();
  for (const Step& s : c.steps) {
    if (s.kind == Step::set) status->coprocessorIs(s.name, s.value);
    if (s.kind == Step::del) status->coprocessorDel(s.name);
    if (s.kind == Step::notify) status->coprocessorNotify(s.name);
  }
  EXPECT_THAT(journal->lines(), ElementsAreArray(c.journal));
  EXPECT_THAT(requester->attachedCoprocessors(), ElementsAreArray(c.attached));
  EXPECT_EQ(requester->unidentifiedDetaches(), c.unidentifiedDetaches);
}

// clang-format off
const std::vector<DecisionCase> kDecisions = {
  {"SameGenIdOnlyTraces", {{Step::notify, "c0"}},
   {"dal/8 RequesterDalSchan::handleCoprocessor cop c0",
    "dal/0 coprocessor c0 has already been attached"},
   {Coprocessor(7, 1)}, 0},
  // The genIds differ only above bit 31, and the new value has another coprocessorId: the
  // old copy must be detached (by its id) before the new value is attached.
  {"NewGenIdDetachesOldCopyThenAttaches", {{Step::set, "c0", Coprocessor(9, 0x100000001)}},
   {"dal/8 RequesterDalSchan::handleCoprocessor cop c0",
    "dal/0 coprocessor c0 genId has changed. old genId: 1 new genId: 4294967297",
    "record c0 gone",
    "req/0 detachCoprocessor schan Coprocessor(id 7, genId 1)",
    "dal/0 attach coprocessor c0",
    "req/0 attachCoprocessor schan Coprocessor(id 9, genId 4294967297)",
    "record c0 := Coprocessor(id 9, genId 4294967297)"},
   {Coprocessor(9, 0x100000001)}, 0},
  {"NeverAttachedEntryOnlyTraces",
   {{Step::set, "x", Coprocessor()}, {Step::del, "x"}, {Step::notify, "ghost"}},
   {"dal/8 RequesterDalSchan::handleCoprocessor cop x",
    "dal/8 RequesterDalSchan::handleCoprocessor cop x",
    "dal/8 RequesterDalSchan::handleCoprocessor cop ghost"},
   {Coprocessor(7, 1)}, 0},
  // With two attached, only a detach by the attached copy would identify c1: the DAL hands
  // over the invalid value read from the status, after the record has dropped c1.
  {"RemovalDetachesWithTheInvalidStatusValue",
   {{Step::set, "c1", Coprocessor(8, 1)}, {Step::del, "c1"}},
   {"dal/8 RequesterDalSchan::handleCoprocessor cop c1",
    "dal/0 attach coprocessor c1",
    "req/0 attachCoprocessor schan Coprocessor(id 8, genId 1)",
    "record c1 := Coprocessor(id 8, genId 1)",
    "dal/8 RequesterDalSchan::handleCoprocessor cop c1",
    "record c1 gone",
    "dal/0 detach coprocessor c1",
    "req/3 detachCoprocessor schan Coprocessor(invalid) identifies none of 2 attached"},
   {Coprocessor(7, 1), Coprocessor(8, 1)}, 1},
  {"InvalidValueDetaches", {{Step::set, "c0", Coprocessor()}},
   {"dal/8 RequesterDalSchan::handleCoprocessor cop c0",
    "record c0 gone",
    "dal/0 detach coprocessor c0",
    "req/0 detachCoprocessor schan Coprocessor(id 7, genId 1)"},
   {}, 0}};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Decisions, RequesterDalSchanDecisionTest, ::testing::ValuesIn(kDecisions),
                         [](const auto& info) { return std::string(info.param.name); });

class RequesterDalSchanEnvTest
    : public RequesterDalSchanTest,
      public ::testing::WithParamInterface<std::tuple<const char*, bool>> {};

TEST_P(RequesterDalSchanEnvTest, SkipHwAccessPresenceSwitchesHardwareOff) {
  const auto [value, hwAccessAllowed] = GetParam();
  const doubles::ScopedEnv env("XP_SKIP_HW_ACCESS", value);
  makeDal();
  // The requester has no backend, so the DAL is ready exactly when the hardware is off.
  EXPECT_EQ(std::pair(dal->hwAccessAllowed(), dal->ready()),
            std::pair(hwAccessAllowed, !hwAccessAllowed));
}

INSTANTIATE_TEST_SUITE_P(Values, RequesterDalSchanEnvTest,
                         ::testing::Values(std::tuple(nullptr, true), std::tuple("", false),
                                           std::tuple("0", false)),
                         [](const auto& info) {
                           const char* value = std::get<0>(info.param);
                           return std::string(!value ? "Unset" : *value ? "Set" : "SetEmpty");
                         });

// Records the five arguments of every shadow access and answers `result`.
class ArgsHelper : public doubles::FakeHelper {
 public:
  using Call = std::tuple<const char*, unsigned, DeviceOffset, U16, const void*, const void*>;
  S32 shadowRead(DeviceId d, DeviceOffset o, U16 size, void* data, void* optArg) const override {
    calls.emplace_back("read", d.value(), o, size, data, optArg);
    return result;
  }
  S32 shadowWrite(DeviceId d, DeviceOffset o, U16 size, const void* data, void* optArg) override {
    calls.emplace_back("write", d.value(), o, size, data, optArg);
    return result;
  }
  S32 result = 0;
  mutable std::vector<Call> calls;
};

TEST_F(RequesterDalSchanTest, ShadowHooksForwardToTheHelper) {
  makeDal();
  const auto helper = Kel::allocate<ArgsHelper>();
  dal->helperIs(helper);
  U8 data[12];
  int optArg = 0;
  for (S32 result : {0, -1, 3}) {
    helper->result = result;
    helper->calls.clear();
    EXPECT_EQ(dal->doReadFromShadow(DeviceId(2), 0x1234, 12, data, &optArg), result);
    EXPECT_EQ(dal->doWriteToShadow(DeviceId(3), 0x4320, 6, data, nullptr), result);
    EXPECT_THAT(helper->calls, ElementsAre(ArgsHelper::Call("read", 2, 0x1234, 12, data, &optArg),
                                           ArgsHelper::Call("write", 3, 0x4320, 6, data, nullptr)));
  }
}

TEST_F(RequesterDalSchanTest, ShowDalStateFramesTheSchanRequesterState) {
  for (const Kel::Ptr<Requester>& r :
       std::vector<Kel::Ptr<Requester>>{requester, queueRequester()}) {
    const auto d = requesterDalSchanFactory("schanDal", r, status);
    const std::string inner =
        r == requester ? dumpOf([&](U32 fd) { requester->showRequesterState(fd); }) : "";
    journal->clear();
    EXPECT_EQ(dumpOf([&](U32 fd) { d->showDalState(fd); }),
              dumpOf([&](U32 fd) { d->Dal::showDalState(fd); }) + "'schanRequesterStatus':{" +
                  inner + "},");
    EXPECT_THAT(journal->lines(),
                ElementsAre("dal/4 virtual void Zorvek::RequesterDalSchan::showDalState(U32)"));
  }
}

using RequesterDalSchanDeathTest = RequesterDalSchanTest;

TEST_F(RequesterDalSchanDeathTest, SameGenIdWithAnotherCoprocessorId) {
  status->coprocessorIs("c0", Coprocessor(7, 1));
  makeDal();
  EXPECT_DEATH(status->coprocessorIs("c0", Coprocessor(8, 1)),
               assertion("attachedCopStatus.coprocessorId() == copStatus.coprocessorId()"));
}

TEST_F(RequesterDalSchanDeathTest, AttachWithoutSchanRequester) {
  status->coprocessorIs("c0", Coprocessor(7, 1));
  EXPECT_DEATH(requesterDalSchanFactory("schanDal", queueRequester(), status),
               assertion("schanRequester()"));
}

}  // namespace
}  // namespace Zorvek
