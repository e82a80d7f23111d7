// Skorra::RedisServer: a private redis-server for the agents of one switch (or one test):
// no persistence, no TCP port, a unix socket in a directory of its own. The server goes with
// the object (and with the process that started it, however that process ends), and so does
// its directory.
//
//   Skorra::RedisServer server;                      // /tmp/zorvek-redis-XXXXXX/redis.sock
//   auto db = Skorra::redisDatabase(server.url(), loop);
//   server.stop(); server.start();                   // a server that restarted empty
//
// Used from one thread.
#pragma once

#include <sys/types.h>

#include <string>

#include "Kel/Export.h"

namespace Skorra {

class KEL_EXPORT RedisServer {
 public:
  // Makes the directory ("<dirPrefix>-XXXXXX") and starts the server. Throws DatabaseError
  // when redis-server is not on the PATH ("Skorra: cannot start redis-server: not found on
  // the PATH; scripts/bootstrap installs it") or does not answer on its socket.
  explicit RedisServer(const std::string& dirPrefix = "/tmp/zorvek-redis");
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  const std::string& dir() const { return dir_; }
  std::string socket() const { return dir_ + "/redis.sock"; }
  std::string url() const { return "unix://" + socket(); }
  // The server's process, or -1 while it is stopped.
  pid_t pid() const { return pid_; }

  // Starts the server again after stop(): it starts empty.
  void start();
  // Stops the server and waits for it; nothing when it is stopped.
  void stop();

 private:
  std::string dir_;
  pid_t pid_ = -1;
};

// The executable file that `program` names, directly (with a '/') or on the PATH; empty
// when there is none.
KEL_EXPORT std::string programPath(const std::string& program);

}  // namespace Skorra
