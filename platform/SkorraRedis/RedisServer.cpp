#include "SkorraRedis/RedisServer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

#include "SkorraRedis/RedisConnection.h"

namespace Skorra {

namespace {

constexpr auto kStartLimit = std::chrono::seconds(10);

}  // namespace

std::string programPath(const std::string& program) {
  const auto executable = [](const std::string& file) {
    return access(file.c_str(), X_OK) == 0 && std::filesystem::is_regular_file(file);
  };
  if (program.find('/') != std::string::npos) return executable(program) ? program : "";
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');)
    if (!dir.empty() && executable(dir + "/" + program)) return dir + "/" + program;
  return "";
}

RedisServer::RedisServer(const std::string& dirPrefix) {
  if (programPath("redis-server").empty())
    throw DatabaseError(
        "Skorra: cannot start redis-server: not found on the PATH; scripts/bootstrap installs it");
  std::string dir = dirPrefix + "-XXXXXX";
  if (!mkdtemp(dir.data()))
    throw DatabaseError("Skorra: cannot make a directory " + dir + " for redis-server");
  dir_ = dir;
  try {
    start();
  } catch (...) {
    std::filesystem::remove_all(dir_);
    throw;
  }
}

RedisServer::~RedisServer() {
  stop();
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

void RedisServer::start() {
  if (pid_ > 0) return;
  const std::string sock = socket(), log = dir_ + "/redis.log";
  pid_ = fork();
  if (pid_ < 0) throw DatabaseError("Skorra: cannot start redis-server: fork failed");
  if (pid_ == 0) {
    // The server goes with its starter, however the starter ends, and holds none of its
    // output.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int null = open("/dev/null", O_RDWR);
    for (int fd : {0, 1, 2}) dup2(null, fd);
    execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", sock.c_str(), "--save",
           "", "--appendonly", "no", "--dir", dir_.c_str(), "--logfile", log.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    try {
      RedisConnection(redisAddress(url())).command({"PING"});
      return;
    } catch (const DatabaseError&) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  stop();
  throw DatabaseError("Skorra: redis-server did not answer on " + sock + "; see " + log);
}

void RedisServer::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
  std::error_code ignored;
  std::filesystem::remove(socket(), ignored);
}

}  // namespace Skorra
