// RequesterDalRemote: local caches, cold-start frees, shadow hooks, data masks and the replay
// after a serializer restart. The requester is a real QueueRequester served by a consumer that
// records every command, so the tests see exactly what would reach the serializer.
#include "Zorvek/RequesterDalRemote.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <memory>
#include <sstream>
#include <tuple>

#include "Zorvek/QueueRequester.h"
#include "dal/DalDoubles.h"

namespace Zorvek {
namespace {

using doubles::assertion;
using doubles::DalTrace;
using namespace ::testing;

constexpr auto kTable = ResourceType::tableResource_;
// Table resource ids are the device offset divided by 0x100: A at 0x1000 and B at 0x2000;
// R0, R1 and R2 (0x3000, 0x3100, 0x3200) are the instances of one replicated table.
constexpr PhysicalResourceId kA{kTable, 0x10}, kB{kTable, 0x20}, kR0{kTable, 0x30},
    kR1{kTable, 0x31}, kR2{kTable, 0x32}, kMissing{kTable, 0x99};
constexpr PhysicalResourceId kRegister{ResourceType::registerResource_, 0x50};
constexpr DeviceOffset kRegisterOffset = 0x5000;
constexpr AgentId kAgent = 6;

using Rid = const PhysicalResourceId&;

class TablesHelper : public DalHelper {
 public:
  PhysicalResourceId resourceId(DeviceOffset offset, void*) const override {
    return offset >= kRegisterOffset ? kRegister : PhysicalResourceId{kTable, offset >> 8};
  }
  bool resourceExists(DeviceId, Rid rid) const override { return rid != kMissing; }
  PhysicalResourceId nextPridInstance(DeviceId, Rid rid) const override {
    return rid == kR0 ? kR1 : rid == kR1 ? kR2 : PhysicalResourceId{};
  }
  PhysicalResourceId normalizedResourceId(Rid rid) const override {
    return rid == kR1 || rid == kR2 ? kR0 : rid;
  }
  bool cacheable(DeviceId, Rid rid) const override { return rid != kRegister; }
  U32 memoryEntrySizeBytes(DeviceId, Rid rid) const override { return rid == kB ? 4 : 8; }
  U32 numMemoryEntries(DeviceId, const PhysicalTableId&) const override { return 16; }
  U32 optArgSizeBytes() const override { return optArgSize; }
  void setOptArg(DeviceId d, Rid rid, DeviceOffset offset, void* optArg) const override {
    optArgs.emplace_back(d.value(), rid.id(), offset, optArg != nullptr);
    if (duringReplay) std::exchange(duringReplay, nullptr)();  // changes the DAL mid-walk
  }

  U32 optArgSize = 4;
  mutable std::function<void()> duringReplay;
  // (device, table id, offset, optArg given) of every setOptArg.
  mutable std::vector<std::tuple<unsigned, U64, DeviceOffset, bool>> optArgs;
};

// "-" for none, else the bytes in hexadecimal.
std::string hexBytes(const U8* bytes, std::size_t n) {
  if (!bytes || !n) return "-";
  std::ostringstream os;
  for (std::size_t i = 0; i < n; ++i)
    os << std::hex << std::setw(2) << std::setfill('0') << +bytes[i];
  return os.str();
}

// Keeps each command it runs as "<command> dev <devices> table 0x<id> ...".
class RecordingSerializer : public QueueConsumer {
 public:
  bool commandExecute(const RequesterQueue&, QueueCommand& c) override {
    std::ostringstream os;
    os << c.command << " dev";
    for (DeviceId d = c.targets.firstDevice(); !d.isNull(); d = c.targets.fapmask().nextFapId(d))
      os << " " << d;
    os << " table 0x" << std::hex << c.resourceId.id();
    if (c.command == Command::freeCmd_) os << std::dec << " size " << c.size;
    if (c.command != Command::freeCmd_)
      os << " @0x" << c.offset << " data " << hexBytes(c.data.data(), c.data.size());
    os << " mask " << hexBytes(c.dataMask.data(), c.dataMask.size())
       << (c.reclaimWhenProgrammed ? " reclaim" : "");
    commands.push_back(os.str());
    return true;
  }
  std::vector<std::string> commands;
};

RequesterDataMask mask(bool flag, std::vector<std::pair<U32, U8>> bytes) {
  RequesterDataMask m(flag);
  for (const auto& [index, byte] : bytes) m.maskByteIs(index, byte);
  return m;
}

CacheTableIndex at(unsigned devId, const PhysicalResourceId& rid) {
  return CacheTableIndex(DeviceId(devId), rid);
}

class RequesterDalRemoteTest : public ::testing::Test {
 public:
  RequesterDalRemoteTest() { requester->queue()->consumerIs(&serializer); }
  Kel::Ptr<RequesterDalRemote> makeDal(const Kel::Ptr<ResourceIdToDataMaskMap>& m) {
    auto d = requesterDalRemoteFactory("remote", requester, m);
    d->helperIs(helper);
    return d;
  }
  // The commands queued since the last call, as the serializer ran them.
  std::vector<std::string> sent() {
    requester->queue()->drain();
    return std::exchange(serializer.commands, {});
  }
  // Writes the shadow of one whole entry, filled with `byte`.
  void fill(unsigned devId, DeviceOffset offset, U8 byte) {
    const std::vector<U8> data(
        helper->memoryEntrySizeBytes(devId, helper->resourceId(offset, nullptr)), byte);
    ASSERT_EQ(dal->doWriteToShadow(devId, offset, U16(data.size()), data.data(), &optArg), 0);
  }
  S32 read(unsigned devId, DeviceOffset offset) {
    return dal->doReadFromShadow(devId, offset, U16(buffer.size()), buffer.data(), &optArg);
  }

