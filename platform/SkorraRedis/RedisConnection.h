// Skorra's connection to a Redis server: the address a state-database URL names, one
// connection with its replies, and the errors that name the URL.
//
//   Skorra::RedisAddress address = Skorra::redisAddress("unix:///run/zorvek/redis.sock");
//   Skorra::RedisConnection connection(address);       // throws DatabaseError
//   Skorra::RedisReply reply = connection.command({"HGETALL", key});
//
// A connection blocks on its commands (with a timeout). A subscriber connection is read
// without blocking: once poll() says its descriptor is readable, readReplies() takes what
// arrived and hands over every complete reply.
//
// Used from one thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/Export.h"
#include "Skorra/Backend.h"

struct redisContext;
struct redisReply;

namespace Skorra {

// A server that a state-database URL names: "unix:///PATH" (an absolute socket path) or
// "tcp://HOST:PORT".
struct RedisAddress {
  std::string url;
  std::string socketPath;  // unix: the socket's path; empty for tcp
  std::string host;        // tcp
  int port = 0;            // tcp
};
// Throws DatabaseError naming the URL and what is wrong with it.
KEL_EXPORT RedisAddress redisAddress(std::string_view url);

// The connection failed while a command or a read was under way (the server went away).
// The message names the URL.
class KEL_EXPORT ConnectionLost : public DatabaseError {
 public:
  using DatabaseError::DatabaseError;
};

// One reply, owned; an element of an array reply is borrowed from its array.
class KEL_EXPORT RedisReply {
 public:
  RedisReply() = default;
  explicit RedisReply(redisReply* owned) : reply_(owned), owned_(true) {}
  RedisReply(RedisReply&& other) noexcept;
  RedisReply& operator=(RedisReply&& other) noexcept;
  ~RedisReply();

  bool isArray() const;
  bool isNil() const;
  // The text of a string, status or error reply; "" for any other reply.
  std::string_view text() const;
  std::size_t elements() const;
  RedisReply element(std::size_t i) const;

 private:
  RedisReply(redisReply* borrowed, bool) : reply_(borrowed) {}
  redisReply* reply_ = nullptr;
  bool owned_ = false;
};

class KEL_EXPORT RedisConnection {
 public:
  // Connects, waiting at most `timeout` for the connection and for each command's reply.
  // Throws DatabaseError naming the URL when the server cannot be reached.
  explicit RedisConnection(RedisAddress address,
                           std::chrono::milliseconds timeout = std::chrono::seconds(2));
  ~RedisConnection();
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  const RedisAddress& address() const { return address_; }
  int fd() const;

  // Sends a command and waits for its reply. Throws ConnectionLost when the connection
  // fails, DatabaseError when the server answers with an error.
  RedisReply command(std::initializer_list<std::string_view> args);
  RedisReply command(const std::vector<std::string>& args);
  // Sends a command without waiting for its reply (a subscription's replies come later).
  void send(const std::vector<std::string>& args);
  // Waits for the next reply.
  RedisReply reply();
  // Reads what has arrived and calls `onReply` for every complete reply; never blocks when
  // poll() reported the descriptor readable. Throws ConnectionLost when the server closed
  // the connection.
  void readReplies(const std::function<void(RedisReply)>& onReply);
  // Calls `onReply` for every complete reply already read (after reply() read more than one).
  void takeReadReplies(const std::function<void(RedisReply)>& onReply);

 private:
  RedisReply command(std::size_t argc, const char** argv, const std::size_t* lengths);
  [[noreturn]] void fail(const std::string& doing) const;

  RedisAddress address_;
  redisContext* context_ = nullptr;
};

}  // namespace Skorra
