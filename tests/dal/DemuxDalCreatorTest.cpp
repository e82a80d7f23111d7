// DemuxDalCreator's model: serializer ids, the ownership answer, the DAL-id counter and the
// release of what it holds.
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

SerializerId parse(const Kel::String& text) { return SerializerId(text.begin(), text.end()); }

TEST(SerializerIdTest, TextRoundTripsAndOrderIsByValue) {
  for (U16 value : {0, 1, 4242, 65535}) {
    std::ostringstream os;
    os << SerializerId(value);
    EXPECT_EQ(std::pair(os.str(), valueToStrep(SerializerId(value))),
              std::pair(std::to_string(value), Kel::String(std::to_string(value))));
    EXPECT_EQ(parse(valueToStrep(SerializerId(value))), SerializerId(value));
  }
  for (const char* bad : {"", "x1", "-1", " 1", "65536", "12a", "7 "})
    EXPECT_THROW(parse(bad), Kel::ParseError) << bad;
  EXPECT_EQ(SerializerId(), SerializerId(0));
  EXPECT_TRUE(SerializerId(1) < SerializerId(2));
  EXPECT_FALSE(SerializerId(2) < SerializerId(1) || SerializerId(3) < SerializerId(3));
  EXPECT_EQ(std::hash<SerializerId>()(SerializerId(513)), 513u);
}

const LogicalResourceId kLogical{ResourceType::tableResource_, 0x70};
const PhysicalResourceId kPhysical{ResourceType::tableResource_, 0x1234};

// One row of the ownership decision: the creator's maps, and the owner it must name for
// kPhysical.
struct OwnershipCase {
  const char* name;
  bool physicalMapped;                                        // kPhysical -> kLogical
  std::optional<U16> serializerOfLogical;                     // kLogical -> serializer
  std::vector<std::pair<U16, std::optional<AgentId>>> infos;  // described serializers
  AgentId owner;
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

// clang-format off
INSTANTIATE_TEST_SUITE_P(DecisionTable, DemuxDalCreatorOwnershipTest, ::testing::Values(
    OwnershipCase{"MappedToDescribedSerializer", true, 3, {{0, 11}, {3, 22}}, 22},
    // Serializer 0 is described, yet an unmapped physical id has no owner.
    OwnershipCase{"UnmappedPhysicalId", false, 3, {{0, 11}, {3, 22}}, 0xFFFF},
    OwnershipCase{"LogicalWithoutSerializerFallsBackToZero", true, {}, {{0, 11}}, 11},
    OwnershipCase{"LogicalWithoutSerializerNorZero", true, {}, {{3, 22}}, 0xFFFF},
    OwnershipCase{"AgentNeverSet", true, 3, {{0, 11}, {3, {}}}, 0xFFFF},
    OwnershipCase{"SerializerNotDescribed", true, 3, {{0, 11}}, 0xFFFF}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

class CounterRecorder : public DemuxDalCreator::NotifieeConst {
 public:
  void onNextDalId() override { seen.push_back(notifier()->nextDalId().value()); }
  std::vector<unsigned> seen;
};

TEST(DemuxDalCreatorTest, DalIdCounterWrapsAtEightBitsAndStatusCollectionIsMadeOnce) {
  const auto creator = demuxDalCreatorFactory(9, nullptr, "");
  const auto recorder = Kel::allocate<CounterRecorder>();
  recorder->notifierIs(creator);
  creator->nextDalIdIs(DalId(254));
  creator->nextDalIdInc(DalId(1));
  creator->nextDalIdInc(DalId(1));
  creator->nextDalIdIs(DalId(0));  // unchanged
  EXPECT_THAT(recorder->seen, ElementsAre(254, 255, 0));
  const auto statusCol = creator->dalProcessingStatusColIs();
  EXPECT_EQ(creator->dalProcessingStatusColIs(), statusCol);
  creator->dalProcessingStatusColDel();
  EXPECT_EQ(creator->dalProcessingStatusCol(), nullptr);
}

TEST(DemuxDalCreatorLifetimeTest, ReleasingCreatorReleasesItsEntities) {
  const std::int64_t live = Kel::TypeRegistry::liveEntities();
  auto creator = demuxDalCreatorFactory(1, nullptr, "");
  creator->serializerInfoIs(SerializerId(0));
  creator->serializerInfoIs(SerializerId(1));
  creator->dalProcessingStatusColIs();
  creator->physicalRemoteResourcesIs(kLogical, Kel::allocate<PhysicalResourceIdCol>());
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), live + 5);
  creator = nullptr;
  EXPECT_EQ(Kel::TypeRegistry::liveEntities(), live);
}

}  // namespace
}  // namespace Zorvek
