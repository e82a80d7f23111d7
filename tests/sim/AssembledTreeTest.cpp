// The DAL agent's whole tree on the simulated switch of the embedded topology, built the way a
// hosting agent builds it and driven end to end: readiness, accesses reaching the owner's
// part of the chip, the replay after a serializer restart, command-index tracking, the state
// dump, the environment variables, and teardown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Zorvek/DemuxDal.h"
#include "Zorvek/SchanBackend.h"
#include "Zorvek/SerializerStatus.h"
#include "sim/SimSwitch.h"

namespace sim {
namespace {

using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using Zorvek::CmdIndexTuple;
using Zorvek::DalId;
using Bytes = std::vector<U8>;

constexpr DeviceId kDev(0);
constexpr AgentId kFwd = 1;  // the DAL agent of the embedded topology
// Its tables on the embedded topology: l2Host (0x10, l2ser, masked), aclRule (0x30 and its
// second instance 0x31, aclser), vlanXlate (0x40, l2ser) and l3Route (0x20, no serializer).
constexpr U64 kHost = 0x10, kRoute = 0x20, kAcl = 0x30, kVlan = 0x40;
const Kel::String kStatusEntry(Zorvek::SerializerStatus::kEntryName);

PhysicalResourceId tableId(U64 id) { return {ResourceType::tableResource_, id}; }
Bytes filled(U8 v, std::size_t n) { return Bytes(n, v); }

// Sets (or, for null, unsets) an environment variable for one scope, then restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// What a file descriptor receives from `show`, read through a pipe as it is written.
std::string dumped(const std::function<void(U32)>& show) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  std::string out;
  std::thread reader([&] {
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, n);
  });
  show(static_cast<U32>(fds[1]));
  close(fds[1]);
  reader.join();
  close(fds[0]);
  return out;
}

// The switch and the DAL agent's tree; tests build the tree once their environment is set.
struct AssembledTree {
  S32 write(U64 table, U32 entry, const Bytes& data) {
    const DeviceOffset offset =
        sw.chip(kDev)->geometry()->layout(tableId(table))->entryOffset(entry);
    SimOptArg arg = sw.optArg(kDev, offset);
    return dal->dalWrite(Zorvek::oneDeviceMask(kDev), offset, static_cast<U16>(data.size()),
                         data.data(), &arg);
  }
  Bytes read(U64 table, U32 entry, std::size_t size) {
    const DeviceOffset offset =
        sw.chip(kDev)->geometry()->layout(tableId(table))->entryOffset(entry);
    SimOptArg arg = sw.optArg(kDev, offset);
    Bytes out(size);
    EXPECT_EQ(dal->dalRead(kDev, offset, static_cast<U16>(size), out.data(), &arg), 0);
    return out;
  }
  Bytes chipEntry(U64 table, U32 entry) const {
    const auto bytes = sw.chip(kDev)->entry(tableId(table), entry);
    return Bytes(bytes.begin(), bytes.end());
  }
  // Commands each serializer has executed from the DAL agent's queue.
  std::map<std::string, U64> executed() const {
    std::map<std::string, U64> out;
    for (const auto& s : sw.serializers())
      out[s->name()] = s->counters("fwd-" + s->name() + "-Queue").executed;
    return out;
  }
  // Takes l2ser's status out of its status directory, as before the serializer comes up.
  void withdrawL2Status() { sw.serializer("l2ser")->statusDir()->entityDel(kStatusEntry); }

  SimSwitch sw{Topology::embeddedDefault()};
  Kel::Ptr<Zorvek::DemuxDal> dal;
};

class AssembledTreeTest : public ::testing::Test, public AssembledTree {};

class ReadyRecorder : public Zorvek::Dal::NotifieeConst {
 public:
  void onReady() override { seen.push_back(notifier()->ready()); }
  std::vector<bool> seen;
};

TEST_F(AssembledTreeTest, BecomesReadyWhenTheLastSerializerPublishesItsStatus) {
  withdrawL2Status();
  dal = sw.buildDal();
  auto recorder = Kel::allocate<ReadyRecorder>();
  recorder->notifierIs(dal);
  EXPECT_TRUE(dal->defaultDal()->ready());
  EXPECT_TRUE(dal->resourceIdToDalMap()->dal(tableId(kAcl))->ready());
  EXPECT_FALSE(dal->resourceIdToDalMap()->dal(tableId(kVlan))->ready());
  EXPECT_FALSE(dal->ready());
  const Kel::Ptr<SimSerializer> l2 = sw.serializer("l2ser");
  l2->statusDir()->entityIs(kStatusEntry, l2->status());
  EXPECT_TRUE(dal->ready());
  EXPECT_EQ(recorder->seen, std::vector<bool>{true});
}

struct RouteCase {
  const char* name;
  U64 table;
  U32 entry;
  Bytes data;
  const char* serializer;  // null: the S-channel
  Bytes expected;          // the chip entry afterwards
};
void PrintTo(const RouteCase& c, std::ostream* os) { *os << c.name; }

class AssembledTreeRouteTest : public AssembledTreeTest,
                               public ::testing::WithParamInterface<RouteCase> {};

