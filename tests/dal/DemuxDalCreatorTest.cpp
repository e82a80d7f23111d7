#include "Zorvek/DemuxDalCreator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Parse.h"

namespace Zorvek {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

SerializerId parse(const Kel::String& text) { return SerializerId(text.begin(), text.end()); }

class SerializerIdTextTest : public ::testing::TestWithParam<U16> {};

TEST_P(SerializerIdTextTest, TextRoundTrips) {
  const SerializerId id(GetParam());
  std::ostringstream os;
  os << id;
  EXPECT_EQ(os.str(), std::to_string(GetParam()));
  EXPECT_EQ(valueToStrep(id), os.str());
  EXPECT_EQ(parse(valueToStrep(id)), id);
}

INSTANTIATE_TEST_SUITE_P(Values, SerializerIdTextTest, ::testing::Values(0, 1, 4242, 65535));

class SerializerIdParseErrorTest : public ::testing::TestWithParam<const char*> {};

TEST_P(SerializerIdParseErrorTest, RejectsText) {
  EXPECT_THROW(parse(GetParam()), Kel::ParseError);
}

INSTANTIATE_TEST_SUITE_P(BadTexts, SerializerIdParseErrorTest,
                         ::testing::Values("", "x1", "-1", " 1", "65536", "12a", "7 "));

TEST(SerializerIdTest, DefaultIsZeroAndOrderIsByValue) {
  EXPECT_EQ(SerializerId(), SerializerId(0));
  EXPECT_TRUE(SerializerId(1) < SerializerId(2));
  EXPECT_FALSE(SerializerId(2) < SerializerId(1));
  EXPECT_FALSE(SerializerId(3) < SerializerId(3));
  EXPECT_EQ(std::hash<SerializerId>()(SerializerId(513)), 513u);
}

TEST(SerializerIdTest, TypesRegisterInLoadOrder) {
  EXPECT_EQ(SerializerId::fwkType().name(), "Zorvek::SerializerId");
  const unsigned creator = Kel::TypeRegistry::type("Zorvek::DemuxDalCreator")->registrationIndex();
  EXPECT_EQ(SerializerId::fwkType().registrationIndex(), creator + 1);
  EXPECT_EQ(SerializerInfo::staticType().registrationIndex(), creator + 2);
}

class InfoRecorder : public SerializerInfo::NotifieeConst {
 public:
  void onAgentId() override { calls.push_back("agentId"); }
  void onName() override { calls.push_back("name"); }
  void onStatusDirName() override { calls.push_back("statusDirName"); }
  std::vector<std::string> calls;
};

TEST(SerializerInfoTest, StartsWithoutAgentAndNotifiesChanges) {
  auto info = Kel::allocate<SerializerInfo>(SerializerId(4));
  EXPECT_EQ(info->id(), SerializerId(4));
  EXPECT_EQ(info->agentId(), 65535);
  EXPECT_EQ(info->name() + info->kickFifoName() + info->configDirName() + info->statusDirName(),
            "");
  auto recorder = Kel::allocate<InfoRecorder>();
  recorder->notifierIs(info);
  info->agentIdIs(3);
  info->agentIdIs(3);
  info->nameIs("ser");
  info->statusDirNameIs("");  // unchanged
  info->statusDirNameIs("s/status");
  EXPECT_THAT(recorder->calls, ElementsAre("agentId", "name", "statusDirName"));
}

const LogicalResourceId kLogical{ResourceType::tableResource_, 0x70};
const PhysicalResourceId kPhysical{ResourceType::tableResource_, 0x1234};

// One row of the ownership decision table: the creator's maps, and the owner it must name
// for kPhysical.
struct OwnershipCase {
  const char* name;
  bool physicalMapped;                                        // kPhysical -> kLogical
  std::optional<U16> serializerOfLogical;                     // kLogical -> serializer
  std::vector<std::pair<U16, std::optional<AgentId>>> infos;  // described serializers
  AgentId owner;
  friend void PrintTo(const OwnershipCase& c, std::ostream* os) { *os << c.name; }
};

class DemuxDalCreatorOwnershipTest : public ::testing::TestWithParam<OwnershipCase> {};

TEST_P(DemuxDalCreatorOwnershipTest, AnswersOwnerAgent) {
  const OwnershipCase& c = GetParam();
  auto creator = demuxDalCreatorFactory(9, nullptr, "");
  if (c.physicalMapped) creator->physicalToLogicalResourceMapIs(kPhysical, kLogical);
  if (c.serializerOfLogical)
    creator->serializerIdMapIs(kLogical, SerializerId(*c.serializerOfLogical));
  for (const auto& [sid, agent] : c.infos) {
    auto info = creator->serializerInfoIs(SerializerId(sid));
    if (agent) info->agentIdIs(*agent);
  }
  EXPECT_EQ(creator->ownerAgentIdForPhysicalResource(kPhysical), c.owner);
  if (c.physicalMapped) {
    EXPECT_EQ(creator->ownerAgentIdForLogicalResource(kLogical), c.owner);
  }
}

INSTANTIATE_TEST_SUITE_P(
    DecisionTable, DemuxDalCreatorOwnershipTest,
    ::testing::Values(OwnershipCase{"MappedToDescribedSerializer", true, 3, {{0, 11}, {3, 22}}, 22},
                      // Serializer 0 is described, yet an unmapped physical id has no owner.
                      OwnershipCase{"UnmappedPhysicalId", false, 3, {{0, 11}, {3, 22}}, 0xFFFF},
                      OwnershipCase{
                          "LogicalWithoutSerializerFallsBackToZero", true, {}, {{0, 11}}, 11},
                      OwnershipCase{"LogicalWithoutSerializerNorZero", true, {}, {{3, 22}}, 0xFFFF},
                      OwnershipCase{"AgentNeverSet", true, 3, {{0, 11}, {3, {}}}, 0xFFFF},
                      OwnershipCase{"SerializerNotDescribed", true, 3, {{0, 11}}, 0xFFFF}),
    [](const auto& info) { return std::string(info.param.name); });

class CreatorRecorder : public DemuxDalCreator::NotifieeConst {
 public:
  void onSerializerIdMap(const LogicalResourceId& k) override { log("serializerIdMap", k.id()); }
  void onPhysicalToLogicalResourceMap(const PhysicalResourceId& k) override {
    log("physicalToLogical", k.id());
  }
  void onPhysicalRemoteResources(const LogicalResourceId& k) override {
    log("physicalRemote", k.id());
  }
  void onRequesterName(AgentId k) override { log("requesterName", k); }
  void onSerializerInfo(SerializerId k) override { log("serializerInfo", k.value()); }
  void onNextDalId() override { log("nextDalId", notifier()->nextDalId().value()); }
  void onDalProcessingStatusCol() override { log("dalProcessingStatusCol", 0); }
  void log(const std::string& what, U64 key) { calls.push_back(what + ":" + std::to_string(key)); }
  std::vector<std::string> calls;
};

class DemuxDalCreatorTest : public ::testing::Test {
 protected:
  void SetUp() override { recorder->notifierIs(creator); }
  Kel::Ptr<DemuxDalCreator> creator = demuxDalCreatorFactory(9, nullptr, "");
  Kel::Ptr<CreatorRecorder> recorder = Kel::allocate<CreatorRecorder>();
};

TEST_F(DemuxDalCreatorTest, NewCreatorHoldsArgumentsAndDefaults) {
  auto remote = Kel::allocate<LogicalRemoteResourceIdCol>();
  auto c = demuxDalCreatorFactory(12, remote, "cop/log");
  EXPECT_EQ(c->requesterAgentId(), 12);
  EXPECT_EQ(c->logicalRemoteResources(), remote);
  EXPECT_EQ(c->coprocessorStatusAttrLogPath(), "cop/log");
  EXPECT_EQ(c->nextDalId(), DalId(0));
  EXPECT_EQ(c->simulationSerializerId(), SerializerId(0));
  EXPECT_FALSE(c->trackErrors() || c->useSimulationForDefaultDal());
  EXPECT_TRUE(!c->coprocessorStatus() && !c->localCoprocessorStatus() &&
              !c->coprocessorStatusAttrLog() && !c->coprocessorStatusAdapterSm() &&
              !c->dalProcessingStatusCol() && !c->mountGroup());
  EXPECT_EQ(c->sliceId(), "");
  EXPECT_EQ(c->serializerIdMap(kLogical), SerializerId(0));
  EXPECT_EQ(c->physicalRemoteResources(kLogical), nullptr);
  EXPECT_EQ(c->physicalToLogicalResourceMap(kPhysical), LogicalResourceId());
  EXPECT_EQ(c->requesterName(12), "");
  EXPECT_EQ(c->serializerInfo(SerializerId(0)), nullptr);
}

TEST_F(DemuxDalCreatorTest, CollectionChangesNotifyForTheirKey) {
  creator->serializerIdMapIs(kLogical, SerializerId(1));
  creator->serializerIdMapIs(kLogical, SerializerId(1));  // unchanged
  creator->serializerIdMapIs(kLogical, SerializerId(2));
  creator->serializerIdMapDel(LogicalResourceId());  // absent
  creator->requesterNameIs(5, "agent5");
  auto info = creator->serializerInfoIs(SerializerId(6));
  EXPECT_EQ(creator->serializerInfoIs(SerializerId(6)), info);  // existing: no notification
  auto col = Kel::allocate<PhysicalResourceIdCol>();
  creator->physicalRemoteResourcesIs(kLogical, col);
  creator->physicalRemoteResourcesIs(kLogical, col);  // unchanged
  creator->physicalToLogicalResourceMapIs(kPhysical, kLogical);
  creator->physicalToLogicalResourceMapDelAll();
  creator->serializerIdMapDel(kLogical);
  EXPECT_THAT(recorder->calls,
              ElementsAre("serializerIdMap:112", "serializerIdMap:112", "requesterName:5",
                          "serializerInfo:6", "physicalRemote:112", "physicalToLogical:4660",
                          "physicalToLogical:4660", "serializerIdMap:112"));
  EXPECT_THAT(creator->physicalToLogicalResourceMapCol(), IsEmpty());
}

TEST_F(DemuxDalCreatorTest, NextDalIdWrapsAtEightBits) {
  creator->nextDalIdIs(DalId(254));
  creator->nextDalIdInc(DalId(1));
  creator->nextDalIdInc(DalId(1));
  creator->nextDalIdIs(DalId(0));  // unchanged
  EXPECT_THAT(recorder->calls, ElementsAre("nextDalId:254", "nextDalId:255", "nextDalId:0"));
}

TEST_F(DemuxDalCreatorTest, ProcessingStatusColIsMadeOnceAndDropped) {
  auto col = creator->dalProcessingStatusColIs();
  ASSERT_NE(col, nullptr);
  EXPECT_EQ(creator->dalProcessingStatusColIs(), col);
  creator->dalProcessingStatusColDel();
  creator->dalProcessingStatusColDel();
  EXPECT_EQ(creator->dalProcessingStatusCol(), nullptr);
  EXPECT_THAT(recorder->calls, ElementsAre("dalProcessingStatusCol:0", "dalProcessingStatusCol:0"));
}

TEST(DemuxDalCreatorLifetimeTest, ReleasingCreatorReleasesItsEntities) {
  const auto* infoType = Kel::TypeRegistry::type("Zorvek::SerializerInfo");
  const auto* colType = Kel::TypeRegistry::type("Zorvek::DalProcessingStatusCol");
  const auto infos = infoType->liveCount(), cols = colType->liveCount();
  auto creator = demuxDalCreatorFactory(1, nullptr, "");
  creator->serializerInfoIs(SerializerId(0));
  creator->serializerInfoIs(SerializerId(1));
  creator->dalProcessingStatusColIs();
  EXPECT_EQ(infoType->liveCount(), infos + 2);
  creator = nullptr;
  EXPECT_EQ(infoType->liveCount(), infos);
  EXPECT_EQ(colType->liveCount(), cols);
}

}  // namespace
}  // namespace Zorvek
