// RequesterDalSchan: the coprocessor decisions, followed on a real SchanRequester (what it
// has attached, and its own traces of each attach and detach); the environment switch of
// hardware access.
#include "Zorvek/RequesterDalSchan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zorvek/QueueRequester.h"
#include "Zorvek/SchanRequester.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using Corvane::Coprocessor;
using Status = Corvane::CoprocessorStatus;
using namespace doubles;
using namespace ::testing;

const std::string kHandled = "dal/8 RequesterDalSchan::handleCoprocessor cop ";

class RequesterDalSchanTest : public ::testing::Test {
 protected:
  void makeDal() { dal = requesterDalSchanFactory("schanDal", requester, status); }
  static Kel::Ptr<QueueRequester> queueRequester() {
    return Kel::allocate<QueueRequester>("queue", AgentId(5), 4, DalId(1), nullptr, nullptr,
                                         IoMemType::queueMemory_, nullptr, nullptr, "", "");
  }
  // The DAL's lines as "dal/<level> text", the S-channel requester's as "req/<level> text".
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const Kel::TraceRecord& r : trace.records()) {
      const bool fromDal = r.handle == "ZorvekRequesterDalSchan";
      if (fromDal || r.handle == "ZorvekSchanRequester")
        out.push_back((fromDal ? "dal/" : "req/") + std::to_string(r.level) + " " + r.message);
    }
    return out;
  }

  Kel::Ptr<Status> status = Kel::allocate<Status>(Kel::Name("dalCoprocessorStatus"));
  Kel::Ptr<SchanRequester> requester =
      Kel::allocate<SchanRequester>("schan", AgentId(5), 8, DalId(0), nullptr, nullptr, 5u);
  Kel::Ptr<RequesterDalSchan> dal;
  DalTrace dalTrace{"ZorvekRequesterDalSchan"};
  DalTrace trace{"ZorvekSchanRequester"};  // the inner capture receives both handles' lines
};

// The coprocessors already in the status are attached at construction through the same
// decisions (the creator's tests and the assembled tree's dump see them); without a status
// there is nothing to follow.
TEST_F(RequesterDalSchanTest, WithoutAStatusNothingIsFollowed) {
  const auto withoutStatus = requesterDalSchanFactory("none", requester, nullptr);
  EXPECT_EQ(withoutStatus->coprocessorSm()->schanRequester(), requester);
  EXPECT_THAT(lines(), IsEmpty());
}

// Once the DAL has attached c0 := (7, genId 1), each change of the status: the lines traced,
// the requester's attached list and its count of detaches that identified nothing.
TEST_F(RequesterDalSchanTest, EachNotificationAttachesDetachesOrNothing) {
  // clang-format off
  for (const auto& [name, change, expected, attached, unidentified] : std::vector<std::tuple<
         const char*, std::function<void(Status&)>, std::vector<std::string>,
         std::vector<Coprocessor>, U64>>{
  {"SameGenIdOnlyTraces", [](Status& s) { s.coprocessorNotify("c0"); },
   {kHandled + "c0", "dal/0 coprocessor c0 has already been attached"}, {Coprocessor(7, 1)}, 0},
  // The genIds differ only above bit 31, and the new value has another coprocessorId: the
  // old copy must be detached (by its id) before the new value is attached.
  {"NewGenIdDetachesOldCopyThenAttaches",
   [](Status& s) { s.coprocessorIs("c0", Coprocessor(9, 0x100000001)); },
   {kHandled + "c0", "dal/0 coprocessor c0 genId has changed. old genId: 1 new genId: 4294967297",
    "req/0 detachCoprocessor schan Coprocessor(id 7, genId 1)", "dal/0 attach coprocessor c0",
    "req/0 attachCoprocessor schan Coprocessor(id 9, genId 4294967297)"},
   {Coprocessor(9, 0x100000001)}, 0},
  {"NeverAttachedEntryOnlyTraces", [](Status& s) {
     s.coprocessorIs("x", Coprocessor()), s.coprocessorDel("x"), s.coprocessorNotify("ghost"); },
   {kHandled + "x", kHandled + "x", kHandled + "ghost"}, {Coprocessor(7, 1)}, 0},
  // With two attached, only a detach by the attached copy would identify c1: the DAL hands
  // over the invalid value read from the status, after the record has dropped c1.
  {"RemovalDetachesWithTheInvalidStatusValue",
   [](Status& s) { s.coprocessorIs("c1", Coprocessor(8, 1)), s.coprocessorDel("c1"); },
   {kHandled + "c1", "dal/0 attach coprocessor c1",
    "req/0 attachCoprocessor schan Coprocessor(id 8, genId 1)", kHandled + "c1",
    "dal/0 detach coprocessor c1", "req/3 detachCoprocessor schan Coprocessor(invalid) identifies none of 2 attached"},
   {Coprocessor(7, 1), Coprocessor(8, 1)}, 1},
  {"InvalidValueDetaches", [](Status& s) { s.coprocessorIs("c0", Coprocessor()); },
   {kHandled + "c0", "dal/0 detach coprocessor c0",
    "req/0 detachCoprocessor schan Coprocessor(id 7, genId 1)"}, {}, 0}}) {
    // clang-format on
    status = Kel::allocate<Status>(Kel::Name("dalCoprocessorStatus"));
    requester =
        Kel::allocate<SchanRequester>("schan", AgentId(5), 8, DalId(0), nullptr, nullptr, 5u);
    status->coprocessorIs("c0", Coprocessor(7, 1));
    makeDal();
    trace.clear();
    change(*status);
    EXPECT_THAT(lines(), ElementsAreArray(expected)) << name;
    EXPECT_THAT(requester->attachedCoprocessors(), ElementsAreArray(attached));
    EXPECT_EQ(requester->unidentifiedDetaches(), unidentified);
  }
}

// Any value, even "0", switches the hardware off; the assembled-tree tests follow the rest.
TEST_F(RequesterDalSchanTest, SkipHwAccessPresenceSwitchesHardwareOff) {
  const doubles::ScopedEnv env("XP_SKIP_HW_ACCESS", "0");
  makeDal();
  EXPECT_FALSE(dal->hwAccessAllowed());
}

using RequesterDalSchanDeathTest = RequesterDalSchanTest;

TEST_F(RequesterDalSchanDeathTest, SameGenIdWithAnotherCoprocessorIdOrNoSchanRequester) {
  status->coprocessorIs("c0", Coprocessor(7, 1));
  EXPECT_DEATH(requesterDalSchanFactory("schanDal", queueRequester(), status),
               assertion("schanRequester()"));
  makeDal();
  EXPECT_DEATH(status->coprocessorIs("c0", Coprocessor(8, 1)),
               assertion("attachedCopStatus.coprocessorId() == copStatus.coprocessorId()"));
}

}  // namespace
}  // namespace Zorvek
