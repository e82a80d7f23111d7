// What tests and benchmarks of agents as processes share: a private redis-server
// (SkorraRedis/RedisServer.h), an agent (its loop, its database on that server, its
// mounts), and forked agent processes.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "Kel/ActivityLoop.h"
#include "Skorra/MountGroup.h"
#include "SkorraRedis/RedisBackend.h"
#include "SkorraRedis/RedisConnection.h"
#include "SkorraRedis/RedisServer.h"

namespace Skorra::test {

using Skorra::RedisServer;

// One agent process: its activity loop and its mounts of directories of the shared database.
struct Agent {
  Agent(const std::string& url, std::initializer_list<std::pair<const char*, const char*>> mounts,
        RedisRetry retry = {})
      : db(redisDatabase(url, loop, retry)) {
    for (const auto& [path, mode] : mounts) group->doMount(Mount(path, "Kel::Dir", mode));
    group->completeMounts();
  }
  template <class T>
  Kel::Ptr<T> at(const char* path) const {
    return Kel::dynamicPtrCast<T>(group->entityManager()->getEntity(path));
  }
  Kel::ActivityLoop loop;
  Kel::Ptr<Database> db;
  Kel::Ptr<MountGroup> group = Kel::allocate<MountGroup>(db);
};

// Turns `loop` until `done()` holds, for at most `limit`; returns done().
inline bool runUntil(Kel::ActivityLoop& loop, const std::function<bool()>& done,
                     std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < deadline)
    loop.runOnce(std::chrono::milliseconds(10));
  return done();
}

// Runs `agent` in a child process (which exits with what it returns, or 99 when it throws:
// the child never goes on into the test that forked it); the parent gets its pid.
inline pid_t forkAgent(const std::function<int()>& agent) {
  const pid_t pid = fork();
  if (pid == 0) {
    try {
      _exit(agent());
    } catch (...) {
      _exit(99);
    }
  }
  return pid;
}

// The child's exit status, or -1 when it did not exit normally within `limit`.
inline int exitOf(pid_t pid, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace Skorra::test
