// Skorra::RedisBackend: the state database shared by the agent processes of a switch, kept in
// a Redis server.
//
//   Kel::ActivityLoop loop;
//   Kel::Ptr<Skorra::Database> db = Skorra::redisDatabase("unix:///run/zorvek/redis.sock", loop);
//   auto group = Kel::allocate<Skorra::MountGroup>(db);
//   group->doMount(Skorra::Mount("serializer/s0/status", "Kel::Dir", "ri"));
//   group->completeMounts();     // the entities there, as other agents published them
//   loop.run();                  // their later changes arrive here, on the loop's thread
//
// In Redis. Each entity under a mounted path is a hash at "skorra:e:PATH": its type name in
// the field "type", its state in fields of its type's codec (Skorra/EntityCodec.h); a
// directory holds a field "n:NAME" (the child's type) per child. Every change is made by one
// Lua script that also increments "skorra:seq" and publishes the change, numbered, on the
// channel "skorra:c:PATH" of the entity changed: the store and the announcement cannot part.
//
// In each agent. A mount brings the entities at its path (and below it) into the agent's
// own Skorra::Database, subscribes to their channels and, from then on:
// - applies each change another agent made, on the agent's activity loop, through the
//   ordinary setters (a created or replaced entity through Kel::Dir::entityIs), so that
//   observers and reactors run exactly as in one process, in the order the changes were
//   made (the order of their numbers);
// - shares each change made here under a writable mount. A write under a path this agent
//   mounted read-only only ("r" or "ri") is refused: the directories a read-only mount hands
//   out are Skorra::ReadOnlyDir views, and the entities under such a path carry a write guard
//   (Kel::WriteGuard) that throws MountError before the setter changes anything.
//
// One writer per attribute. An agent does not apply the announcements of its own changes;
// two agents that set the same attribute at the same time may each keep their own value.
// The switch never does that: an attribute has one owner (a serializer its status, a
// requester its queue's registration, the platform the watch list).
//
// A lost connection. The backend makes it again, up to `RedisRetry::attempts` times
// `RedisRetry::interval` apart: at once when a change of this agent cannot be shared (the
// change is then shared on the new connection), and on the loop when the subscription ends.
// The loop then subscribes again and re-reads every mounted path before it applies anything,
// and applies what differs from what the agent holds: each change made meanwhile reaches the
// observers once. A server that restarted empty (it keeps nothing on disk) gets back from
// each agent the fields that agent wrote last; what it lost is not taken for deleted. When
// the server cannot be reached again, DatabaseError says so, naming the URL, and leaves the
// loop's run() (or the setter): the agent cannot go on without its state database.
//
// Used from the agent's activity thread only.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/ActivityLoop.h"
#include "Kel/WriteGuard.h"
#include "Skorra/Backend.h"
#include "SkorraRedis/EntityCodec.h"
#include "SkorraRedis/RedisConnection.h"

namespace Skorra {

// How a lost connection is made again: `attempts` tries, `interval` apart.
struct RedisRetry {
  unsigned attempts = 50;
  std::chrono::milliseconds interval{100};
};

class KEL_EXPORT RedisBackend : public Backend {
  KEL_ENTITY_TYPE(RedisBackend)

 public:
  // Connects to the server at `url` (see redisAddress()). Throws DatabaseError naming the
  // URL when it is malformed or the server does not answer.
  RedisBackend(std::string_view url, Kel::ActivityLoop& loop, RedisRetry retry = {});
  const RedisAddress& address() const { return command_->address(); }
  // Times the connection was lost and made again.
  std::uint64_t reconnects() const { return reconnects_; }

  // Brings the entities at the mount's path into `database` and follows them. The first
  // mount ties the backend to its database.
  void mountIs(Database& database, const Mount& mount) override;

 protected:
  ~RedisBackend() override;

 private:
  class KelDir;
  class PathGuard;
  // An entity of the database that the backend follows, with its observer and, under a
  // read-only mount, its guard.
  struct Node {
    Kel::Ptr<Kel::Entity> entity;
    const EntityCodec* codec = nullptr;  // null for a directory
    Kel::Ptr<Kel::Entity> observer;
    std::unique_ptr<PathGuard> guard;
  };
  // A mounted path. The outermost mounts hold the subscriptions; a mount inside another
  // only adds its mode.
  struct Mirror {
    std::string path;
    std::string mode;
    bool writable = false;
    bool subscribed = false;
    std::uint64_t seq = 0;            // changes up to this one are in what was read
    Kel::Ptr<Kel::Entity> rootWatch;  // follows the mounted name in its parent directory
  };
  struct Snapshot {
    std::uint64_t seq = 0;
    std::map<std::string, Fields> entities;  // by path, each with its "type"
  };
  // What a re-read does with an entity the agent holds and the server does not.
  enum class Missing { remove, keep, publish };

  const Mirror* mirrorOf(const std::string& path) const;
  const Mirror* writableMirrorOf(const std::string& path) const;
  void subscribe(const std::string& path);
  void readSubscription();
  void handleReply(const RedisReply& reply);
  void handlePending();
  void handleChange(std::string_view payload);
  void recover();
  void commandReconnect();
  std::unique_ptr<RedisConnection> connect() const;
  void reassertOwned();
  Snapshot snapshot(const std::string& path);
  void reconcile(const std::string& path, const Snapshot& snap, Missing missing);
  Kel::Ptr<Kel::Entity> entityFrom(const std::string& path, const Snapshot& snap);
  Kel::Ptr<Kel::Dir> parentDir(const std::string& path);
  void entityPut(const std::string& path, const Kel::Ptr<Kel::Entity>& entity);
  void track(const std::string& path, const Kel::Ptr<Kel::Entity>& entity);
  void trackTree(const std::string& path, const Kel::Ptr<Kel::Entity>& entity);
  void untrack(const std::string& path);
  void guardIs(Node& node, const std::string& path);
  void writeCheck(const std::string& path, std::string_view what) const;
  // Whether a change at `path` is one being applied from the server.
  bool applied(const std::string& path) const;
  void localChild(const std::string& dirPath, const Kel::Dir& dir, const Kel::String& name);
  void localField(const std::string& path, const std::string& field);
  void publishSubtree(const std::string& path, const Kel::Ptr<Kel::Entity>& entity,
                      std::vector<std::string>& ops);
  void run(const std::vector<std::string>& ops);
  std::string serverRunId();

  Kel::ActivityLoop& loop_;
  RedisRetry retry_;
  std::string origin_;  // tells this agent's announcements from the others'
  std::unique_ptr<RedisConnection> command_;
  std::unique_ptr<RedisConnection> subscriber_;
  std::string runId_;     // the server that holds what this agent wrote
  std::string syncedId_;  // the server whose state the mounted entities follow
  Database* database_ = nullptr;
  std::vector<Mirror> mirrors_;
  std::map<std::string, Node> nodes_;
  // The fields this agent wrote last, by entity path: what it gives back to a server that
  // restarted empty.
  std::map<std::string, std::set<std::string>> owned_;
  std::uint64_t lastSeq_ = 0;
  std::uint64_t reconnects_ = 0;
  // The paths whose changes from the server are being applied (see Applying).
  std::vector<std::string> applying_;
  std::vector<std::string> pending_;  // changes that arrived while a subscription was made
  std::string writeSha_;
  std::string snapshotSha_;
};

// A database whose mounts are shared through the Redis server at `url`.
KEL_EXPORT Kel::Ptr<Database> redisDatabase(std::string_view url, Kel::ActivityLoop& loop,
                                            RedisRetry retry = {});

}  // namespace Skorra
