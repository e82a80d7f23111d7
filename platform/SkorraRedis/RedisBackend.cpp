#include "SkorraRedis/RedisBackend.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <random>
#include <thread>

#include "Duwisp/Duwisp.h"

namespace Skorra {

KEL_DEFINE_ENTITY_TYPE(RedisBackend, "Skorra::RedisBackend")

namespace {

KEL_FILE_TRACE_HANDLE("SkorraRedis")

constexpr std::string_view kEntityKey = "skorra:e:";
constexpr std::string_view kChannel = "skorra:c:";
constexpr char kSep = '\0';

// Applies the operations of one change, in order, then announces it: every "pub" takes the
// next number of "skorra:seq". ARGV: the origin, then groups of four: "hset" key field value,
// "hdel" key field -, "delsub" key pattern - (the key and every key under it), "pub" channel
// payload -.
constexpr std::string_view kWriteScript = R"lua(
for i = 2, #ARGV, 4 do
  local op, a, b, c = ARGV[i], ARGV[i + 1], ARGV[i + 2], ARGV[i + 3]
  if op == 'hset' then redis.call('HSET', a, b, c)
  elseif op == 'hdel' then redis.call('HDEL', a, b)
  elseif op == 'delsub' then
    redis.call('DEL', a)
    for _, k in ipairs(redis.call('KEYS', b)) do redis.call('DEL', k) end
  elseif op == 'pub' then
    local seq = redis.call('INCR', 'skorra:seq')
    redis.call('PUBLISH', a, seq .. '\0' .. ARGV[1] .. '\0' .. b)
  end
end
)lua";

// The number of the last change and every entity whose key matches a pattern of ARGV, as
// key, fields: one atomic read.
constexpr std::string_view kSnapshotScript = R"lua(
local out = {redis.call('GET', 'skorra:seq') or '0'}
for i = 1, #ARGV do
  for _, k in ipairs(redis.call('KEYS', ARGV[i])) do
    out[#out + 1] = k
    out[#out + 1] = redis.call('HGETALL', k)
  end
end
return out
)lua";

std::string keyOf(const std::string& path) { return std::string(kEntityKey) + path; }
std::string channelOf(const std::string& path) { return std::string(kChannel) + path; }

// `s` matched literally by a Redis glob pattern.
std::string glob(std::string_view s) {
  std::string g;
  for (char c : s) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') g += '\\';
    g += c;
  }
  return g;
}

bool within(const std::string& path, const std::string& root) {
  return path == root ||
         (path.size() > root.size() && path.starts_with(root) && path[root.size()] == '/');
}

// Erases the entry of `path` and those of every path below it, after `before(value)`. Keys
// below a path are not all next to it ("a/b-c" sorts between "a/b" and "a/b/c"): the entry
// itself, then the range of "path/".
template <class Map, class Before = void (*)(typename Map::mapped_type&)>
void eraseSubtree(
    Map& map, const std::string& path, Before before = [](typename Map::mapped_type&) {}) {
  if (const auto it = map.find(path); it != map.end()) {
    before(it->second);
    map.erase(it);
  }
  const std::string prefix = path + "/";
  for (auto it = map.lower_bound(prefix); it != map.end() && it->first.starts_with(prefix);) {
    before(it->second);
    it = map.erase(it);
  }
}

std::string childOf(const std::string& dir, std::string_view name) {
  return dir.empty() ? std::string(name) : dir + "/" + std::string(name);
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string leafOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::uint64_t numberOf(std::string_view text) {
  std::uint64_t v = 0;
  std::from_chars(text.data(), text.data() + text.size(), v);
  return v;
}

// Splits `text` at each separator, at most `parts` - 1 times.
std::vector<std::string_view> split(std::string_view text, std::size_t parts) {
  std::vector<std::string_view> out;
  while (out.size() + 1 < parts) {
    const std::size_t at = text.find(kSep);
    if (at == std::string_view::npos) break;
    out.push_back(text.substr(0, at));
    text.remove_prefix(at + 1);
  }
  out.push_back(text);
  return out;
}

const std::string& dirType() { return Kel::Dir::staticType().name(); }

// Sets a flag for the life of a scope: "these changes come from the state database" (or,
// set false inside such a scope, "this one is ours to share").
// Marks a path whose entities change because the server said so, while the change is
// applied: those changes are not shared back. What the agent's own code changes elsewhere
// meanwhile (a serializer that serves a queue as its registration arrives) is its own, and
// is shared.
class Applying {
 public:
  Applying(std::vector<std::string>& paths, std::string path) : paths_(paths) {
    paths_.push_back(std::move(path));
  }
  ~Applying() { paths_.pop_back(); }
  Applying(const Applying&) = delete;
  Applying& operator=(const Applying&) = delete;

 private:
  std::vector<std::string>& paths_;
};

// Shares every change made while it lives, whatever is being applied around it.
class Sharing {
 public:
  explicit Sharing(std::vector<std::string>& paths) : paths_(paths), saved_(std::move(paths)) {
    paths_.clear();
  }
  ~Sharing() { paths_ = std::move(saved_); }
  Sharing(const Sharing&) = delete;
  Sharing& operator=(const Sharing&) = delete;

 private:
  std::vector<std::string>& paths_;
  std::vector<std::string> saved_;
};

std::string randomOrigin() {
  std::random_device rd;
  return std::to_string(getpid()) + "-" + std::to_string(rd()) + std::to_string(rd());
}

}  // namespace

// Follows a directory of the database: every entry added, replaced or removed (or, for the
// parent of a mounted path, the mounted name only).
class RedisBackend::KelDir : public Kel::Dir::NotifieeConst {
 public:
  KelDir(RedisBackend* backend, std::string path, std::string only, const Kel::Dir& dir)
      : backend_(backend), path_(std::move(path)), only_(std::move(only)) {
    notifierIs(&dir);
  }
  void onEntity(const Kel::String& name) override {
    if (only_.empty() || name == only_) backend_->localChild(path_, *notifier(), name);
  }