  RecordingSerializer serializer;  // outlives the requester's queue
  Kel::Ptr<TablesHelper> helper = Kel::allocate<TablesHelper>();
  Kel::Ptr<ResourceIdToDataMaskMap> masks = Kel::allocate<ResourceIdToDataMaskMap>();
  Kel::Ptr<Kel::Dir> configDir = Kel::allocate<Kel::Dir>(Kel::Name("config"));
  Kel::Ptr<QueueRequester> requester = Kel::allocate<QueueRequester>(
      "a6-s1-Queue", kAgent, 64, DalId(1), nullptr, nullptr, IoMemType::queueMemory_, configDir,
      nullptr, "s1-kick", "Kick-a6-s1-Requester");
  Kel::Ptr<RequesterDalRemote> dal = makeDal(masks);
  std::vector<U8> buffer = std::vector<U8>(8, 0xEE);
  int optArg = 0;
};

// ---------------------------------------------------------------------------------------
// Local caches

TEST_F(RequesterDalRemoteTest, InitLocalCacheCreatesACachePerTableAndInstanceOnce) {
  dal->remoteResourceIs(kA, false);  // only the key matters
  dal->remoteResourceIs(kR0, true);
  dal->remoteResourceIs(kMissing, true);
  DalTrace trace("ZorvekRequesterDalRemote");
  dal->initLocalCache(1, false);
  EXPECT_THAT(dal->localCaches(),
              ElementsAre(Key(at(1, kA)), Key(at(1, kR0)), Key(at(1, kR1)), Key(at(1, kR2))));
  const Kel::Ptr<CacheTable> a = dal->localCache(at(1, kA));
  fill(1, 0x1008, 0x11);
  // An existing cache is handed back as it is: no free, no restart, its entries kept.
  EXPECT_EQ(dal->initOneLocalCache(at(1, kA), true), a);
  dal->initLocalCache(1, true);
  EXPECT_THAT(sent(), IsEmpty());  // nor does a warm start free or read anything
  EXPECT_EQ(a->restarts(), 1u);
  EXPECT_FALSE(a->coldStart());
  EXPECT_EQ(a->entries(), 1u);
  EXPECT_THAT(trace.lines(),
              Contains(Pair(0, "initLocalCache remote Resource type 1 id 0x99 does not exist")));
  // Unlike the S-channel DAL, this one leaves hardware access to its owner.
  const doubles::ScopedEnv skip("XP_SKIP_HW_ACCESS", "");
  EXPECT_TRUE(makeDal(masks)->hwAccessAllowed());
}

TEST_F(RequesterDalRemoteTest, ColdStartFreesEachTableWithItsMaskBytes) {
  const std::string free = "free dev 2 table 0x", unmasked = "10 size 8 mask -";
  // mask map given, the mask stored under the normalised id of the resource, the resource
  // clang-format off
  for (const auto& [withMasks, m, resource, frees] : std::vector<
           std::tuple<bool, RequesterDataMask, PhysicalResourceId, std::vector<std::string>>>{
           {false, mask(true, {{0, 0xff}}), kA, {free + unmasked}},
           {true, mask(false, {{0, 0xff}}), kA, {free + unmasked}},
           {true, mask(true, {{0, 0xab}, {3, 0xcd}}), kA, {free + "10 size 8 mask ab0000cd00000000"}},
           {true, mask(true, {{1, 0x0f}}), kR0,  // instances free with the normalised mask
            {free + "30 size 8 mask 000f000000000000", free + "31 size 8 mask 000f000000000000",
             free + "32 size 8 mask 000f000000000000"}}}) {
    // clang-format on
    masks->dataMaskIs(resource, m);
    dal = makeDal(withMasks ? masks : nullptr);
    dal->remoteResourceIs(resource, true);
    dal->initLocalCache(2, true);
    EXPECT_THAT(sent(), ElementsAreArray(frees));
    for (const auto& [index, table] : dal->localCaches()) {
      EXPECT_EQ(table->restarts(), 1u);
      EXPECT_TRUE(table->coldStart());
    }
  }
}

// Entry allocation and write eligibility in the caches are followed by the model test of the
// assembled tree; here, the switch that only reads obey and the kind of a lazily made cache.
TEST_F(RequesterDalRemoteTest, ReadsNeedTheSwitchAndACacheWritesNeedNeither) {
  dal->localShadowForRemoteResourcesEnabledIs(false);
  fill(0, 0x1008, 0x22);  // creates A's cache and fills the entry all the same
  EXPECT_EQ(read(0, 0x1008), -1);
  EXPECT_THAT(buffer, Each(0xEE));
  dal->localShadowForRemoteResourcesEnabledIs(true);
  EXPECT_EQ(read(0, 0x1008), 0);
  EXPECT_THAT(buffer, Each(0x22));
  EXPECT_EQ(read(0, 0x2000), -1);  // no cache for B: the read does not create one
  EXPECT_EQ(dal->localCache(at(0, kB)), nullptr);
  // A cache made lazily takes the last start's kind: warm before any start, here cold.
  EXPECT_FALSE(dal->localCache(at(0, kA))->coldStart());
  dal->initLocalCache(0, true);  // B is no remote resource: this makes no cache
  fill(0, 0x2004, 0x5A);
  EXPECT_TRUE(dal->localCache(at(0, kB))->coldStart());
  EXPECT_THAT(sent(), ElementsAre("free dev 0 table 0x20 size 4 mask -"));
}

// ---------------------------------------------------------------------------------------
// Data masks

// The mask bytes themselves are those of the cold-start frees (one builder serves both) and
// reach the chip in the model and assembled-tree tests; a null optional argument asks for no
// mask even where one exists.
TEST_F(RequesterDalRemoteTest, DataMaskSelectorHandsOutNoMaskForANullOptArg) {
  masks->dataMaskIs(kA, mask(true, {{0, 0xab}}));
  const std::unique_ptr<U8[]> withOptArg(dal->dataMaskSelector(0x1000, &optArg, 8));
  EXPECT_EQ(hexBytes(withOptArg.get(), 8), "ab00000000000000");
  const std::unique_ptr<U8[]> without(dal->dataMaskSelector(0x1000, nullptr, 8));
  EXPECT_EQ(without, nullptr);
}

// ---------------------------------------------------------------------------------------
// Replay after a serializer restart

TEST_F(RequesterDalRemoteTest, EachRestartCountChangePushesOnceAndConstructionNever) {
  DalTrace trace("ZorvekRequesterDalRemote");
  requester->serializerRestartCountIs(4);  // no caches yet: only the trace
  EXPECT_THAT(trace.lines(), ElementsAre(Pair(0, "Serializer restarted, sync local cache")));
  dal = makeDal(masks);
  fill(0, 0x1000, 0x11);
  EXPECT_THAT(sent(), IsEmpty());
  for (U64 count : {4, 5, 5, 9}) requester->serializerRestartCountIs(count);
  const std::string push = "write dev 0 table 0x10 @0x1000 data 1111111111111111 mask -";
  EXPECT_THAT(sent(), ElementsAre(push, push));
  dal->helperIs(nullptr);  // nothing to push with
  requester->serializerRestartCountIs(10);
  EXPECT_THAT(sent(), IsEmpty());
}

// Replays with a helper whose optional argument has that many bytes (none at all, too).
class RequesterDalRemoteReplayTest : public RequesterDalRemoteTest,
                                     public ::testing::WithParamInterface<U32> {};

TEST_P(RequesterDalRemoteReplayTest, PushesEligibleEntriesTableByTable) {
  helper->optArgSize = GetParam();
  masks->dataMaskIs(kA, mask(true, {{1, 0xff}}));
  dal->reclaimWhenProgrammedIs(true);  // a replay never asks for a reclaim
  fill(1, 0x1000, 0x1A);               // created in another order than they are pushed
  fill(0, 0x2000, 0x2B);
  dal->initOneLocalCache(at(0, kR0), false);
  ASSERT_EQ(read(0, 0x3010), 0);  // in use, never written: not eligible
  fill(0, 0x1008, 0x0A);
  helper->optArgs.clear();
  requester->serializerRestartCountIs(1);
  EXPECT_THAT(
      sent(),
      ElementsAre("write dev 0 table 0x10 @0x1008 data 0a0a0a0a0a0a0a0a mask 00ff000000000000",
                  "write dev 0 table 0x20 @0x2000 data 2b2b2b2b mask -",
                  "write dev 1 table 0x10 @0x1000 data 1a1a1a1a1a1a1a1a mask 00ff000000000000"));
  EXPECT_THAT(
      helper->optArgs,
      ElementsAre(FieldsAre(0u, 0x10u, 0x1008u, true), FieldsAre(0u, 0x20u, 0x2000u, true),
                  FieldsAre(0u, 0x30u, 0x3010u, true), FieldsAre(1u, 0x10u, 0x1000u, true)));
}

INSTANTIATE_TEST_SUITE_P(OptArgBytes, RequesterDalRemoteReplayTest, ::testing::Values(0u, 4u));

// A bulk write of three entries: the shadow keeps the first only, unless it keeps them all.
TEST_F(RequesterDalRemoteTest, ABulkWriteLeavesItsFirstEntryInTheShadowOrEveryOneWhenAsked) {
  const std::vector<U8> entries{1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2,
                                2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3};
  for (const bool keepsAll : {false, true}) {
    SCOPED_TRACE(keepsAll ? "keeps every entry" : "by default");
    dal = makeDal(masks);
    dal->localShadowKeepsBulkEntriesIs(keepsAll);
    ASSERT_EQ(dal->doWriteToShadow(0, 0x1000, U16(entries.size()), entries.data(), &optArg), 0);
    requester->serializerRestartCountIs(requester->serializerRestartCount() + 1);
    const std::vector<std::string> first{
        "write dev 0 table 0x10 @0x1000 data 0101010101010101 mask -"};
    if (!keepsAll) {
      EXPECT_THAT(sent(), ElementsAreArray(first));
      continue;
    }
    EXPECT_THAT(sent(),
                ElementsAre(first[0], "write dev 0 table 0x10 @0x1008 data 0202020202020202 mask -",
                            "write dev 0 table 0x10 @0x1010 data 0303030303030303 mask -"));
  }
}

TEST_F(RequesterDalRemoteTest, ReplayWalkSurvivesTablesChangingUnderIt) {
  const std::string a0 = "write dev 0 table 0x10 @0x1000 data 0101010101010101 mask -";
  const std::string b0 = "write dev 0 table 0x20 @0x2000 data 02020202 mask -";
  const std::string a1 = "write dev 1 table 0x10 @0x1000 data 0303030303030303 mask -";
  const std::string added = "write dev 0 table 0x30 @0x3000 data 0404040404040404 mask -";
  // clang-format off
  const std::vector<std::pair<std::function<void()>, std::vector<std::string>>> cases = {
    {[&] { fill(0, 0x3000, 0x04); }, {a0, b0, added, a1}},            // a table added ahead
    {[&] { dal->localCacheDel(at(0, kB)); }, {a0, a1}},               // a table removed ahead
    {[&] { dal->localCacheDel(at(0, kA)); }, {a0, b0, a1}},           // the current one removed
    {[&] { dal->localCache(at(0, kA))->doRestart(true); }, {b0, a1}}};  // the current one emptied
  // clang-format on
  U64 restarts = 0;
  for (const auto& [duringFirstWrite, pushed] : cases) {
    dal = makeDal(masks);
    fill(0, 0x1000, 0x01);
    fill(0, 0x2000, 0x02);
    fill(1, 0x1000, 0x03);
    helper->duringReplay = duringFirstWrite;
    requester->serializerRestartCountIs(++restarts);
    EXPECT_THAT(sent(), ElementsAreArray(pushed));
  }
}

using RequesterDalRemoteDeathTest = RequesterDalRemoteTest;

TEST_F(RequesterDalRemoteDeathTest, ShadowAccessInvariants) {
  EXPECT_DEATH(read(0, kRegisterOffset), assertion("helper()->cacheable( devId, resourceId )"));
  EXPECT_DEATH(fill(0, kRegisterOffset, 1),
               assertion("prrid.type() == ResourceType::tableResource_"));
  EXPECT_DEATH(dal->writeEntryDataToShadow(at(0, kA), 0x1000, buffer.data(), 8),
               assertion("lCache"));
}

}  // namespace
}  // namespace Zorvek
