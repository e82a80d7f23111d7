// QueueRequester end to end against a small serializer: the requester and the serializer
// mount the same state-database directories with opposite modes, the serializer attaches
// to the queue it finds in its configuration directory and publishes its status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>

#include "Kel/Trace.h"
#include "Skorra/MountGroup.h"
#include "Zorvek/QueueRequester.h"

namespace {

using namespace Zorvek;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const PhysicalResourceId kTable(ResourceType::tableResource_, 7);
const PhysicalResourceId kOtherTable(ResourceType::tableResource_, 8);

// Executes commands into a memory keyed by (device, offset), and serves every queue it is
// attached to.
class FakeSerializer : public QueueConsumer {
 public:
  FakeSerializer(const Kel::Ptr<const Kel::Dir>& configDir, const Kel::Ptr<Kel::Dir>& statusDir)
      : status(Kel::allocate<SerializerStatus>(Kel::Name("s0"))) {
    statusDir->entityIs(Kel::String(SerializerStatus::kEntryName), status);
    attacher = Kel::allocate<QueueAttacher>(configDir, this);
  }
  ~FakeSerializer() { attacher = nullptr; }  // detach while this consumer is whole

  bool commandExecute(const RequesterQueue&, QueueCommand& cmd) override {
    executed.push_back(cmd);
    std::vector<U8>& mem = memory[{cmd.devId().value(), cmd.offset}];
    mem.resize(cmd.size);
    if (cmd.command == Command::readCmd_) std::copy(mem.begin(), mem.end(), cmd.data.begin());
    if (cmd.command != Command::writeCmd_ && cmd.command != Command::blockingWriteCmd_) return true;
    for (U32 i = 0; i < cmd.size; ++i) {
      const U8 m = cmd.dataMask.empty() ? 0xFF : cmd.dataMask[i];
      mem[i] = U8((mem[i] & ~m) | (cmd.data[i] & m));
    }
    return true;
  }
  void queueAttached(RequesterQueue& q) override { status->servedQueueIs(q.name()); }
  void queueDetached(RequesterQueue& q) override { status->servedQueueDel(q.name()); }

  std::vector<U64> indexes() const {
    std::vector<U64> out;
    for (const QueueCommand& c : executed) out.push_back(c.cmdIndex);
    return out;
  }

  Kel::Ptr<SerializerStatus> status;
  Kel::Ptr<QueueAttacher> attacher;
  std::vector<QueueCommand> executed;
  std::map<std::pair<unsigned, DeviceOffset>, std::vector<U8>> memory;
};

struct RequesterLog : Requester::NotifieeConst {
  void onReady() override { ++ready; }
  void onSerializerRestartCount() override { ++restarts; }
  int ready = 0;
  int restarts = 0;
};

std::string stateOf(const Requester& r) {
  FILE* f = std::tmpfile();
  r.showRequesterState(static_cast<U32>(fileno(f)));
  std::string text(static_cast<std::size_t>(ftell(f)), '\0');
  std::rewind(f);
  text.resize(std::fread(text.data(), 1, text.size(), f));
  std::fclose(f);
  return text;
}

class QueueRequesterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    requesterMounts->doMount(Skorra::Mount("s0/config", "Kel::Dir", "wi"));
    requesterMounts->doMount(Skorra::Mount("s0/status", "Kel::Dir", "ri"));
    serializerMounts->doMount(Skorra::Mount("s0/config", "Kel::Dir", "ri"));
    serializerMounts->doMount(Skorra::Mount("s0/status", "Kel::Dir", "wi"));
    requesterMounts->completeMounts();
    serializerMounts->completeMounts();
  }

  Kel::Ptr<QueueRequester> makeRequester(unsigned queueSize = 8, const char* name = "a1-s0-Queue") {
    const Skorra::EntityManager* em = requesterMounts->entityManager();
    return Kel::allocate<QueueRequester>(
        name, AgentId(1), queueSize, DalId(3), processingStatus, watchList, IoMemType::queueMemory_,
        Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s0/config")),
        Kel::dynamicPtrCast<const Kel::Dir>(em->getEntity("s0/status")), "s0-kick",
        "Kick-a1-s0-Requester");
  }
  std::unique_ptr<FakeSerializer> startSerializer() {
    const Skorra::EntityManager* em = serializerMounts->entityManager();
    return std::make_unique<FakeSerializer>(
        Kel::dynamicPtrCast<const Kel::Dir>(em->getEntity("s0/config")),
        Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s0/status")));
  }
  static Kel::Ptr<RequesterLog> observe(const Kel::Ptr<QueueRequester>& r) {
    auto log = Kel::allocate<RequesterLog>();
    log->notifierIs(r);
    return log;
  }
  static S64 writeAt(QueueRequester& r, DeviceOffset offset, std::vector<U8> data) {
    return r.write(oneDeviceMask(DeviceId(0)), kTable, offset, data.data(), nullptr,
                   U32(data.size()), false);
  }

  Kel::Ptr<Skorra::Database> db = Kel::allocate<Skorra::Database>();
  Kel::Ptr<Skorra::MountGroup> requesterMounts = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<Skorra::MountGroup> serializerMounts = Kel::allocate<Skorra::MountGroup>(db);
  Kel::Ptr<DalProcessingStatus> processingStatus = Kel::allocate<DalProcessingStatus>(DalId(3));
  Kel::Ptr<Orv::WatchList> watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
};

