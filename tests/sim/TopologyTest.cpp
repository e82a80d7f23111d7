// sim::Topology: the JSON form (each kind of bad input answered with one message naming the
// source, the line and the field), validation of a topology built in code, and the embedded
// default's round trip through toJson and parse.
#include "sim/Topology.h"

#include <gmock/gmock.h>

#include <string>

namespace sim {
namespace {

// A valid topology; the bad ones below each change one piece of it. Line numbers matter.
constexpr const char* kBase = R"({
  "dalAgent": 1,
  "agents": [ { "id": 1, "requesterName": "fwd" },
              { "id": 2, "requesterName": "l2" } ],
  "devices": [
    { "id": 0,
      "tables": [ { "name": "host", "id": 16, "entrySize": 8, "entryCount": 64 },
                  { "name": "route", "id": 32, "entrySize": 8, "entryCount": 32,
                    "instances": 2 } ],
      "registers": [ { "name": "ctrl", "id": 1, "size": 4 } ] } ],
  "serializers": [
    { "id": 1, "agent": 2, "name": "hostser", "kickQueue": "kick",
      "configDir": "s/config", "statusDir": "s/status",
      "resources": [ { "id": 256, "tables": [16], "dataMask": [255, 15] } ] } ]
}
)";

std::string replaced(const std::string& from, const std::string& to) {
  std::string text = kBase;
  const std::size_t at = text.find(from);
  if (at == std::string::npos) ADD_FAILURE() << "the base has no '" << from << "'";
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// (name, text of the base, what it becomes, message)
using BadCase = std::tuple<const char*, const char*, const char*, const char*>;
class TopologyBadInputTest : public ::testing::TestWithParam<BadCase> {};

TEST_P(TopologyBadInputTest, NamesSourceLineAndField) {
  const auto& [name, from, to, message] = GetParam();
  EXPECT_THAT([&] { Topology::parse(replaced(from, to), "sw.json"); },
              ::testing::ThrowsMessage<TopologyError>(::testing::StrEq(message)));
}

// The command-line tests run the other kinds through zorvek-sim: an unknown field, malformed
// JSON, an unreadable file, a serializer in the DAL's agent, a missing requesterName and a
// table the device lacks.
INSTANTIATE_TEST_SUITE_P(
    Kinds, TopologyBadInputTest,
    ::testing::Values(
        BadCase{"MissingField", "\"entrySize\": 8, \"entryCount\": 64", "\"entrySize\": 8",
                "sw.json:7: field 'devices[0].tables[0]': missing field 'entryCount'"},
        BadCase{"WrongType", "\"name\": \"hostser\"", "\"name\": 7",
                "sw.json:12: field 'serializers[0].name': expected a string"},
        BadCase{"NumberAboveItsType", "{ \"id\": 1, \"agent\": 2", "{ \"id\": 70000, \"agent\": 2",
                "sw.json:12: field 'serializers[0].id': value 70000 is above 65535"},
        BadCase{"DalAgentNotAnAgent", "\"dalAgent\": 1", "\"dalAgent\": 9",
                "sw.json:2: field 'dalAgent': agent 9 is not in agents"},
        BadCase{"TableOwnedTwice", "\"tables\": [16]", "\"tables\": [16, 16]",
                "sw.json:14: field 'serializers[0].resources[0].tables[1]': table 16 is already "
                "owned by serializer 'hostser'"}),
    [](const auto& info) { return std::string(std::get<0>(info.param)); });

TEST(TopologyTest, FieldsWithDefaultsTakeThem) {
  const Topology t = Topology::parse(kBase, "sw.json");
  const TableDef& host = t.devices[0].tables[0];
  EXPECT_EQ(host.memoryEntrySize, 8u);
  EXPECT_EQ(host.instances, 1u);
  EXPECT_TRUE(host.cacheable);
  EXPECT_FALSE(host.hash);
  EXPECT_THAT(t.serializers[0].resources[0].dataMask, ::testing::ElementsAre(255, 15));
}

TEST(TopologyTest, EmbeddedDefaultRoundTripsThroughJson) {
  const Topology def = Topology::embeddedDefault();
  const std::string json = def.toJson();
  const Topology back = Topology::parse(json, "default.json");
  EXPECT_TRUE(back == def);
  EXPECT_EQ(back.toJson(), json);
}

}  // namespace
}  // namespace sim