TEST_P(AssembledTreeRouteTest, WriteReachesTheOwnersPartOfTheChipAndSurvivesRestarts) {
  const RouteCase& c = GetParam();
  dal = sw.buildDal();
  std::map<std::string, U64> expectedExecuted = executed();
  ASSERT_EQ(write(c.table, c.entry, c.data), 0);
  // The S-channel writes the chip at once; a queue waits for its serializer.
  EXPECT_EQ(chipEntry(c.table, c.entry), c.serializer ? filled(0, c.expected.size()) : c.expected);
  sw.serve();
  EXPECT_EQ(chipEntry(c.table, c.entry), c.expected);
  EXPECT_EQ(sw.chip(kDev)->owner(tableId(c.table), c.entry), kFwd);
  if (c.serializer) ++expectedExecuted[c.serializer];
  EXPECT_EQ(executed(), expectedExecuted);

  // A restart wipes the serializer's tables, and its remote DAL's replay writes the entry
  // again; a restart of l2ser leaves the S-channel's tables alone.
  sw.restart(c.serializer ? c.serializer : "l2ser");
  EXPECT_EQ(chipEntry(c.table, c.entry), c.serializer ? filled(0, c.expected.size()) : c.expected);
  sw.serve();
  EXPECT_EQ(chipEntry(c.table, c.entry), c.expected);
}

Bytes maskedHost() {
  Bytes b = filled(0xAB, 16);
  b[7] = 0xA0;  // the low nibble of byte 7 is the other agent's
  std::fill(b.begin() + 8, b.end(), 0);
  return b;
}

INSTANTIATE_TEST_SUITE_P(
    Routes, AssembledTreeRouteTest,
    ::testing::Values(
        RouteCase{"MaskedHost", kHost, 5, filled(0xAB, 16), "l2ser", maskedHost()},
        RouteCase{"Vlan", kVlan, 3, filled(0x5C, 8), "l2ser", filled(0x5C, 8)},
        RouteCase{"AclSecondInstance", kAcl + 1, 2, filled(0x3D, 16), "aclser", filled(0x3D, 16)},
        RouteCase{"UnownedOverSchan", kRoute, 7, filled(0x77, 8), nullptr, filled(0x77, 8)}),
    [](const auto& info) { return std::string(info.param.name); });

struct TrackingCase {
  const char* name;
  const char* skipHwAccess;  // XP_SKIP_HW_ACCESS; null: unset
  const char* cohabiting;    // XP_COHABITING_TEST
  bool enqueued;             // whether the writes count as enqueued
};
void PrintTo(const TrackingCase& c, std::ostream* os) { *os << c.name; }

class AssembledTreeTrackingTest : public AssembledTreeTest,
                                  public ::testing::WithParamInterface<TrackingCase> {};

TEST_P(AssembledTreeTrackingTest, ReportsWhatEachDalEnqueuedInTheInterval) {
  const ScopedEnv skip("XP_SKIP_HW_ACCESS", GetParam().skipHwAccess);
  const ScopedEnv cohabiting("XP_COHABITING_TEST", GetParam().cohabiting);
  dal = sw.buildDal();
  auto status = Kel::allocate<Zorvek::EnqueuedCmdStatus>();
  dal->startTrackingCmdStatus(status);
  ASSERT_EQ(status->enqueuedCmdIndexes().size(), 3u);
  // DAL ids in assembly order: the S-channel 0, l2ser 1, aclser 2.
  const U64 schan = status->enqueuedCmdIndex(DalId(0))->startingCmdIndex();
  const U64 l2 = status->enqueuedCmdIndex(DalId(1))->startingCmdIndex();
  for (U32 i = 0; i < 3; ++i) ASSERT_EQ(write(kVlan, i, filled(0x10 + i, 8)), 0);
  for (U32 i = 0; i < 2; ++i) ASSERT_EQ(write(kRoute, i, filled(0x20 + i, 8)), 0);
  sw.serve();
  dal->enqueuedCmdStatuses(status);
  if (GetParam().enqueued) {
    EXPECT_THAT(status->enqueuedCmdIndexes(),
                UnorderedElementsAre(Pair(DalId(0), CmdIndexTuple(schan + 1, schan + 2)),
                                     Pair(DalId(1), CmdIndexTuple(l2 + 1, l2 + 3))));
  } else {
    EXPECT_THAT(status->enqueuedCmdIndexes(), IsEmpty());
  }
}