TEST_F(QueueRequesterTest, ReadinessFollowsTheServedQueues) {
  auto early = makeRequester();
  auto log = observe(early);
  EXPECT_EQ(db->entity("s0/config/a1-s0-Queue"), early->queue());
  EXPECT_FALSE(early->ready());

  auto serializer = startSerializer();  // finds the queue, attaches, serves it
  EXPECT_TRUE(early->ready());
  EXPECT_TRUE(makeRequester(8, "a2-s0-Queue")->ready());  // served during construction

  serializer->status->servedQueueDel("a1-s0-Queue");
  EXPECT_FALSE(early->ready());
  serializer->status->servedQueueIs("a9-s0-Queue");
  EXPECT_FALSE(early->ready());
  serializer->status->servedQueueIs("a1-s0-Queue");
  EXPECT_TRUE(early->ready());
  db->entityDel("s0/status/serializerStatus");
  EXPECT_FALSE(early->ready());
  EXPECT_EQ(log->ready, 4);
}

TEST_F(QueueRequesterTest, RestartCountFollowsThePublishedStatus) {
  auto serializer = startSerializer();
  auto r = makeRequester();
  auto log = observe(r);
  serializer->status->restartCountInc(1);
  serializer->status->restartCountIs(1);
  EXPECT_EQ(r->serializerRestartCount(), 1u);
  EXPECT_EQ(log->restarts, 1);

  auto replacement = Kel::allocate<SerializerStatus>(Kel::Name("s0"));
  replacement->restartCountIs(4);
  db->entityIs("s0/status/serializerStatus", replacement);
  EXPECT_EQ(r->serializerStatus(), replacement);
  EXPECT_EQ(r->serializerRestartCount(), 4u);
  EXPECT_FALSE(r->ready());  // the new status does not serve the queue yet
  db->entityDel("s0/status/serializerStatus");
  EXPECT_EQ(r->serializerRestartCount(), 4u);
  EXPECT_EQ(log->restarts, 2);
}

TEST_F(QueueRequesterTest, FullQueueIsDrainedInsteadOfDroppingCommands) {
  auto serializer = startSerializer();
  auto r = makeRequester(2);
  std::vector<S64> indexes;
  for (U8 i = 0; i < 5; ++i) indexes.push_back(writeAt(*r, 0x10u * i, {i, i}));
  EXPECT_THAT(indexes, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_THAT(serializer->indexes(), ElementsAre(1, 2, 3, 4));  // drained at the 3rd and 5th
  EXPECT_EQ(processingStatus->lastEnqueuedCmdIndex(), 5u);
  r->waitForCmdIndex(5);
  EXPECT_THAT(serializer->indexes(), ElementsAre(1, 2, 3, 4, 5));
  for (U8 i = 0; i < 5; ++i) EXPECT_THAT((serializer->memory[{0, 0x10u * i}]), ElementsAre(i, i));
}

TEST_F(QueueRequesterTest, WithoutASerializerAFullQueueFailsTheCommand) {
  auto r = makeRequester(2);
  Kel::TraceHandle* th = Kel::traceHandle("ZorvekQueueRequester");
  ASSERT_NE(th, nullptr);
  const std::uint32_t levels = th->levels();
  th->levelsIs(Kel::kAllTraceLevels);
  Kel::TraceCapture capture;
  U8 out[2] = {};
  U8 data[2] = {5, 6};
  EXPECT_EQ(r->read(DeviceId(0), kTable, 0, out, 2), -1);
  EXPECT_EQ(r->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, 0, data, nullptr, 2, false), -1);
  EXPECT_EQ(writeAt(*r, 0, {1}), 1);
  EXPECT_EQ(writeAt(*r, 8, {2}), 2);
  EXPECT_EQ(writeAt(*r, 16, {3}), -1);
  th->levelsIs(levels);
  EXPECT_TRUE(capture.contains("QueueRequester::read a1-s0-Queue no serializer drains the queue"));
  EXPECT_TRUE(capture.contains(
      "QueueRequester::enqueue a1-s0-Queue write queue full and no serializer drains it"));
  EXPECT_EQ(r->cmdIndex(), 3u);  // failed commands take no index

  auto serializer = startSerializer();
  r->waitForCmdIndex(2);
  EXPECT_THAT(serializer->indexes(), ElementsAre(1, 2));
}

