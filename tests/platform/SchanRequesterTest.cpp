// SchanRequester against a fake backend that records every access reaching it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "Zorvek/SchanRequester.h"

namespace {

using namespace Zorvek;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const PhysicalResourceId kTable(ResourceType::tableResource_, 7);
constexpr DeviceOffset kRefusedOffset = 0xBAD;

std::string bytes(const void* p, U32 n) {
  if (!p) return "-";
  std::ostringstream os;
  for (U32 i = 0; i < n; ++i) os << (i ? " " : "[") << unsigned(static_cast<const U8*>(p)[i]);
  return os.str() + "]";
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
  void SetUp() override { schanBackendIs(nullptr); }
  void TearDown() override { schanBackendIs(nullptr); }
  Kel::Ptr<SchanRequester> makeRequester(unsigned queueSize = 8) {
    return Kel::allocate<SchanRequester>("a5-Schan-Queue", AgentId(5), queueSize, DalId(0),
                                         processingStatus, nullptr, 6u);
  }
  static S64 writeAt(SchanRequester& r, unsigned device, DeviceOffset offset, U8 value) {
    return r.write(devices({device}), kTable, offset, &value, nullptr, 1, false);
  }
  Kel::Ptr<FakeBackend> backend = Kel::allocate<FakeBackend>();
  Kel::Ptr<DalProcessingStatus> processingStatus = Kel::allocate<DalProcessingStatus>(DalId(0));
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

TEST_F(SchanRequesterTest, WithoutABackendWritesWaitInOrderAndResultsFail) {
  auto r = makeRequester(2);
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
  EXPECT_THAT(backend->calls,
              ElementsAre("write 0 @ 1 [11] mask - 6 ", "write 0 @ 2 [22] mask - 6 "));
  EXPECT_EQ(r->heldBackCmds(), 0u);
  schanBackendIs(nullptr);
  EXPECT_FALSE(r->ready());
}

TEST_F(SchanRequesterTest, BlockedDeviceHoldsBackItsCommandsAndThoseBehindThem) {
  schanBackendIs(backend);
  auto r = makeRequester();
  auto checker = Kel::allocate<CoprocessorChecker>(Kel::Name("checker"));
  r->coprocessorCheckerIs(checker);
  checker->deviceBlockedIs(DeviceId(1), true);
  EXPECT_EQ(writeAt(*r, 1, 8, 1), 1);
  EXPECT_EQ(writeAt(*r, 0, 8, 2), 2);
  U8 data[1] = {3};
  EXPECT_EQ(r->blockingWrite(devices({0}), kTable, 8, data, nullptr, 1, false), -1);
  EXPECT_THAT(backend->calls, IsEmpty());

  checker->deviceBlockedIs(DeviceId(1), false);
  r->waitForCmdIndex(2);
  EXPECT_THAT(backend->calls,
              ElementsAre("write 1 @ 8 [1] mask - 6 ", "write 0 @ 8 [2] mask - 6 "));
}

TEST_F(SchanRequesterTest, WatchLogKeepsTheLatestWatchedCommandsPerDevice) {
  schanBackendIs(backend);
  auto watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
  watchList->watchIs(DeviceId(1), kTable);
  auto r = Kel::allocate<SchanRequester>("a5-Schan-Queue", AgentId(5), 8, DalId(0), nullptr,
                                         watchList, 5u);
  U8 data[1] = {1};
  const std::size_t writes = Orv::WatchLog::kCapacity + 2;
  for (std::size_t i = 0; i < writes; ++i)
    r->write(devices({0, 1, 2}), kTable, DeviceOffset(i), data, nullptr, 1, false);
  r->write(devices({1}), {ResourceType::tableResource_, 8}, 0, data, nullptr, 1, false);
  const Orv::WatchLog& log = r->watchLog();
  EXPECT_EQ(log.recorded(), writes);  // device 1 only, and only the watched table
  ASSERT_EQ(log.records().size(), Orv::WatchLog::kCapacity);
  EXPECT_EQ(log.records().front(),
            (Orv::WatchLog::Record{Command::writeCmd_, DeviceId(1), kTable, 2, 1, 3}));
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
  FILE* f = std::tmpfile();
  r->showRequesterState(static_cast<U32>(fileno(f)));
  std::string text(static_cast<std::size_t>(ftell(f)), '\0');
  std::rewind(f);
  text.resize(std::fread(text.data(), 1, text.size(), f));
  std::fclose(f);
  EXPECT_EQ(text,
            "'name':'a5-Schan-Queue','agentId':5,'dalId':0,'ready':False,'cmdIndex':2,"
            "'ownerAgentId':6,'backend':False,'heldBack':{'name':'a5-Schan-Queue','size':4,"
            "'depth':1,'consumer':False,'lastCompletedCmdIndex':0,'lastFailedCmdIndex':0,"
            "'failedCmds':0,},'attachedCoprocessors':{'2':{'coprocessorId':2,'genId':20,},},"
            "'unidentifiedDetaches':1,'watchLog':{'recorded':0,'records':{},},");
}

}  // namespace