 private:
  RedisBackend* backend_;  // owns this observer
  std::string path_;
  std::string only_;
};

class RedisBackend::PathGuard : public Kel::WriteGuard {
 public:
  PathGuard(const RedisBackend* backend, std::string path)
      : backend_(backend), path_(std::move(path)) {}
  void writeCheck(const Kel::Entity&, std::string_view attribute) const override {
    backend_->writeCheck(path_, attribute);
  }

 private:
  const RedisBackend* backend_;
  std::string path_;
};

RedisBackend::RedisBackend(std::string_view url, Kel::ActivityLoop& loop, RedisRetry retry)
    : loop_(loop), retry_(retry), origin_(randomOrigin()) {
  // A write to a server that went away must fail and be retried, not end the agent: the
  // process ignores SIGPIPE from then on, as every agent that talks to the database must.
  signal(SIGPIPE, SIG_IGN);
  const RedisAddress address = redisAddress(url);
  command_ = std::make_unique<RedisConnection>(address);
  subscriber_ = std::make_unique<RedisConnection>(address);
  writeSha_ = std::string(command_->command({"SCRIPT", "LOAD", kWriteScript}).text());
  snapshotSha_ = std::string(command_->command({"SCRIPT", "LOAD", kSnapshotScript}).text());
  runId_ = syncedId_ = serverRunId();
  loop_.descriptorIs(subscriber_->fd(), POLLIN, [this](short) { readSubscription(); });
  DUWISP_TRACE(th(), 1, "RedisBackend %s origin %s", address.url, origin_);
}

RedisBackend::~RedisBackend() {
  loop_.descriptorDel(subscriber_->fd());
  while (!nodes_.empty()) {
    const std::string root = nodes_.begin()->first;  // a copy: untrack erases the key
    untrack(root);
  }
}

std::string RedisBackend::serverRunId() {
  const RedisReply info = command_->command({"INFO", "server"});
  const std::string_view text = info.text();
  const std::size_t at = text.find("run_id:");
  if (at == std::string_view::npos) return {};
  const std::size_t end = text.find_first_of("\r\n", at);
  return std::string(text.substr(at + 7, end - at - 7));
}

const RedisBackend::Mirror* RedisBackend::mirrorOf(const std::string& path) const {
  for (const Mirror& m : mirrors_)
    if (m.subscribed && within(path, m.path)) return &m;
  return nullptr;
}

const RedisBackend::Mirror* RedisBackend::writableMirrorOf(const std::string& path) const {
  for (const Mirror& m : mirrors_)
    if (m.writable && within(path, m.path)) return &m;
  return nullptr;
}

void RedisBackend::mountIs(Database& database, const Mount& mount) {
  if (!database_) database_ = &database;
  if (database_ != &database)
    throw DatabaseError("Skorra: the state database at \"" + address().url +
                        "\" already serves another database of this agent");
  const std::string path = pathOf(pathNames(mount.path()), SIZE_MAX);
  if (path.empty())
    throw MountError(mount.path(), mount.mode(),
                     "Skorra: cannot share the root directory through \"" + address().url + "\"");
  DUWISP_TRACE(th(), 5, "mountIs %s mode %s", path, mount.mode());
  const std::string leaf = leafOf(path);
  Mirror mirror{path, mount.mode(), mount.mode()[0] == 'w', false, 0, nullptr};
  // A mount inside an earlier one only adds its mode; one around earlier ones takes over
  // their subscriptions.
  const bool covered = mirrorOf(path) != nullptr;
  Snapshot snap;
  if (!covered) {
    for (Mirror& m : mirrors_)
      if (within(m.path, path)) {
        m.subscribed = false;
        m.rootWatch = nullptr;
      }
    subscribe(path);
    snap = snapshot(path);
    mirror.subscribed = true;
    mirror.seq = snap.seq;
  }
  mirrors_.push_back(std::move(mirror));
  const bool writable = writableMirrorOf(path) != nullptr;
  if (!covered) {
    const Applying applying(applying_, path);
    reconcile(path, snap, writable ? Missing::publish : Missing::keep);
  }
  const Kel::Ptr<Kel::Dir> parent = parentDir(path);
  if (!parent->entity(leaf) && mount.typeName() == dirType()) {
    // An absent directory is made here; it is shared only through a writable mount.
    std::optional<Applying> applying;
    if (!writable) applying.emplace(applying_, path);
    const auto dir = Kel::allocate<Kel::Dir>(Kel::Name(leaf));
    parent->entityIs(leaf, dir);
    if (!writable) trackTree(path, dir);
  }
  if (!covered) {
    mirrors_.back().rootWatch = Kel::allocate<KelDir>(this, parentOf(path), leaf, *parent);
    if (writable && !nodes_.count(path) && parent->entity(leaf))
      localChild(parentOf(path), *parent, leaf);
  }
  for (auto& [p, node] : nodes_) guardIs(node, p);
  handlePending();
}

void RedisBackend::handlePending() {
  std::vector<std::string> pending;
  pending.swap(pending_);
  for (const std::string& payload : pending) handleChange(payload);
  subscriber_->takeReadReplies([this](RedisReply r) { handleReply(r); });
}

void RedisBackend::subscribe(const std::string& path) {
  const std::string channel = std::string(kChannel) + glob(path);
  subscriber_->send({"PSUBSCRIBE", channel, channel + "/*"});
  for (int confirmed = 0; confirmed < 2;) {
    const RedisReply r = subscriber_->reply();
    if (r.element(0).text() == "psubscribe")
      ++confirmed;
    else if (r.element(0).text() == "pmessage")
      pending_.emplace_back(r.element(3).text());
  }
}

RedisBackend::Snapshot RedisBackend::snapshot(const std::string& path) {
  const std::string key = glob(keyOf(path));
  const RedisReply r = command_->command({"EVALSHA", snapshotSha_, "0", key, key + "/*"});
  Snapshot snap;
  snap.seq = numberOf(r.element(0).text());
  for (std::size_t i = 1; i + 1 < r.elements(); i += 2) {
    Fields& fields = snap.entities[std::string(r.element(i).text().substr(kEntityKey.size()))];
    const RedisReply f = r.element(i + 1);
    for (std::size_t j = 0; j + 1 < f.elements(); j += 2)
      fields.emplace(f.element(j).text(), f.element(j + 1).text());
  }
  return snap;
}

Kel::Ptr<Kel::Dir> RedisBackend::parentDir(const std::string& path) {
  const std::string parent = parentOf(path);
  const auto it = nodes_.find(parent);
  if (it != nodes_.end())
    if (auto dir = Kel::dynamicPtrCast<Kel::Dir>(it->second.entity)) return dir;
  return database_->dirIs(parent);
}

Kel::Ptr<Kel::Entity> RedisBackend::entityFrom(const std::string& path, const Snapshot& snap) {
  const Fields& fields = snap.entities.at(path);
  const auto type = fields.find("type");
  const std::string typeName = type == fields.end() ? std::string() : type->second;
  if (typeName == dirType()) {
    auto dir = Kel::allocate<Kel::Dir>(Kel::Name(leafOf(path)));
    for (auto it = fields.lower_bound("n:"); it != fields.end() && it->first.starts_with("n:");
         ++it) {
      const std::string child = childOf(path, it->first.substr(2));
      if (snap.entities.count(child)) dir->entityIs(it->first.substr(2), entityFrom(child, snap));
    }
    return dir;
  }
  const EntityCodec* codec = entityCodec(typeName);
  if (!codec)
    throw DatabaseError("Skorra: \"" + path + "\" in the state database at \"" + address().url +
                        "\" holds an entity of type \"" + typeName + "\", which is not shared");
  Fields state = fields;
  state.erase("type");
  return codec->entityNew(leafOf(path), state);
}

void RedisBackend::entityPut(const std::string& path, const Kel::Ptr<Kel::Entity>& entity) {
  untrack(path);
  parentDir(path)->entityIs(leafOf(path), entity);
  trackTree(path, entity);
}

void RedisBackend::reconcile(const std::string& path, const Snapshot& snap, Missing missing) {
  const Kel::Ptr<Kel::Dir> parent = parentDir(path);
  const std::string leaf = leafOf(path);
  const Kel::Ptr<Kel::Entity> current = parent->entity(leaf);
  const auto it = snap.entities.find(path);
  if (it == snap.entities.end() || !it->second.count("type")) {
    if (!current) return;
    if (missing == Missing::remove) {
      parent->entityDel(leaf);
      untrack(path);
    } else if (missing == Missing::publish) {
      const Sharing sharing(applying_);
      localChild(parentOf(path), *parent, leaf);
    } else {
      trackTree(path, current);
    }
    return;
  }
  const std::string& type = it->second.at("type");
  if (!current || current->fwkType().name() != type) {
    entityPut(path, entityFrom(path, snap));
    return;
  }
  track(path, current);
  if (auto dir = Kel::dynamicPtrCast<Kel::Dir>(current)) {
    std::set<std::string> names;
    for (const auto& [name, child] : *dir) names.insert(name);
    for (auto f = it->second.lower_bound("n:"); f != it->second.end() && f->first.starts_with("n:");
         ++f)
      names.insert(f->first.substr(2));
    for (const std::string& name : names) reconcile(childOf(path, name), snap, missing);
    return;
  }
  const EntityCodec* codec = nodes_.at(path).codec;
  Fields state = it->second;
  state.erase("type");
  if (!codec->fieldsIs(*current, state)) entityPut(path, codec->entityNew(leaf, state));
}

void RedisBackend::track(const std::string& path, const Kel::Ptr<Kel::Entity>& entity) {
  const auto found = nodes_.find(path);
  if (found != nodes_.end() && found->second.entity == entity) return;
  untrack(path);
  Node node;
  node.entity = entity;
  if (const auto* dir = dynamic_cast<const Kel::Dir*>(entity.ptr())) {
    node.observer = Kel::allocate<KelDir>(this, path, "", *dir);
  } else {
    node.codec = entityCodec(entity->fwkType().name());
    if (!node.codec)
      throw DatabaseError("Skorra: cannot share \"" + path + "\" through \"" + address().url +
                          "\": an entity of type " + entity->fwkType().name() +
                          " has no form in the state database");
    node.observer = node.codec->observerNew(
        *entity, [this, path](const std::string& field) { localField(path, field); });
  }
  guardIs(nodes_.emplace(path, std::move(node)).first->second, path);
}

void RedisBackend::trackTree(const std::string& path, const Kel::Ptr<Kel::Entity>& entity) {
  track(path, entity);
  if (const auto* dir = dynamic_cast<const Kel::Dir*>(entity.ptr()))
    for (const auto& [name, child] : *dir) trackTree(childOf(path, name), child);
}

void RedisBackend::untrack(const std::string& path) {
  eraseSubtree(nodes_, path, [](Node& node) {
    if (node.guard) node.codec->guarded(*node.entity)->writeGuardIs(nullptr);
  });
}

void RedisBackend::guardIs(Node& node, const std::string& path) {
  Kel::WriteGuarded* guarded = node.codec ? node.codec->guarded(*node.entity) : nullptr;
  if (!guarded) return;
  const bool readOnly = !writableMirrorOf(path);
  if (readOnly == bool(node.guard)) return;
  node.guard = readOnly ? std::make_unique<PathGuard>(this, path) : nullptr;
  guarded->writeGuardIs(node.guard.get());
}

void RedisBackend::writeCheck(const std::string& path, std::string_view what) const {
  if (applied(path) || writableMirrorOf(path)) return;
  const Mirror* m = mirrorOf(path);
  const std::string mode = m ? m->mode : std::string();
  throw MountError(path, mode,
                   "Skorra: cannot write " + std::string(what) + " of \"" + path +
                       "\": this agent mounted it read-only (mode \"" + mode + "\")");
}

void RedisBackend::localChild(const std::string& dirPath, const Kel::Dir& dir,
                              const Kel::String& name) {
  const std::string path = childOf(dirPath, name);
  if (applied(path)) return;
  if (!mirrorOf(path)) return;
  writeCheck(path, "the entry");
  const Kel::Ptr<Kel::Entity> child = dir.entity(name);
  DUWISP_TRACE(th(), 6, "localChild %s %s", path, child ? child->fwkType().name() : "none");
  untrack(path);
  std::vector<std::string> ops{"delsub", keyOf(path), glob(keyOf(path)) + "/*", ""};
  if (nodes_.count(dirPath)) {
    if (child)
      ops.insert(ops.end(), {"hset", keyOf(dirPath), "n:" + name, child->fwkType().name()});
    else
      ops.insert(ops.end(), {"hdel", keyOf(dirPath), "n:" + name, ""});
  }
  eraseSubtree(owned_, path);
  if (child) {
    trackTree(path, child);
    publishSubtree(path, child, ops);
    owned_[dirPath].insert("n:" + name);
  } else {
    ops.insert(ops.end(),
               {"pub", channelOf(path), std::string("x") + kSep + path + kSep + kSep, ""});
    owned_[dirPath].erase("n:" + name);
  }
  run(ops);
}

void RedisBackend::publishSubtree(const std::string& path, const Kel::Ptr<Kel::Entity>& entity,
                                  std::vector<std::string>& ops) {
  const Node& node = nodes_.at(path);
  Fields fields;
  const auto* dir = dynamic_cast<const Kel::Dir*>(entity.ptr());
  if (dir) {
    for (const auto& [name, child] : *dir) fields.emplace("n:" + name, child->fwkType().name());
  } else {
    fields = node.codec->fields(*entity);
  }
  const std::string& type = entity->fwkType().name();
  std::string payload = std::string("c") + kSep + path + kSep + kSep + type;
  std::set<std::string>& owned = owned_[path];
  ops.insert(ops.end(), {"hset", keyOf(path), "type", type});
  owned.insert("type");
  for (const auto& [field, value] : fields) {
    ops.insert(ops.end(), {"hset", keyOf(path), field, value});
    owned.insert(field);
    payload += kSep + field + kSep + value;
  }
  ops.insert(ops.end(), {"pub", channelOf(path), payload, ""});
  if (dir)
    for (const auto& [name, child] : *dir) publishSubtree(childOf(path, name), child, ops);
}

bool RedisBackend::applied(const std::string& path) const {
  return std::any_of(applying_.begin(), applying_.end(),
                     [&](const std::string& root) { return within(path, root); });
}

void RedisBackend::localField(const std::string& path, const std::string& field) {
  if (applied(path)) return;
  writeCheck(path, field);
  const Node& node = nodes_.at(path);
  const Fields fields = node.codec->fields(*node.entity);
  const auto it = fields.find(field);
  std::vector<std::string> ops;
  if (it != fields.end()) {
    ops = {"hset",
           keyOf(path),
           field,
           it->second,
           "pub",
           channelOf(path),
           std::string("s") + kSep + path + kSep + field + kSep + it->second,
           ""};
    owned_[path].insert(field);
  } else {
    ops = {"hdel",
           keyOf(path),
           field,
           "",
           "pub",
           channelOf(path),
           std::string("d") + kSep + path + kSep + field + kSep,
           ""};
    owned_[path].erase(field);
  }
  run(ops);
}

void RedisBackend::run(const std::vector<std::string>& ops) {
  std::vector<std::string> args{"EVALSHA", writeSha_, "0", origin_};
  args.insert(args.end(), ops.begin(), ops.end());
  try {
    command_->command(args);
  } catch (const ConnectionLost& e) {
    DUWISP_TRACE(th(), 1, "run %s", e.what());
    commandReconnect();
    args[1] = writeSha_;
    command_->command(args);
  }
}

std::unique_ptr<RedisConnection> RedisBackend::connect() const {
  std::string last;
  for (unsigned attempt = 0; attempt < retry_.attempts; ++attempt) {
    if (attempt) std::this_thread::sleep_for(retry_.interval);
    try {
      return std::make_unique<RedisConnection>(command_->address());
    } catch (const DatabaseError& e) {
      last = e.what();
    }
  }
  throw DatabaseError("Skorra: lost the state database at \"" + address().url +
                      "\" and could not reconnect (" + std::to_string(retry_.attempts) +
                      " attempts, " + std::to_string(retry_.interval.count()) +
                      " ms apart): " + last);
}

void RedisBackend::commandReconnect() {
  command_ = connect();
  ++reconnects_;
  writeSha_ = std::string(command_->command({"SCRIPT", "LOAD", kWriteScript}).text());
  snapshotSha_ = std::string(command_->command({"SCRIPT", "LOAD", kSnapshotScript}).text());
  const std::string runId = serverRunId();
  if (runId != runId_) {
    runId_ = runId;
    reassertOwned();
  }
}

void RedisBackend::reassertOwned() {
  std::vector<std::string> ops;
  for (const auto& [path, fields] : owned_) {
    const auto node = nodes_.find(path);
    if (node == nodes_.end()) continue;
    Fields state;
    if (const auto* dir = dynamic_cast<const Kel::Dir*>(node->second.entity.ptr()))
      for (const auto& [name, child] : *dir) state.emplace("n:" + name, child->fwkType().name());
    else
      state = node->second.codec->fields(*node->second.entity);
    state.emplace("type", node->second.entity->fwkType().name());
    for (const std::string& field : fields)
      if (const auto it = state.find(field); it != state.end())
        ops.insert(ops.end(), {"hset", keyOf(path), field, it->second});
  }
  DUWISP_TRACE(th(), 1, "reassertOwned %s fields", ops.size() / 4);
  if (!ops.empty()) run(ops);
}

void RedisBackend::readSubscription() {
  try {
    subscriber_->readReplies([this](RedisReply r) { handleReply(r); });
  } catch (const ConnectionLost& e) {
    DUWISP_TRACE(th(), 1, "readSubscription %s", e.what());
    recover();
  }
}

void RedisBackend::recover() {
  loop_.descriptorDel(subscriber_->fd());
  commandReconnect();
  subscriber_ = connect();
  loop_.descriptorIs(subscriber_->fd(), POLLIN, [this](short) { readSubscription(); });
  // A server that restarted empty lost what agents that are gone wrote: that is kept.
  const bool restarted = runId_ != syncedId_;
  syncedId_ = runId_;
  if (restarted) lastSeq_ = 0;
  for (const Mirror& m : mirrors_)
    if (m.subscribed) subscribe(m.path);
  // Read everything first: a re-read is applied only once it is whole.
  std::vector<std::pair<std::size_t, Snapshot>> snaps;
  for (std::size_t i = 0; i < mirrors_.size(); ++i)
    if (mirrors_[i].subscribed) snaps.emplace_back(i, snapshot(mirrors_[i].path));
  for (const auto& [i, snap] : snaps) {
    const Applying applying(applying_, mirrors_[i].path);
    mirrors_[i].seq = snap.seq;
    reconcile(mirrors_[i].path, snap, restarted ? Missing::keep : Missing::remove);
  }
  handlePending();
}

void RedisBackend::handleReply(const RedisReply& reply) {
  if (reply.element(0).text() == "pmessage") handleChange(reply.element(3).text());
}

void RedisBackend::handleChange(std::string_view payload) {
  // seq, origin, op, path, field, value (the rest).
  const std::vector<std::string_view> parts = split(payload, 6);
  if (parts.size() != 6) return;
  const std::uint64_t seq = numberOf(parts[0]);
  if (seq <= lastSeq_) return;  // also heard through an enclosing mount's subscription
  lastSeq_ = seq;
  if (parts[1] == origin_) return;
  const std::string path(parts[3]);
  const Mirror* mirror = mirrorOf(path);
  if (!mirror || seq <= mirror->seq) return;
  DUWISP_TRACE(th(), 7, "handleChange %s %s %s %s", seq, parts[2], path, parts[4]);
  const Applying applying(applying_, path);
  const char op = parts[2].empty() ? ' ' : parts[2][0];
  if (op == 'c' || op == 'x') {
    eraseSubtree(owned_, path);
  } else {
    owned_[path].erase(std::string(parts[4]));
  }
  if (op == 'c') {
    // The new entity's type, then its fields.
    const std::vector<std::string_view> items = split(parts[5], SIZE_MAX);
    Snapshot snap;
    Fields& fields = snap.entities[path];
    fields.emplace("type", items[0]);
    for (std::size_t i = 1; i + 1 < items.size(); i += 2) fields.emplace(items[i], items[i + 1]);
    const Kel::Ptr<Kel::Entity> current = parentDir(path)->entity(leafOf(path));
    if (items[0] == dirType() && current && current->fwkType().name() == dirType()) {
      // A directory stays the object that mounts hand out; it loses the entries that its
      // new contents lack, and the new entries follow, each announced on its own.
      std::set<std::string> names;
      for (const auto& [name, child] : static_cast<const Kel::Dir&>(*current)) names.insert(name);
      for (const std::string& name : names)
        if (!fields.count("n:" + name)) reconcile(childOf(path, name), snap, Missing::remove);
    } else {
      entityPut(path, entityFrom(path, snap));
    }
  } else if (op == 'x') {
    parentDir(path)->entityDel(leafOf(path));
    untrack(path);
  } else if (const auto node = nodes_.find(path); node != nodes_.end() && node->second.codec) {
    const EntityCodec* codec = node->second.codec;
    Fields fields = codec->fields(*node->second.entity);
    if (op == 's')
      fields[std::string(parts[4])] = std::string(parts[5]);
    else
      fields.erase(std::string(parts[4]));
    if (!codec->fieldsIs(*node->second.entity, fields))
      entityPut(path, codec->entityNew(leafOf(path), fields));
  }
}

Kel::Ptr<Database> redisDatabase(std::string_view url, Kel::ActivityLoop& loop, RedisRetry retry) {
  auto db = Kel::allocate<Database>();
  db->backendIs(Kel::allocate<RedisBackend>(url, loop, retry));
  return db;
}

}  // namespace Skorra