TEST_F(QueueRequesterTest, WaitReadAndBlockingWriteReturnOnceTheCommandRan) {
  auto serializer = startSerializer();
  auto r = makeRequester();
  const S64 w = writeAt(*r, 0x40, {1, 2, 3, 4});
  EXPECT_THAT(serializer->executed, IsEmpty());
  r->waitForCmdIndex(U64(w));
  EXPECT_THAT(serializer->indexes(), ElementsAre(w));

  U8 data[4] = {9, 8, 7, 6};
  const S64 b = r->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, 0x80, data, nullptr, 4, false);
  EXPECT_EQ(r->queue()->lastCompletedCmdIndex(), U64(b));
  U8 out[4] = {};
  EXPECT_EQ(r->read(DeviceId(0), kTable, 0x40, out, 4), b + 1);
  EXPECT_THAT(out, ElementsAre(1, 2, 3, 4));
}

TEST_F(QueueRequesterTest, DataAndMasksAreCopiedAtTheCall) {
  auto serializer = startSerializer();
  auto r = makeRequester();
  U8 data[4] = {0xAA, 0xBB, 0xCC, 0xDD};
  U8 mask[4] = {0xFF, 0x00, 0x0F, 0xFF};
  U8 entries[6] = {1, 2, 3, 4, 5, 6};
  r->write(oneDeviceMask(DeviceId(1)), kTable, 0x20, data, mask, 4, true);
  const S64 bulk = r->bulkWrite(oneDeviceMask(DeviceId(1)), kTable, 0x40, 0x1000, entries, 3, 2);
  std::fill(std::begin(data), std::end(data), 0);
  std::fill(std::begin(mask), std::end(mask), 0);
  std::fill(std::begin(entries), std::end(entries), 0);
  r->waitForCmdIndex(U64(bulk));

  ASSERT_EQ(serializer->executed.size(), 2u);
  const QueueCommand& w = serializer->executed[0];
  EXPECT_EQ(w.command, Command::writeCmd_);
  EXPECT_EQ(w.targets, oneDeviceMask(DeviceId(1)));
  EXPECT_TRUE(w.reclaimWhenProgrammed);
  EXPECT_THAT(w.data, ElementsAre(0xAA, 0xBB, 0xCC, 0xDD));
  EXPECT_THAT(w.dataMask, ElementsAre(0xFF, 0x00, 0x0F, 0xFF));
  const QueueCommand& b = serializer->executed[1];
  EXPECT_EQ(b.command, Command::bulkWriteCmd_);
  EXPECT_EQ(b.physAddr, 0x1000u);
  EXPECT_EQ(b.entrySize, 3u);
  EXPECT_EQ(b.numEntries, 2u);
  EXPECT_THAT(b.data, ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(QueueRequesterTest, InitFreeFromSerializerCarriesItsMaskBytes) {
  auto serializer = startSerializer();
  auto r = makeRequester();
  U8 mask[4] = {0xF0, 0x00, 0x00, 0x0F};
  r->initFreeFromSerializer(DeviceId(2), kTable, mask, 4);
  mask[0] = 0;
  r->initFreeFromSerializer(DeviceId(2), kTable, nullptr, 4);
  r->waitForCmdIndex(2);
  ASSERT_EQ(serializer->executed.size(), 2u);
  for (const QueueCommand& c : serializer->executed) {
    EXPECT_EQ(c.command, Command::freeCmd_);
    EXPECT_EQ(c.devId(), DeviceId(2));
    EXPECT_EQ(c.resourceId, kTable);
    EXPECT_EQ(c.size, 4u);
  }
  EXPECT_THAT(serializer->executed[0].dataMask, ElementsAre(0xF0, 0x00, 0x00, 0x0F));
  EXPECT_THAT(serializer->executed[1].dataMask, IsEmpty());
}

TEST_F(QueueRequesterTest, WithoutDirectoriesItIsNeverReadyAndCommandsFail) {
  auto r = Kel::allocate<QueueRequester>("alone", AgentId(1), 8, DalId(0), nullptr, nullptr,
                                         IoMemType::queueMemory_, nullptr, nullptr, "", "");
  U8 buf[4] = {};
  EXPECT_FALSE(r->ready());
  EXPECT_EQ(r->queue(), nullptr);
  EXPECT_EQ(r->write(oneDeviceMask(DeviceId(0)), kTable, 0, buf, nullptr, 4, false), -1);
  EXPECT_EQ(r->read(DeviceId(0), kTable, 0, buf, 4), -1);
  EXPECT_EQ(r->bulkRead(DeviceId(0), kTable, 0, 0x1000, 4, 2), -1);
  EXPECT_EQ(r->initFreeFromSerializer(DeviceId(0), kTable, nullptr, 4), -1);
  EXPECT_EQ(r->cmdIndex(), 1u);
  EXPECT_THAT(stateOf(*r), ::testing::HasSubstr("'queue':None,'serializerStatus':False,"));
}

TEST_F(QueueRequesterTest, ShowRequesterStateWritesItsFieldsAndWatchedCommands) {
  auto serializer = startSerializer();
  auto r = makeRequester(4);
  watchList->watchIs(DeviceId(0), kTable);
  writeAt(*r, 0x8, {1, 2});
  r->write(oneDeviceMask(DeviceId(0)), kOtherTable, 0x8, nullptr, nullptr, 0, false);
  r->waitForCmdIndex(1);
  EXPECT_EQ(stateOf(*r),
            "'name':'a1-s0-Queue','agentId':1,'dalId':3,'ready':True,'cmdIndex':3,"
            "'queueSize':4,'ioMemType':1,'queue':{'name':'a1-s0-Queue','size':4,'depth':1,"
            "'consumer':True,'lastCompletedCmdIndex':1,'lastFailedCmdIndex':0,'failedCmds':0,},"
            "'serializerStatus':True,'serializerRestartCount':0,'kickFifoName':'s0-kick',"
            "'kickName':'Kick-a1-s0-Requester','watchLog':{'recorded':1,'records':{'0':{"
            "'cmdIndex':1,'command':'write','device':0,'resourceType':'tableResource',"
            "'resourceId':0x7,'offset':0x8,'size':2,},},},");
}

TEST_F(QueueRequesterTest, GoingAwayWithdrawsTheQueueAndFreesEverything) {
  auto serializer = startSerializer();
  const auto requesters = QueueRequester::staticType().liveCount();
  const auto queues = RequesterQueue::staticType().liveCount();
  {
    auto r = makeRequester();
    writeAt(*r, 0, {1});  // left waiting in the queue
    EXPECT_TRUE(serializer->status->servedQueue("a1-s0-Queue"));
  }
  EXPECT_EQ(db->entity("s0/config/a1-s0-Queue"), nullptr);
  EXPECT_FALSE(serializer->status->servedQueue("a1-s0-Queue"));
  EXPECT_TRUE(serializer->attacher->queues().empty());
  EXPECT_EQ(QueueRequester::staticType().liveCount(), requesters);
  EXPECT_EQ(RequesterQueue::staticType().liveCount(), queues);
}

TEST_F(QueueRequesterTest, ReadOnlyConfigurationDirectoryIsRefused) {
  const Skorra::EntityManager* em = serializerMounts->entityManager();
  EXPECT_THROW(
      Kel::allocate<QueueRequester>(
          "a1-s0-Queue", AgentId(1), 8, DalId(0), nullptr, nullptr, IoMemType::queueMemory_,
          Kel::dynamicPtrCast<Kel::Dir>(em->getEntity("s0/config")), nullptr, "", ""),
      Skorra::MountError);
}

using QueueRequesterDeathTest = QueueRequesterTest;

TEST_F(QueueRequesterDeathTest, EmptyQueueAborts) {
  EXPECT_DEATH(makeRequester(0), "Assertion failed: queueSize > 0");
}

}  // namespace
