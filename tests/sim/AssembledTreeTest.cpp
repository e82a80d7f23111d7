// The DAL agent's whole tree on the simulated switch of the embedded topology, built the way a
// hosting agent builds it and driven end to end: readiness, accesses reaching the owner's part
// of the chip, command-index tracking, the environment variables and the state dump.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "Orv/WatchList.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/SerializerStatus.h"
#include "dal/DalDoubles.h"
#include "sim/SimSwitch.h"

namespace sim {
namespace {

using namespace ::testing;
using Zorvek::CmdIndexTuple;
using Zorvek::DalId;
using Zorvek::doubles::ScopedEnv;
using Bytes = std::vector<U8>;

constexpr DeviceId kDev(0);
// The DAL agent of the embedded topology and its tables there: l2Host (0x10, l2ser, masked),
// aclRule (0x30 and its second instance 0x31, aclser), vlanXlate (0x40, l2ser) and l3Route
// (0x20, no serializer).
constexpr AgentId kFwd = 1;
constexpr U64 kHost = 0x10, kRoute = 0x20, kAcl = 0x30, kVlan = 0x40;
const Kel::String kStatusEntry(Zorvek::SerializerStatus::kEntryName);

PhysicalResourceId tableId(U64 id) { return {ResourceType::tableResource_, id}; }

// The switch and the DAL agent's tree; tests build the tree once their environment is set.
struct AssembledTreeTest : ::testing::Test {
  DeviceOffset offset(U64 table, U32 entry) const {
    return sw.chip(kDev)->geometry()->layout(tableId(table))->entryOffset(entry);
  }
  S32 write(U64 table, U32 entry, const Bytes& data) {
    SimOptArg arg = sw.optArg(kDev, offset(table, entry));
    return dal->dalWrite(Zorvek::oneDeviceMask(kDev), offset(table, entry), U16(data.size()),
                         data.data(), &arg);
  }
  Bytes read(U64 table, U32 entry, std::size_t size) {
    SimOptArg arg = sw.optArg(kDev, offset(table, entry));
    Bytes out(size);
    EXPECT_EQ(dal->dalRead(kDev, offset(table, entry), U16(size), out.data(), &arg), 0);
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

TEST_F(AssembledTreeTest, BecomesReadyWhenTheLastSerializerPublishesItsStatus) {
  withdrawL2Status();
  dal = sw.buildDal();
  EXPECT_TRUE(dal->defaultDal()->ready());
  EXPECT_TRUE(dal->resourceIdToDalMap()->dal(tableId(kAcl))->ready());
  EXPECT_FALSE(dal->resourceIdToDalMap()->dal(tableId(kVlan))->ready());
  EXPECT_FALSE(dal->ready());
  sw.serializer("l2ser")->statusDir()->entityIs(kStatusEntry, sw.serializer("l2ser")->status());
  EXPECT_TRUE(dal->ready());
}

// (table, entry, data written, serializer that owns it or null for the S-channel, chip entry)
using Route = std::tuple<U64, U32, Bytes, const char*, Bytes>;
class AssembledTreeRouteTest : public AssembledTreeTest,
                               public ::testing::WithParamInterface<Route> {};

TEST_P(AssembledTreeRouteTest, WriteReachesTheOwnersPartOfTheChip) {
  const auto& [table, entry, data, serializer, expected] = GetParam();
  // Another agent's bytes, which a masked write must leave where the mask does not reach.
  const Bytes other(expected.size(), 0xEE);
  ASSERT_EQ(sw.chip(kDev)->writeAt(offset(table, entry), other.data(), nullptr, U32(other.size()),
                                   kFwd + 1),
            0);
  dal = sw.buildDal();
  std::map<std::string, U64> expectedExecuted = executed();
  ASSERT_EQ(write(table, entry, data), 0);
  // The S-channel writes the chip at once; a queue waits for its serializer.
  EXPECT_EQ(chipEntry(table, entry), serializer ? other : expected);
  sw.serve();
  EXPECT_EQ(chipEntry(table, entry), expected);
  EXPECT_EQ(sw.chip(kDev)->owner(tableId(table), entry), kFwd);
  if (serializer) ++expectedExecuted[serializer];
  EXPECT_EQ(executed(), expectedExecuted);
}

// The low nibble of byte 7 and bytes 8 on of a host entry are another agent's.
const Bytes kMaskedHost{0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 0xAE,
                        0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
INSTANTIATE_TEST_SUITE_P(Routes, AssembledTreeRouteTest,
                         Values(Route{kHost, 5, Bytes(16, 0xAB), "l2ser", kMaskedHost},
                                Route{kAcl + 1, 2, Bytes(16, 0x3D), "aclser", Bytes(16, 0x3D)},
                                Route{kRoute, 7, Bytes(8, 0x77), nullptr, Bytes(8, 0x77)}));

// (XP_SKIP_HW_ACCESS, XP_COHABITING_TEST (null: unset), whether the writes count as enqueued):
// with hardware access off nothing is enqueued, unless a cohabiting test fakes the progress.
using Tracking = std::tuple<const char*, const char*, bool>;
class AssembledTreeTrackingTest : public AssembledTreeTest,
                                  public ::testing::WithParamInterface<Tracking> {};

TEST_P(AssembledTreeTrackingTest, ReportsWhatEachDalEnqueuedInTheInterval) {
  const ScopedEnv skip("XP_SKIP_HW_ACCESS", std::get<0>(GetParam()));
  const ScopedEnv cohabiting("XP_COHABITING_TEST", std::get<1>(GetParam()));
  dal = sw.buildDal();
  auto status = Kel::allocate<Zorvek::EnqueuedCmdStatus>();
  dal->startTrackingCmdStatus(status);
  ASSERT_EQ(status->enqueuedCmdIndexes().size(), 3u);
  // DAL ids in assembly order: the S-channel 0, l2ser 1, aclser 2.
  const U64 schan = status->enqueuedCmdIndex(DalId(0))->startingCmdIndex();
  const U64 l2 = status->enqueuedCmdIndex(DalId(1))->startingCmdIndex();
  for (U32 i = 0; i < 3; ++i) ASSERT_EQ(write(kVlan, i, Bytes(8, 0x10 + i)), 0);
  for (U32 i = 0; i < 2; ++i) ASSERT_EQ(write(kRoute, i, Bytes(8, 0x20 + i)), 0);
  sw.serve();
  dal->enqueuedCmdStatuses(status);
  if (std::get<2>(GetParam()))
    EXPECT_THAT(status->enqueuedCmdIndexes(),
                UnorderedElementsAre(Pair(DalId(0), CmdIndexTuple(schan + 1, schan + 2)),
                                     Pair(DalId(1), CmdIndexTuple(l2 + 1, l2 + 3))));
  else
    EXPECT_THAT(status->enqueuedCmdIndexes(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Cases, AssembledTreeTrackingTest,
                         Values(Tracking{nullptr, nullptr, true}, Tracking{"", nullptr, false},
                                Tracking{"", "", true}));

// Each variable as the whole tree sees it, with l2ser not up yet: a write to l2ser's vlan
// table and one to the unowned route table, read back afterwards. (variable, value (null:
// unset), vlan entry on the chip before any serializer runs, commands l2ser ran, both entries
// on the chip in the end, ready)
using Env = std::tuple<const char*, const char*, bool, U64, bool, bool>;
class AssembledTreeEnvTest : public AssembledTreeTest, public ::testing::WithParamInterface<Env> {};

TEST_P(AssembledTreeEnvTest, ChangesWhereWritesGo) {
  const auto& [variable, value, vlanAtOnce, l2Executed, chipWritten, ready] = GetParam();
  const ScopedEnv env(variable, value);
  withdrawL2Status();
  dal = sw.buildDal();
  const U64 l2Before = executed()["l2ser"];
  const Bytes vlan = Bytes(8, 0x5C), route = Bytes(8, 0x77), zeros(8);
  ASSERT_EQ(write(kVlan, 3, vlan) | write(kRoute, 7, route), 0);
  EXPECT_EQ(chipEntry(kVlan, 3) == vlan, vlanAtOnce);
  sw.serve();
  EXPECT_EQ(executed()["l2ser"] - l2Before, l2Executed);
  EXPECT_EQ(chipEntry(kVlan, 3), chipWritten ? vlan : zeros);
  EXPECT_EQ(chipEntry(kRoute, 7), chipWritten ? route : zeros);
  EXPECT_EQ(read(kVlan, 3, 8), vlan);  // from the shadow whenever the chip was not written
  EXPECT_EQ(read(kRoute, 7, 8), route);
  EXPECT_EQ(dal->ready(), ready);
}

INSTANTIATE_TEST_SUITE_P(
    Variables, AssembledTreeEnvTest,
    Values(Env{"XP_SKIP_HW_ACCESS", nullptr, false, 1, true, false},
           Env{"XP_SKIP_HW_ACCESS", "", false, 0, false, true},
           // No remote DAL: the S-channel carries the vlan write; nothing waits.
           Env{"XP_FORCE_LOCAL_SHADOW_ACCESS", "1", true, 0, true, true}));

// The DemuxDal's state dump after a short, fixed history, against the golden copy in
// sim/golden/assembled-tree-dump.txt, where a line break follows each comma so that a
// difference reads as a line diff (the dump itself has none). The history marks every part:
// SIMULATION_VMID (verify on in every DAL), watched commands in the watch logs, a
// restart of aclser, a command left in l2ser's queue, a new generation of coprocessor 2, totals
// of all 64 bits on the DemuxDal, and options set on single members so that no two flags show
// the same column of values across the four DALs.
TEST_F(AssembledTreeTest, StateDumpMatchesTheGoldenCopy) {
  const ScopedEnv vmid("SIMULATION_VMID", "3");
  const auto watchList =
      Kel::dynamicPtrCast<Orv::WatchList>(sw.database()->entity("platform/debug/watchlist"));
  watchList->watchIs(kDev, tableId(kRoute));
  watchList->watchIs(kDev, tableId(kAcl));
  dal = sw.buildDal();
  ASSERT_EQ(write(kRoute, 1, Bytes(8, 0x21)), 0);
  ASSERT_EQ(write(kRoute, 2, Bytes(8, 0x22)), 0);
  EXPECT_EQ(read(kRoute, 1, 8), Bytes(8, 0x21));
  ASSERT_EQ(write(kAcl, 0, Bytes(16, 0x30)), 0);
  sw.serve();
  sw.restart("aclser");
  sw.serve();
  ASSERT_EQ(write(kVlan, 0, Bytes(8, 0x40)), 0);
  sw.coprocessorStatusLog()->setRecordIs("cop1", Corvane::Coprocessor(2, 5));
  const auto& members = *dal->resourceIdToDalMap();
  dal->defaultDal()->forceReadFromShadowIs(true);
  dal->defaultDal()->okToWriteToShadowIs(false);
  members.dal(tableId(kVlan))->okToReadFromShadowIs(false);
  members.dal(tableId(kVlan))->skipHwWriteIfShadowHitIs(true);
  members.dal(tableId(kAcl))->hwAccessAllowedIs(false);
  members.dal(tableId(kAcl))->blockingIs(true);
  dal->cacheReadHitsIs(1);
  dal->cacheReadMissesIs(22);
  dal->cacheWriteHitsIs(333);
  dal->cacheWriteMissesIs(~0ull);
  std::string dump;
  for (char c : Zorvek::doubles::dumpOf([&](U32 fd) { dal->showDemuxDalState(fd); }))
    dump += c == ',' ? ",\n" : std::string(1, c);
  std::ifstream golden(ZORVEK_TEST_DATA "/sim/golden/assembled-tree-dump.txt");
  EXPECT_EQ(dump, std::string(std::istreambuf_iterator<char>(golden), {}));
}

}  // namespace
}  // namespace sim
