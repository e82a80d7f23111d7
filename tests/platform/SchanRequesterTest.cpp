// SchanRequester against a fake backend that records every write reaching it. Its record of
// attached coprocessors is followed through the S-channel DAL's tests.
#include <gmock/gmock.h>

#include <sstream>

#include "Zorvek/SchanRequester.h"

namespace {

using namespace Zorvek;
using ::testing::ElementsAre;

const PhysicalResourceId kTable(ResourceType::tableResource_, 7);
constexpr DeviceOffset kRefusedOffset = 0xBAD;

// Records each write as one line of text ("<device> @ <offset> [<bytes>] mask <mask byte>
// agent <id>"); writes at kRefusedOffset are refused. Reads and bulk transfers reach the chip
// in the model test.
class FakeBackend : public SchanBackend {
 public:
  S32 read(DeviceId, const PhysicalResourceId&, DeviceOffset, void*, U32) override { return 0; }
  S32 write(DeviceId d, const PhysicalResourceId&, DeviceOffset offset, const void* data,
            const void* mask, U32 size, AgentId agent) override {
    std::ostringstream os;
    os << unsigned(d.value()) << " @ " << offset << " [";
    for (U32 i = 0; i < size; ++i)
      os << (i ? " " : "") << unsigned(static_cast<const U8*>(data)[i]);
    os << "] mask " << (mask ? std::to_string(*static_cast<const U8*>(mask)) : "-") << " agent "
       << agent;
    calls.push_back(os.str());
    return offset == kRefusedOffset ? -1 : 0;
  }
  S32 bulkRead(DeviceId, const PhysicalResourceId&, DeviceOffset, PhysicalAddr, U32, U32) override {
    return 0;
  }
  S32 bulkWrite(DeviceId, const PhysicalResourceId&, DeviceOffset, PhysicalAddr, const void*, U32,
                U32, AgentId) override {
    return 0;
  }
  std::vector<std::string> calls;
};

class SchanRequesterTest : public ::testing::Test {
 protected:
  void TearDown() override { schanBackendIs(nullptr); }
  Kel::Ptr<SchanRequester> makeRequester(unsigned queueSize = 8) {
    return Kel::allocate<SchanRequester>("a5-Schan-Queue", AgentId(5), queueSize, DalId(0),
                                         processingStatus, watchList, 6u);
  }
  static S64 writeAt(SchanRequester& r, unsigned device, DeviceOffset offset, U8 value) {
    return r.write(oneDeviceMask(DeviceId(device)), kTable, offset, &value, nullptr, 1, false);
  }
  Kel::Ptr<FakeBackend> backend = Kel::allocate<FakeBackend>();
  Kel::Ptr<DalProcessingStatus> processingStatus = Kel::allocate<DalProcessingStatus>(DalId(0));
  Kel::Ptr<Orv::WatchList> watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
};

// A write goes out as the owner agent with its mask; a refusal comes back as a negative index
// and is counted.
TEST_F(SchanRequesterTest, AccessesReachTheBackendAndRefusalsFail) {
  schanBackendIs(backend);
  auto r = makeRequester();
  U8 data[2] = {1, 2}, mask[2] = {0xF0, 0xFF};
  EXPECT_EQ(r->write(oneDeviceMask(DeviceId(2)), kTable, 16, data, mask, 2, false), 1);
  EXPECT_THAT(backend->calls, ElementsAre("2 @ 16 [1 2] mask 240 agent 6"));
  EXPECT_EQ(r->lastCompletedCmdIndex(), 1u);
  EXPECT_EQ(processingStatus->lastEnqueuedCmdIndex(), 1u);
  EXPECT_EQ(writeAt(*r, 0, kRefusedOffset, 1), -1);
  EXPECT_EQ(
      r->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, kRefusedOffset, data, nullptr, 1, false),
      -1);
  EXPECT_EQ(writeAt(*r, 0, 8, 1), 4);
  EXPECT_EQ(r->failedCmds(), 2u);
}

// Held back without a backend, and behind a device the checker blocks: order is kept. (The
// model test takes the backend away and back: readiness, failing reads and the release of
// what was held back.)
TEST_F(SchanRequesterTest, WritesThatCannotGoOutWaitInOrderAndResultsFail) {
  auto r = makeRequester(2);
  auto checker = Kel::allocate<CoprocessorChecker>(Kel::Name("checker"));
  r->coprocessorCheckerIs(checker);
  EXPECT_EQ(writeAt(*r, 0, 1, 11), 1);
  EXPECT_EQ(writeAt(*r, 0, 2, 22), 2);
  EXPECT_EQ(writeAt(*r, 0, 3, 33), -1);  // held-back queue full
  U8 out[1] = {};
  EXPECT_EQ(r->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, 4, out, nullptr, 1, false), -1);
  schanBackendIs(backend);
  checker->deviceBlockedIs(DeviceId(1), true);
  EXPECT_EQ(writeAt(*r, 1, 8, 1), 3);  // failed commands took no index
  EXPECT_EQ(writeAt(*r, 0, 8, 2), 4);
  EXPECT_EQ(r->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, 8, out, nullptr, 1, false), -1);
  checker->deviceBlockedIs(DeviceId(1), false);
  r->waitForCmdIndex(4);
  EXPECT_THAT(backend->calls, ElementsAre("0 @ 1 [11] mask - agent 6", "0 @ 2 [22] mask - agent 6",
                                          "1 @ 8 [1] mask - agent 6", "0 @ 8 [2] mask - agent 6"));
}

}  // namespace
