// Kel::ActivityLoop: the activity thread of an agent process. One thread runs the loop, and
// everything the agent does (its DAL, the reactions to state-database changes, its queues)
// runs in the loop's callbacks, so the agent's entities need no locks. A turn waits in
// poll() on the registered descriptors and a wake-up descriptor, up to the next timer, then
// runs, in this order: the tasks posted since the last turn, the timers that are due, and
// the handlers of the descriptors that are ready.
//
//   Kel::ActivityLoop loop;
//   loop.descriptorIs(fd, POLLIN, [&](short revents) { subscriber.readReplies(); });
//   loop.timerIs(std::chrono::milliseconds(100), [&] { reconnect(); });    // runs once
//   loop.post([&] { dal->hwAccessAllowedIs(true); });                      // any thread
//   loop.run();                                                            // until stop()
//
// Threading: post() and stop() may be called from any thread; everything else from the
// loop's thread, or before run() starts. A callback may add or remove descriptors and
// timers, its own included: a descriptor removed during a turn gets no further call in it. A
// callback may also turn the loop itself (runOnce), to wait for something that only a later
// turn brings, such as a change made by another process.
#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kel/Export.h"

namespace Kel {

class KEL_EXPORT ActivityLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::function<void(short revents)>;
  using Task = std::function<void()>;
  using TimerId = std::uint64_t;

  // Creates the wake-up descriptor; throws std::system_error when the system refuses one.
  ActivityLoop();
  ~ActivityLoop();
  ActivityLoop(const ActivityLoop&) = delete;
  ActivityLoop& operator=(const ActivityLoop&) = delete;

  // Calls `handler` with poll()'s revents whenever `fd` is ready for `events` (POLLERR and
  // POLLHUP are reported whatever `events` says). Replaces an earlier handler of `fd`. The
  // loop never closes `fd`.
  void descriptorIs(int fd, short events, Handler handler);
  void descriptorDel(int fd);
  std::size_t descriptors() const { return handlers_.size(); }

  // Runs `task` once, in the first turn at least `after` from now. Timers due at the same
  // time run in the order they were set.
  TimerId timerIs(Clock::duration after, Task task);
  // Cancels a timer that has not run; an unknown or spent id is ignored.
  void timerDel(TimerId id);

  // Runs `task` on the loop's thread in its next turn, waking a loop that waits.
  void post(Task task);
  // Makes run() return after the turn in progress, or at once if it has not started.
  void stop();

  // Turns until stop(); the loop may be run again afterwards.
  void run();
  // One turn, waiting at most `maxWait` for something to do; true when a callback ran.
  bool runOnce(Clock::duration maxWait);

 private:
  void wake();
  int pollTimeoutMs(Clock::duration maxWait) const;
  bool runPosted();
  bool runDueTimers();

  int wakeFd_ = -1;
  std::atomic<bool> stop_{false};
  // Handlers are shared so that one survives its own removal while it runs.
  std::unordered_map<int, std::pair<short, std::shared_ptr<Handler>>> handlers_;
  std::map<std::pair<Clock::time_point, TimerId>, Task> timers_;
  std::unordered_map<TimerId, Clock::time_point> timerDue_;
  TimerId nextTimer_ = 1;
  std::mutex postedMutex_;
  std::vector<Task> posted_;
  std::vector<pollfd> pollFds_;  // kept between turns: no allocation once it has grown
};

}  // namespace Kel
