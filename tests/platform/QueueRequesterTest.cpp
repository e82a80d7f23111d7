// QueueRequester against a small serializer, the fixture itself: it attaches to the queues in
// the configuration directory and publishes its status in the status directory.
#include <gmock/gmock.h>

#include <vector>

#include "Zorvek/QueueRequester.h"

namespace {

using namespace Zorvek;
using namespace ::testing;

const PhysicalResourceId kTable(ResourceType::tableResource_, 7);
const Kel::String kStatusEntry(SerializerStatus::kEntryName);

class QueueRequesterTest : public ::testing::Test, public QueueConsumer {
 protected:
  void TearDown() override { attacher = nullptr; }  // detach while this consumer is whole
  void startSerializer() {
    status->entityIs(kStatusEntry, served);
    attacher = Kel::allocate<QueueAttacher>(config, this);
  }
  bool commandExecute(const RequesterQueue&, QueueCommand& cmd) override {
    executed.push_back(cmd);
    return true;
  }
  void queueAttached(RequesterQueue& q) override { served->servedQueueIs(q.name()); }
  void queueDetached(RequesterQueue& q) override { served->servedQueueDel(q.name()); }

  Kel::Ptr<QueueRequester> makeRequester(unsigned queueSize = 8) {
    return Kel::allocate<QueueRequester>("a1-s0-Queue", AgentId(1), queueSize, DalId(3),
                                         processingStatus, watchList, IoMemType::queueMemory_,
                                         config, status, "s0-kick", "Kick-a1-s0-Requester");
  }
  static S64 writeAt(QueueRequester& r, DeviceOffset offset, std::vector<U8> data) {
    return r.write(oneDeviceMask(DeviceId(0)), kTable, offset, data.data(), nullptr,
                   U32(data.size()), false);
  }

  Kel::Ptr<Kel::Dir> config = Kel::allocate<Kel::Dir>(Kel::Name("config"));
  Kel::Ptr<Kel::Dir> status = Kel::allocate<Kel::Dir>(Kel::Name("status"));
  Kel::Ptr<DalProcessingStatus> processingStatus = Kel::allocate<DalProcessingStatus>(DalId(3));
  Kel::Ptr<Orv::WatchList> watchList = Kel::allocate<Orv::WatchList>(Kel::Name("watchlist"));
  Kel::Ptr<SerializerStatus> served = Kel::allocate<SerializerStatus>(Kel::Name("s0"));
  Kel::Ptr<QueueAttacher> attacher;
  std::vector<QueueCommand> executed;
};

// Readiness following the served queues and the restart count are followed end to end by the
// model and assembled-tree tests; here, another requester's queue and a replaced status.
TEST_F(QueueRequesterTest, FollowsItsOwnQueueAndTheLatestPublishedStatus) {
  auto r = makeRequester();
  startSerializer();  // finds the queue, attaches, serves it
  served->servedQueueDel("a1-s0-Queue");
  served->servedQueueIs("a9-s0-Queue");  // another requester's queue
  EXPECT_FALSE(r->ready());
  served->servedQueueIs("a1-s0-Queue");
  EXPECT_TRUE(r->ready());
  auto replacement = Kel::allocate<SerializerStatus>(Kel::Name("s0"));
  replacement->restartCountIs(4);
  status->entityIs(kStatusEntry, replacement);
  EXPECT_EQ(r->serializerStatus(), replacement);
  EXPECT_FALSE(r->ready());  // the new status does not serve the queue yet
  EXPECT_EQ(r->serializerRestartCount(), 4u);
  replacement->servedQueueIs("a1-s0-Queue");
  status->entityDel(kStatusEntry);
  EXPECT_FALSE(r->ready());
  EXPECT_EQ(r->serializerRestartCount(), 4u);  // the count stays when the status goes
}

// Draining a full queue, the command indexes and waits are followed by the simulator's long
// run, which fails when a full queue refuses instead of making room.
TEST_F(QueueRequesterTest, WithoutASerializerResultsAndAFullQueueFail) {
  auto r = makeRequester(2);
  U8 data[2] = {5, 6};
  EXPECT_EQ(r->read(DeviceId(0), kTable, 0, data, 2), -1);
  EXPECT_EQ(r->blockingWrite(oneDeviceMask(DeviceId(0)), kTable, 0, data, nullptr, 2, false), -1);
  EXPECT_THAT((std::vector{writeAt(*r, 0, {1}), writeAt(*r, 8, {2}), writeAt(*r, 16, {3})}),
              ElementsAre(1, 2, -1));
  EXPECT_EQ(r->cmdIndex(), 3u);  // failed commands take no index
  startSerializer();
  r->waitForCmdIndex(2);
  EXPECT_EQ(executed.size(), 2u);
}

// Going away with a command still in the queue: the queue is withdrawn from the directory and
// from the serializer.
TEST_F(QueueRequesterTest, GoingAwayWithdrawsTheQueue) {
  startSerializer();
  auto r = makeRequester(4);
  writeAt(*r, 0x8, {1, 2});
  EXPECT_EQ(r->queue()->depth(), 1u);
  r = nullptr;
  EXPECT_EQ(config->entity("a1-s0-Queue"), nullptr);
  EXPECT_THAT(served->servedQueues(), IsEmpty());
  EXPECT_THAT(attacher->queues(), IsEmpty());
}

}  // namespace
