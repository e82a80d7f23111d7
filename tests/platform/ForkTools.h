// What tests of processes sharing memory use: an object in memory shared with forked
// children, a forked child, and a spin on a condition another process makes true.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <new>
#include <utility>

namespace Zorvek::test {

// An object of type T in memory shared with the children forked after it.
template <class T>
class Shared {
 public:
  Shared()
      : p_(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
               T()) {}
  ~Shared() {
    p_->~T();
    munmap(p_, sizeof(T));
  }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }

 private:
  T* p_;
};

// A forked child running `body`, whose result is its exit code. Killed if still running
// when the test ends.
class Child {
 public:
  explicit Child(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
  }
  ~Child() {
    if (pid_ > 0) kill(SIGKILL);
  }
  pid_t pid() const { return pid_; }
  // Kills the child and reaps it.
  void kill(int signal) {
    ::kill(pid_, signal);
    exitStatus();
  }
  // The child's wait status, once it ended.
  int exitStatus() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }

 private:
  pid_t pid_;
};

template <class Condition>
void spinUntil(Condition condition) {
  while (!condition()) sched_yield();
}

}  // namespace Zorvek::test