// With hardware access off nothing is enqueued, unless a cohabiting test fakes the progress.
INSTANTIATE_TEST_SUITE_P(Cases, AssembledTreeTrackingTest,
                         ::testing::Values(TrackingCase{"Hardware", nullptr, nullptr, true},
                                           TrackingCase{"SkipHwAccess", "", nullptr, false},
                                           TrackingCase{"SkipHwAccessCohabiting", "", "", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(AssembledTreeTest, StateDumpFramesEveryDalOfTheTree) {
  dal = sw.buildDal();
  ASSERT_EQ(write(kVlan, 3, filled(0x5C, 8)), 0);
  sw.serve();
  std::string expected = dumped([&](U32 fd) { dal->showDalState(fd); }) + "'defaultDalState': {" +
                         dumped([&](U32 fd) { dal->defaultDal()->showDalState(fd); }) + "}," +
                         "'remoteDals': {";
  for (const auto& [rid, member] : *dal->resourceIdToDalMap())
    expected += "'" + std::to_string(rid.id()) + "': {" +
                dumped([&](U32 fd) { member->showDalState(fd); }) + "},";
  expected += "},";
  const std::string dump = dumped([&](U32 fd) { dal->showDemuxDalState(fd); });
  EXPECT_EQ(dump, expected);
  for (const char* key : {"'16': {", "'48': {", "'64': {"})
    EXPECT_NE(dump.find(key), std::string::npos) << key;
}

// Each variable as the whole tree sees it, with l2ser not up yet: a write to l2ser's vlan
// table and one to the unowned route table, read back afterwards.
struct EnvCase {
  const char* name;
  const char* variable;
  const char* value;  // null: unset
  bool vlanAtOnce;    // the vlan entry is on the chip before any serializer runs
  U64 l2Executed;     // commands l2ser ran for the write
  bool chipWritten;   // both entries are on the chip in the end
  bool ready;
};
void PrintTo(const EnvCase& c, std::ostream* os) { *os << c.name; }

class AssembledTreeEnvTest : public AssembledTreeTest,
                             public ::testing::WithParamInterface<EnvCase> {};

TEST_P(AssembledTreeEnvTest, ChangesWhereWritesGo) {
  const EnvCase& c = GetParam();
  const ScopedEnv env(c.variable, c.value);
  withdrawL2Status();
  dal = sw.buildDal();
  const U64 l2Before = executed()["l2ser"];
  const Bytes vlan = filled(0x5C, 8), route = filled(0x77, 8);
  ASSERT_EQ(write(kVlan, 3, vlan) | write(kRoute, 7, route), 0);
  EXPECT_EQ(chipEntry(kVlan, 3) == vlan, c.vlanAtOnce);
  sw.serve();
  EXPECT_EQ(executed()["l2ser"] - l2Before, c.l2Executed);
  EXPECT_EQ(chipEntry(kVlan, 3), c.chipWritten ? vlan : filled(0, 8));
  EXPECT_EQ(chipEntry(kRoute, 7), c.chipWritten ? route : filled(0, 8));
  EXPECT_EQ(read(kVlan, 3, 8), vlan);  // from the shadow whenever the chip was not written
  EXPECT_EQ(read(kRoute, 7, 8), route);
  EXPECT_EQ(dal->ready(), c.ready);
}

INSTANTIATE_TEST_SUITE_P(
    Variables, AssembledTreeEnvTest,
    ::testing::Values(
        EnvCase{"Unset", "XP_SKIP_HW_ACCESS", nullptr, false, 1, true, false},
        EnvCase{"SkipHwAccess", "XP_SKIP_HW_ACCESS", "", false, 0, false, true},
        // No remote DAL: the S-channel carries the vlan write, and nothing waits for l2ser.
        EnvCase{"ForceLocalShadowAccess", "XP_FORCE_LOCAL_SHADOW_ACCESS", "1", true, 0, true, true},
        EnvCase{"SimulationVmid", "SIMULATION_VMID", "3", false, 1, true, false}),
    [](const auto& info) { return std::string(info.param.name); });

using AssembledTreeDeathTest = AssembledTreeTest;

TEST_F(AssembledTreeDeathTest, SimulationVmidVerifiesTheEntrySize) {
  dal = sw.buildDal();
  EXPECT_EQ(write(kVlan, 3, filled(0x5C, 4)), 0);  // half an entry: accepted unverified
  const ScopedEnv vmid("SIMULATION_VMID", "3");
  dal = sw.buildDal();
  EXPECT_DEATH(write(kVlan, 3, filled(0x5C, 4)), "Assertion failed: size == entrySizeBytes,");
}

// The live count of every type with live entities (a type registered on first use starts at
// zero and does not disturb the comparison).
std::map<std::string, std::int64_t> liveCounts() {
  std::map<std::string, std::int64_t> out;
  for (const Kel::Type* t : Kel::TypeRegistry::types())
    if (t->liveCount() != 0) out[t->name()] = t->liveCount();
  return out;
}

TEST(AssembledTreeLifetimeTest, TearDownReturnsEveryLiveCount) {
  Zorvek::schanBackendRegistry();  // lives from its first use to the end of the process
  const auto before = liveCounts();
  {
    AssembledTree tree;
    tree.dal = tree.sw.buildDal();
    ASSERT_EQ(tree.write(kHost, 1, filled(1, 16)) | tree.write(kRoute, 1, filled(2, 8)), 0);
    tree.sw.serve();
    tree.sw.restart("l2ser");
    tree.sw.serve();
    tree.dal->startTrackingCmdStatus(Kel::allocate<Zorvek::EnqueuedCmdStatus>());
    dumped([&](U32 fd) { tree.dal->showDemuxDalState(fd); });
    EXPECT_NE(liveCounts(), before);
  }
  EXPECT_EQ(liveCounts(), before);
}

}  // namespace
}  // namespace sim
