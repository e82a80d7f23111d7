#include "Kel/ActivityLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace Kel {

ActivityLoop::ActivityLoop() : wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "ActivityLoop: eventfd");
}

ActivityLoop::~ActivityLoop() { close(wakeFd_); }

void ActivityLoop::descriptorIs(int fd, short events, Handler handler) {
  handlers_[fd] = {events, std::make_shared<Handler>(std::move(handler))};
}

void ActivityLoop::descriptorDel(int fd) { handlers_.erase(fd); }

ActivityLoop::TimerId ActivityLoop::timerIs(Clock::duration after, Task task) {
  const TimerId id = nextTimer_++;
  const Clock::time_point due = Clock::now() + after;
  timers_.emplace(std::pair(due, id), std::move(task));
  timerDue_.emplace(id, due);
  return id;
}

void ActivityLoop::timerDel(TimerId id) {
  const auto it = timerDue_.find(id);
  if (it == timerDue_.end()) return;
  timers_.erase({it->second, id});
  timerDue_.erase(it);
}

void ActivityLoop::post(Task task) {
  {
    const std::lock_guard lock(postedMutex_);
    posted_.push_back(std::move(task));
  }
  wake();
}

void ActivityLoop::stop() {
  stop_.store(true, std::memory_order_release);
  wake();
}

void ActivityLoop::wake() {
  const std::uint64_t one = 1;
  // A full counter (EAGAIN) still wakes the loop; nothing else can fail on an eventfd.
  [[maybe_unused]] const ssize_t n = write(wakeFd_, &one, sizeof one);
}

void ActivityLoop::run() {
  while (!stop_.load(std::memory_order_acquire)) runOnce(Clock::duration::max());
  stop_.store(false, std::memory_order_release);
}

int ActivityLoop::pollTimeoutMs(Clock::duration maxWait) const {
  Clock::duration wait = maxWait;
  if (!timers_.empty()) wait = std::min(wait, timers_.begin()->first.first - Clock::now());
  if (wait <= Clock::duration::zero()) return 0;
  if (wait == Clock::duration::max()) return -1;
  // Rounded up, so that a timer is never found not yet due after the wait.
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
  return static_cast<int>(std::min<decltype(ms)>(ms, std::numeric_limits<int>::max()));
}

bool ActivityLoop::runOnce(Clock::duration maxWait) {
  // The turn's own list: a callback that turns the loop itself gets another one.
  std::vector<pollfd> fds = std::move(pollFds_);
  fds.clear();
  fds.push_back({wakeFd_, POLLIN, 0});
  for (const auto& [fd, handler] : handlers_) fds.push_back({fd, handler.first, 0});
  if (poll(fds.data(), fds.size(), pollTimeoutMs(maxWait)) < 0 && errno != EINTR)
    throw std::system_error(errno, std::generic_category(), "ActivityLoop: poll");
  if (fds[0].revents) {
    std::uint64_t count;
    [[maybe_unused]] const ssize_t n = read(wakeFd_, &count, sizeof count);
  }
  bool ran = runPosted();
  ran = runDueTimers() || ran;
  for (std::size_t i = 1; i < fds.size(); ++i) {
    if (!fds[i].revents) continue;
    const auto it = handlers_.find(fds[i].fd);
    if (it == handlers_.end()) continue;  // removed by an earlier callback of this turn
    const std::shared_ptr<Handler> handler = it->second.second;
    (*handler)(fds[i].revents);
    ran = true;
  }
  pollFds_ = std::move(fds);
  return ran;
}

bool ActivityLoop::runPosted() {
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(postedMutex_);
    tasks.swap(posted_);
  }
  for (Task& task : tasks) task();
  return !tasks.empty();
}

bool ActivityLoop::runDueTimers() {
  bool ran = false;
  const Clock::time_point now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    auto node = timers_.extract(timers_.begin());
    timerDue_.erase(node.key().second);
    node.mapped()();
    ran = true;
  }
  return ran;
}

}  // namespace Kel
