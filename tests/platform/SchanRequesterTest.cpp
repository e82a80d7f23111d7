// SchanRequester against a fake backend that records every access reaching it.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "Zorvek/SchanRequester.h"
#include "dal/DalDoubles.h"

namespace {

using namespace Zorvek;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const PhysicalResourceId kTable(ResourceType::tableResource_, 7);
constexpr DeviceOffset kRefusedOffset = 0xBAD;

std::string bytes(const void* p, U32 n) {
  std::ostringstream os;
  for (U32 i = 0; p && i < n; ++i) os << (i ? " " : "[") << unsigned(static_cast<const U8*>(p)[i]);
  return p ? os.str() + "]" : "-";
}

// Records each access as one line of text; reads return what the last write wrote, and
// writes at kRefusedOffset are refused.
class FakeBackend : public SchanBackend {
 public:
  S32 read(DeviceId d, const PhysicalResourceId&, DeviceOffset offset, void* data,
           U32 size) override {
    std::memcpy(data, last.data(), std::min<std::size_t>(size, last.size()));
    return log("read", unsigned(d.value()), "@", offset);
  }
  S32 write(DeviceId d, const PhysicalResourceId&, DeviceOffset offset, const void* data,
            const void* mask, U32 size, AgentId agent) override {
    last.assign(static_cast<const U8*>(data), static_cast<const U8*>(data) + size);
    log("write", unsigned(d.value()), "@", offset, bytes(data, size), "mask", bytes(mask, size),
        agent);
    return offset == kRefusedOffset ? -1 : 0;
  }
  S32 bulkRead(DeviceId d, const PhysicalResourceId&, DeviceOffset offset, PhysicalAddr phys,
               U32 entrySize, U32 numEntries) override {
    return log("bulkRead", unsigned(d.value()), "@", offset, "phys", phys, entrySize, "x",
               numEntries);
  }
  S32 bulkWrite(DeviceId d, const PhysicalResourceId&, DeviceOffset offset, PhysicalAddr phys,
                const void* data, U32 entrySize, U32 numEntries, AgentId agent) override {
    return log("bulkWrite", unsigned(d.value()), "@", offset, "phys", phys, entrySize, "x",
               numEntries, bytes(data, entrySize * numEntries), agent);
  }
  template <class... Args>
  S32 log(const Args&... args) {
    std::ostringstream os;
    ((os << args << ' '), ...);
    calls.push_back(os.str());
    return 0;
  }
  std::vector<std::string> calls;
  std::vector<U8> last;
};

TargetMask devices(std::initializer_list<unsigned> ids) {
  TargetMask m;
  for (unsigned d : ids) m.targetIdIs(TargetId(U8(d)), true);
  return m;
}

class SchanRequesterTest : public ::testing::Test {
 protected:
  void TearDown() override { schanBackendIs(nullptr); }
  Kel::Ptr<SchanRequester> makeRequester(unsigned queueSize = 8) {
    return Kel::allocate<SchanRequester>("a5-Schan-Queue", AgentId(5), queueSize, DalId(0),
                                         processingStatus, watchList, 6u);
  }
  static S64 writeAt(SchanRequester& r, unsigned device, DeviceOffset offset, U8 value) {
    return r.write(devices({device}), kTable, offset, &value, nullptr, 1, false);
  }
  Kel::Ptr<FakeBackend> backend = Kel::allocate<FakeBackend>();
  Kel::Ptr<DalProcessingStatus> processingStatus = Kel::allocate<DalProcessingStatus>(DalId(0));
  Kel::Ptr<Orv::WatchList> watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
};

TEST_F(SchanRequesterTest, CommandsReachTheBackendOnEveryTargetDevice) {
  schanBackendIs(backend);
  auto r = makeRequester();
  U8 data[2] = {1, 2}, mask[2] = {0xFF, 0x00}, out[2] = {};
  EXPECT_EQ(r->write(devices({0, 2}), kTable, 16, data, mask, 2, false), 1);
  EXPECT_EQ(r->bulkWrite(devices({1}), kTable, 32, 4096, nullptr, 4, 3), 2);
  EXPECT_EQ(r->bulkRead(DeviceId(1), kTable, 32, 8192, 4, 3), 3);
  EXPECT_EQ(r->read(DeviceId(2), kTable, 16, out, 2), 4);
  EXPECT_THAT(out, ElementsAre(1, 2));
  EXPECT_THAT(backend->calls, ElementsAre("write 0 @ 16 [1 2] mask [255 0] 6 ",
                                          "write 2 @ 16 [1 2] mask [255 0] 6 ",
                                          "bulkWrite 1 @ 32 phys 4096 4 x 3 - 6 ",
                                          "bulkRead 1 @ 32 phys 8192 4 x 3 ", "read 2 @ 16 "));
  EXPECT_EQ(r->lastCompletedCmdIndex(), 4u);
  EXPECT_EQ(processingStatus->lastEnqueuedCmdIndex(), 4u);
  // A refusal comes back as a negative index and is counted.
  EXPECT_EQ(writeAt(*r, 0, kRefusedOffset, 1), -1);
  EXPECT_EQ(r->blockingWrite(devices({0}), kTable, kRefusedOffset, data, nullptr, 1, false), -1);
  EXPECT_EQ(writeAt(*r, 0, 8, 1), 7);
  EXPECT_EQ(r->failedCmds(), 2u);
}

// Held back without a backend, and behind a device the checker blocks: order is kept.
TEST_F(SchanRequesterTest, WritesThatCannotGoOutWaitInOrderAndResultsFail) {
  auto r = makeRequester(2);
  auto checker = Kel::allocate<CoprocessorChecker>(Kel::Name("checker"));
  r->coprocessorCheckerIs(checker);
  EXPECT_FALSE(r->ready());
  EXPECT_EQ(writeAt(*r, 0, 1, 11), 1);
  EXPECT_EQ(writeAt(*r, 0, 2, 22), 2);
  EXPECT_EQ(writeAt(*r, 0, 3, 33), -1);  // held-back queue full
  U8 out[1] = {};
  EXPECT_EQ(r->read(DeviceId(0), kTable, 1, out, 1), -1);
  EXPECT_EQ(r->blockingWrite(devices({0}), kTable, 4, out, nullptr, 1, false), -1);
  EXPECT_EQ(r->heldBackCmds(), 2u);
  EXPECT_THAT(backend->calls, IsEmpty());
  schanBackendIs(backend);  // ready while registered: what was held back goes out
  EXPECT_TRUE(r->ready());
  EXPECT_EQ(r->heldBackCmds(), 0u);
  checker->deviceBlockedIs(DeviceId(1), true);
  EXPECT_EQ(writeAt(*r, 1, 8, 1), 3);  // failed commands took no index
  EXPECT_EQ(writeAt(*r, 0, 8, 2), 4);
  EXPECT_EQ(r->blockingWrite(devices({0}), kTable, 8, out, nullptr, 1, false), -1);
  checker->deviceBlockedIs(DeviceId(1), false);
  r->waitForCmdIndex(4);
  EXPECT_THAT(backend->calls,
              ElementsAre("write 0 @ 1 [11] mask - 6 ", "write 0 @ 2 [22] mask - 6 ",
                          "write 1 @ 8 [1] mask - 6 ", "write 0 @ 8 [2] mask - 6 "));
  schanBackendIs(nullptr);
  EXPECT_FALSE(r->ready());
}

TEST_F(SchanRequesterTest, AttachAndDetachKeepTheRecordOfCoprocessors) {
  auto r = makeRequester();
  const Corvane::Coprocessor a(1, 10), a2(1, 11), b(2, 20), invalid;
  r->attachCoprocessor(a);
  r->attachCoprocessor(b);
  r->attachCoprocessor(a2);  // same coprocessorId: replaces
  r->attachCoprocessor(invalid);
  EXPECT_THAT(r->attachedCoprocessors(), ElementsAre(a2, b));
  r->detachCoprocessor(b);
  r->detachCoprocessor(invalid);  // the only one attached
  EXPECT_THAT(r->attachedCoprocessors(), IsEmpty());
  EXPECT_EQ(r->unidentifiedDetaches(), 0u);
  r->detachCoprocessor(invalid);  // none attached
  r->attachCoprocessor(a);
  r->attachCoprocessor(b);
  r->detachCoprocessor(invalid);                      // two attached: which one?
  r->detachCoprocessor(Corvane::Coprocessor(3, 30));  // not attached
  EXPECT_THAT(r->attachedCoprocessors(), ElementsAre(a, b));
  EXPECT_EQ(r->unidentifiedDetaches(), 3u);
}

TEST_F(SchanRequesterTest, ShowRequesterStateWritesItsFields) {
  auto r = makeRequester(4);
  writeAt(*r, 0, 8, 1);  // held back: no backend
  r->attachCoprocessor(Corvane::Coprocessor(2, 20));
  r->detachCoprocessor(Corvane::Coprocessor(9, 1));
  EXPECT_EQ(doubles::dumpOf([&](U32 fd) { r->showRequesterState(fd); }),
            "'name':'a5-Schan-Queue','agentId':5,'dalId':0,'ready':False,'cmdIndex':2,"
            "'ownerAgentId':6,'backend':False,'heldBack':{'name':'a5-Schan-Queue','size':4,"
            "'depth':1,'consumer':False,'lastCompletedCmdIndex':0,'lastFailedCmdIndex':0,"
            "'failedCmds':0,},'attachedCoprocessors':{'2':{'coprocessorId':2,'genId':20,},},"
            "'unidentifiedDetaches':1,'watchLog':{'recorded':0,'records':{},},");
}

TEST(SchanRequesterDeathTest, OwnerBeyondTheInvalidAgentAborts) {
  EXPECT_DEATH(Kel::allocate<SchanRequester>("s", 1, 8, DalId(0), nullptr, nullptr, 0x10000u),
               "Assertion failed: ownerAgentId <= kInvalidAgentId");
}

}  // namespace
