#include "SkorraRedis/RedisConnection.h"

#include <hiredis.h>
#include <sys/time.h>

#include <charconv>

namespace Skorra {

namespace {

constexpr std::string_view kExpected = "expected unix:///PATH or tcp://HOST:PORT";

[[noreturn]] void badUrl(std::string_view url, const std::string& why) {
  throw DatabaseError("Skorra: bad state database URL \"" + std::string(url) + "\": " + why + "; " +
                      std::string(kExpected));
}

// A command's words as hiredis takes them: pointers and lengths.
struct Argv {
  template <class Words>
  explicit Argv(const Words& words) {
    for (std::string_view w : words) {
      argv.push_back(w.data());
      lengths.push_back(w.size());
    }
  }
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
};

timeval timevalOf(std::chrono::milliseconds ms) {
  return timeval{static_cast<time_t>(ms.count() / 1000),
                 static_cast<suseconds_t>(ms.count() % 1000 * 1000)};
}

}  // namespace

RedisAddress redisAddress(std::string_view url) {
  RedisAddress a;
  a.url = std::string(url);
  if (url.starts_with("unix://")) {
    a.socketPath = std::string(url.substr(7));
    if (a.socketPath.empty() || a.socketPath[0] != '/')
      badUrl(url, "the socket path must be absolute");
    return a;
  }
  if (!url.starts_with("tcp://")) badUrl(url, "unknown scheme");
  const std::string_view hostPort = url.substr(6);
  const std::size_t colon = hostPort.rfind(':');
  if (colon == std::string_view::npos || colon == 0) badUrl(url, "no host and port");
  a.host = std::string(hostPort.substr(0, colon));
  const std::string_view port = hostPort.substr(colon + 1);
  const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), a.port);
  if (ec != std::errc() || end != port.data() + port.size() || a.port < 1 || a.port > 65535)
    badUrl(url, "the port must be a number from 1 to 65535");
  return a;
}

RedisReply::RedisReply(RedisReply&& other) noexcept
    : reply_(std::exchange(other.reply_, nullptr)), owned_(std::exchange(other.owned_, false)) {}

RedisReply& RedisReply::operator=(RedisReply&& other) noexcept {
  std::swap(reply_, other.reply_);
  std::swap(owned_, other.owned_);
  return *this;
}

RedisReply::~RedisReply() {
  if (owned_ && reply_) freeReplyObject(reply_);
}

bool RedisReply::isArray() const { return reply_ && reply_->type == REDIS_REPLY_ARRAY; }

bool RedisReply::isNil() const { return !reply_ || reply_->type == REDIS_REPLY_NIL; }

std::string_view RedisReply::text() const {
  if (!reply_ || !reply_->str) return {};
  return std::string_view(reply_->str, reply_->len);
}

std::size_t RedisReply::elements() const { return isArray() ? reply_->elements : 0; }

RedisReply RedisReply::element(std::size_t i) const {
  return RedisReply(i < elements() ? reply_->element[i] : nullptr, false);
}

RedisConnection::RedisConnection(RedisAddress address, std::chrono::milliseconds timeout)
    : address_(std::move(address)) {
  const timeval tv = timevalOf(timeout);
  context_ = address_.socketPath.empty()
                 ? redisConnectWithTimeout(address_.host.c_str(), address_.port, tv)
                 : redisConnectUnixWithTimeout(address_.socketPath.c_str(), tv);
  if (!context_)
    throw DatabaseError("Skorra: out of memory connecting to \"" + address_.url + "\"");
  if (context_->err) {
    const std::string why = context_->errstr;
    redisFree(context_);
    throw DatabaseError("Skorra: cannot connect to the state database at \"" + address_.url +
                        "\": " + why);
  }
  redisSetTimeout(context_, tv);
}

RedisConnection::~RedisConnection() { redisFree(context_); }

int RedisConnection::fd() const { return context_->fd; }

void RedisConnection::fail(const std::string& doing) const {
  throw ConnectionLost("Skorra: lost the state database at \"" + address_.url + "\" while " +
                       doing + ": " + (context_->err ? context_->errstr : "connection closed"));
}

RedisReply RedisConnection::command(std::size_t argc, const char** argv,
                                    const std::size_t* lengths) {
  auto* r =
      static_cast<redisReply*>(redisCommandArgv(context_, static_cast<int>(argc), argv, lengths));
  if (!r) fail(std::string("sending ") + argv[0]);
  RedisReply reply(r);
  if (r->type == REDIS_REPLY_ERROR)
    throw DatabaseError("Skorra: the state database at \"" + address_.url + "\" refused " +
                        argv[0] + ": " + std::string(reply.text()));
  return reply;
}

RedisReply RedisConnection::command(std::initializer_list<std::string_view> args) {
  Argv argv(args);
  return command(argv.argv.size(), argv.argv.data(), argv.lengths.data());
}

RedisReply RedisConnection::command(const std::vector<std::string>& args) {
  Argv argv(args);
  return command(argv.argv.size(), argv.argv.data(), argv.lengths.data());
}

void RedisConnection::send(const std::vector<std::string>& args) {
  Argv argv(args);
  if (redisAppendCommandArgv(context_, static_cast<int>(argv.argv.size()), argv.argv.data(),
                             argv.lengths.data()) != REDIS_OK)
    fail("sending " + args.front());
  int done = 0;
  while (!done)
    if (redisBufferWrite(context_, &done) != REDIS_OK) fail("sending " + args.front());
}

RedisReply RedisConnection::reply() {
  void* r = nullptr;
  if (redisGetReply(context_, &r) != REDIS_OK || !r) fail("waiting for a reply");
  return RedisReply(static_cast<redisReply*>(r));
}

void RedisConnection::readReplies(const std::function<void(RedisReply)>& onReply) {
  if (redisBufferRead(context_) != REDIS_OK) fail("reading");
  takeReadReplies(onReply);
}

void RedisConnection::takeReadReplies(const std::function<void(RedisReply)>& onReply) {
  for (;;) {
    void* r = nullptr;
    if (redisGetReplyFromReader(context_, &r) != REDIS_OK) fail("reading");
    if (!r) return;
    onReply(RedisReply(static_cast<redisReply*>(r)));
  }
}

}  // namespace Skorra
