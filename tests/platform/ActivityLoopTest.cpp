#include "Kel/ActivityLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace Kel {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Pipe {
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  void put(char c) const { ASSERT_EQ(write(fds[1], &c, 1), 1); }
  char take() const {
    char c = 0;
    EXPECT_EQ(read(fds[0], &c, 1), 1);
    return c;
  }
  int fds[2];
};

TEST(ActivityLoopTest, ReadyDescriptorsReachTheirHandlersAfterPostedTasksAndDueTimers) {
  ActivityLoop loop;
  Pipe a, b;
  std::vector<std::string> calls;
  loop.descriptorIs(a.fds[0], POLLIN, [&](short revents) {
    EXPECT_EQ(revents, POLLIN);
    calls.push_back(std::string("a:") + a.take());
  });
  loop.descriptorIs(b.fds[0], POLLIN,
                    [&](short) { calls.push_back(std::string("b:") + b.take()); });
  loop.timerIs(0ms, [&] { calls.push_back("timer"); });
  loop.post([&] { calls.push_back("posted"); });
  a.put('x');
  EXPECT_TRUE(loop.runOnce(1s));
  EXPECT_THAT(calls, ElementsAre("posted", "timer", "a:x"));
  EXPECT_FALSE(loop.runOnce(10ms));  // nothing ready: the wait ends after maxWait
  EXPECT_THAT(calls, ElementsAre("posted", "timer", "a:x"));
}

TEST(ActivityLoopTest, TimersRunOnceInDueOrderAndADeletedTimerNever) {
  ActivityLoop loop;
  std::vector<int> ran;
  loop.timerIs(30ms, [&] { ran.push_back(3); });
  const ActivityLoop::TimerId cancelled = loop.timerIs(20ms, [&] { ran.push_back(2); });
  loop.timerIs(10ms, [&] { ran.push_back(1); });
  loop.timerIs(30ms, [&] { ran.push_back(4); });  // same time as 3, set after it
  loop.timerDel(cancelled);
  loop.timerDel(cancelled);  // a spent id is ignored
  loop.timerIs(40ms, [&] { loop.stop(); });
  loop.run();
  EXPECT_THAT(ran, ElementsAre(1, 3, 4));
  EXPECT_FALSE(loop.runOnce(0ms));
}

TEST(ActivityLoopTest, AHandlerMayRemoveItselfAndOthersInTheSameTurn) {
  ActivityLoop loop;
  Pipe a, b;
  int aCalls = 0, bCalls = 0;
  // Whichever handler runs first removes both: the other is not called in that turn.
  loop.descriptorIs(a.fds[0], POLLIN, [&](short) {
    ++aCalls;
    loop.descriptorDel(a.fds[0]);
    loop.descriptorDel(b.fds[0]);
  });
  loop.descriptorIs(b.fds[0], POLLIN, [&](short) {
    ++bCalls;
    loop.descriptorDel(b.fds[0]);
    loop.descriptorDel(a.fds[0]);
  });
  a.put('x');
  b.put('y');
  EXPECT_TRUE(loop.runOnce(1s));
  EXPECT_EQ(aCalls + bCalls, 1);
  EXPECT_EQ(loop.descriptors(), 0u);
}

TEST(ActivityLoopTest, PostFromAnotherThreadRunsOnTheLoopThreadAndStopEndsRun) {
  ActivityLoop loop;
  std::thread::id ranOn;
  std::thread poster([&] {
    loop.post([&] {
      ranOn = std::this_thread::get_id();
      loop.stop();
    });
  });
  loop.run();  // blocks in poll() until the poster wakes it
  poster.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  loop.stop();  // before run(): run() returns at once, and may run again afterwards
  loop.run();
  loop.post([&] { loop.stop(); });
  loop.run();
}

}  // namespace
}  // namespace Kel
