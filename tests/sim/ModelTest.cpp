// A randomized model-based test of an assembled DAL tree: a SimSwitch, the DemuxDal that
// buildDal() makes for it, and long seeded sequences of reads, writes (masked and not), bulk
// accesses, option changes, readiness changes, serializer restarts, waits and serves. After
// every step a small reference model says what the read returned (a hardware read runs what
// its queue holds first), what each DAL counted, which DALs are ready, and what every shadow
// holds for the entries touched. The model decides the shadow policy from its
// documented decision tables, not from the code's own steps. A full comparison runs every
// kFullCheckEvery steps and at the end: chips and shadows, and every entry of the chip
// against a record of the last data written to it.
//
// The same run, short and with seed 1, is the leak check: the switch and its tree, torn down,
// leave no entity behind.
//
// The suite runs seed 1; ZORVEK_MODEL_SEED=<seed> reproduces a printed seed and
// ZORVEK_MODEL_SEED=random draws one. A long run: ZORVEK_MODEL_STEPS=3000000 (steps per
// topology; the default is a few seconds' worth).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>

#include "Kel/Entity.h"
#include "Zorvek/DemuxDal.h"
#include "Zorvek/RequesterDalRemote.h"
#include "Zorvek/SchanBackend.h"
#include "sim/SimSwitch.h"

namespace sim {
namespace {

using Bytes = std::vector<U8>;
using Zorvek::CacheTableIndex;
using Zorvek::RequesterDal;

// Commands a requester queue holds before an enqueue drains it: the creator's queue size.
constexpr std::size_t kQueueSize = 1024;
// The S-channel DAL holds commands back while no chip is reachable; the run brings the chip
// back well before that private queue (of the same size) could fill.
constexpr std::size_t kMaxHeldBack = 512;
constexpr U64 kFullCheckEvery = 4096;
constexpr U64 kDefaultSteps = 20000;

U64 envNumber(const char* name, U64 fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::strtoull(v, nullptr, 0) : fallback;
}

// One resource of a device as the model sees it: where it lies, which part of the switch
// serves it (0: the S-channel default DAL, k > 0: the k-th serializer) and the mask of its
// remote writes (empty: whole entries).
struct Resource {
  const ResourceLayout* layout;
  std::size_t part = 0;
  Bytes mask;
};

// A command queued towards the chip and not yet run.
struct Cmd {
  enum Kind { write, bulkWrite, bulkRead } kind;
  DeviceId dev;
  DeviceOffset offset;
  Bytes data;  // write: the entry; bulk write: empty, the entries are in `buffer`
  Bytes mask;
  U32 bytes;  // bytes moved
  std::shared_ptr<Bytes> buffer;
};

// A bulk read whose entries arrive when its command runs: the model's expectation of the
// caller's buffer, checked once the model has run the command.
struct PendingRead {
  std::shared_ptr<Bytes> buffer;
  Bytes expected;
  bool done = false;
};

struct LocalEntry {
  Bytes data;
  bool eligible = false;
  U64 firstUse = 0;  // a local cache numbers its entries in the order of first use
};

struct Counters {
  U64 readHits = 0, readMisses = 0, writeHits = 0, writeMisses = 0;
  friend bool operator==(const Counters&, const Counters&) = default;
};

// The default DAL (part 0) or the remote DAL of one serializer.
struct Part {
  std::size_t index;  // 0: the default DAL
  std::string name;
  Kel::Ptr<RequesterDal> dal;          // null for a serializer that serves no resource
  Kel::Ptr<SimSerializer> serializer;  // null for the default DAL
  bool reachable = true;               // queue served / chip registered as the backend
  bool ready = true;
  std::deque<Cmd> pending{};
  std::map<std::pair<U32, DeviceOffset>, LocalEntry> local{};  // remote: (device, offset)
  Counters counters{};
  bool remote() const { return serializer != nullptr; }
};

struct Options {
  bool hw = true, okRead = true, okWrite = true, force = false, skip = false, blocking = false;
};

struct Access {
  DeviceId dev;
  const Resource* res;
  DeviceOffset offset;
  U32 size;
  bool optArg;
};

class ModelRun {
 public:
  ModelRun(const Topology& topology, U64 seed)
      : sw_(topology), seed_(seed), rng_(seed), dal_(sw_.buildDal()) {
    parts_.push_back(Part{0, "default", dal_->defaultDal(), nullptr});
    for (const SerializerDef& s : topology.serializers) {
      Part p{parts_.size(), s.name, nullptr, sw_.serializer(s.name)};
      if (!s.resources.empty() && !s.resources[0].tables.empty())
        p.dal = dal_->resourceIdToDalMap()->dal(
            PhysicalResourceId(ResourceType::tableResource_, s.resources[0].tables[0]));
      parts_.push_back(std::move(p));
    }
    for (const DeviceDef& d : topology.devices) describeDevice(topology, DeviceId(d.id));
    parentReady_ = dal_->ready();
  }
  ~ModelRun() {
    if (!parts_[0].reachable) Zorvek::schanBackendIs(sw_.chips());
  }

  // Runs `steps` random steps; stops at the first discrepancy and returns its description.
  std::string run(U64 steps) {
    check(dal_->ready(), "the DAL is ready once built");
    for (step_ = 1; step_ <= steps && failure_.empty(); ++step_) {
      oneStep();
      if (failure_.empty()) checkStep();
      if (failure_.empty() && step_ % kFullCheckEvery == 0) fullCheck();
    }
    if (failure_.empty()) fullCheck();
    return failure_;
  }

 private:
  // ---- the switch as the model knows it ---------------------------------------------------

  void describeDevice(const Topology& t, DeviceId dev) {
    const Geometry& g = *sw_.chip(dev)->geometry();
    chip_[dev.value()].assign(g.sizeBytes(), 0);
    shadow_[dev.value()].assign(g.sizeBytes(), 0);
    for (const ResourceLayout& layout : g.resources()) {
      Resource r{&layout, 0, {}};
      for (std::size_t s = 0; s < t.serializers.size(); ++s)
        for (const LogicalResourceDef& lr : t.serializers[s].resources)
          for (U64 table : lr.tables)
            if (layout.isTable() && layout.baseId.id() == table) {
              r.part = s + 1;
              r.mask = lr.dataMask;
            }
      resources_[dev.value()].push_back(r);
    }
    devices_.push_back(dev);
  }

  Part& routed(const Access& a) { return parts_[a.optArg ? a.res->part : 0]; }

  // ---- random choices ------------------------------------------------------------------

  U64 below(U64 n) { return std::uniform_int_distribution<U64>(0, n - 1)(rng_); }
  bool chance(unsigned percent) { return below(100) < percent; }

  Access pickAccess(bool write, bool bulk) {
    Access a{};
    a.dev = write ? DeviceId(0) : devices_[below(devices_.size())];
    const auto& all = resources_[a.dev.value()];
    do a.res = &all[below(all.size())];
    while (bulk && !a.res->layout->isTable());
    const ResourceLayout& l = *a.res->layout;
    // Most accesses go to a few hot entries, so that shadows are reused and replays matter.
    const U32 entry =
        static_cast<U32>(chance(80) ? below(std::min<U32>(l.entryCount, 24)) : below(l.entryCount));
    a.offset = l.entryOffset(entry);
    a.size = l.memoryEntrySize;
    a.optArg = bulk || chance(90);
    if (bulk) {
      const U32 room = std::min<U32>(l.entryCount - entry,
                                     Zorvek::maxBulkTransactionSizeInBytes() / l.memoryEntrySize);
      const U32 entries =
          static_cast<U32>(chance(90) ? 1 + below(std::min<U32>(room, 6)) : 1 + below(room));
      a.size = entries * l.memoryEntrySize;
      // Now and then a partial trailing entry, which the hardware command drops.
      if (entries < room && chance(20))
        a.size += static_cast<U32>(1 + below(l.memoryEntrySize - 1));
    }
    return a;
  }

  Bytes pickData(const Access& a) {
    Bytes data(a.size);
    const unsigned kind = static_cast<unsigned>(below(3));
    if (kind == 0) {
      for (U8& b : data) b = static_cast<U8>(below(256));
    } else if (kind == 1) {
      std::fill(data.begin(), data.end(), static_cast<U8>(below(3) * 0x55));
    } else {
      // What the serving shadow holds now: a write that a shadow hit may absorb.
      data.assign(a.size, static_cast<U8>(0xA5));
      peekShadow(routed(a), a, data);
    }
    return data;
  }

  Bytes sentinel(U32 size) { return Bytes(size, static_cast<U8>(below(256))); }

  // ---- the model of one access -----------------------------------------------------------

  LocalEntry& localEntry(Part& p, const Access& a) {
    auto [it, fresh] = p.local.try_emplace({a.dev.value(), a.offset});
    if (fresh) {
      it->second.data.assign(a.res->layout->memoryEntrySize, 0);
      it->second.firstUse = ++uses_;
    }
    return it->second;
  }

  // What the DAL's shadow hook produces, without allocating or counting.
  void peekShadow(Part& p, const Access& a, Bytes& out) {
    if (!p.remote()) {
      std::copy_n(shadow_[a.dev.value()].begin() + a.offset, a.size, out.begin());
      return;
    }
    auto it = p.local.find({a.dev.value(), a.offset});
    const Bytes zero(a.res->layout->memoryEntrySize, 0);
    const Bytes& e = it == p.local.end() ? zero : it->second.data;
    std::copy_n(e.begin(), std::min<std::size_t>(e.size(), a.size), out.begin());
  }

  // The shadow policy as documented, in two decision tables (first matching row wins), kept
  // apart from how the DAL computes it: a bug that the code and a mirrored model shared
  // would pass unseen.
  enum Cond { no, yes, any };
  static bool matches(Cond c, bool v) { return c == any || (c == yes) == v; }

  // Does the shadow answer a read?  hwAccessAllowed okToReadFromShadow forceReadFromShadow
  // cacheable -> answered. With hardware access off the shadow's answer is final, whatever
  // it held.
  struct ReadRow {
    Cond hw, okRead, force, cacheable;
    bool shadow;
  };
  static constexpr ReadRow kReadTable[] = {
      {no, any, any, any, true}, {yes, no, any, any, false}, {yes, yes, yes, any, true},
      {yes, yes, no, yes, true}, {yes, yes, no, no, false},
  };

  // What a write does: hwAccessAllowed okToWriteToShadow skipHwWriteIfShadowHit
  // shadowHoldsData -> shadow updated, hardware written, counted as a write hit / miss.
  // With skipping on (and the shadow allowed) the shadow is first read, and that read is
  // counted by the read table.
  struct WriteRow {
    Cond hw, okWrite, skip, holds;
    bool shadow, hardware, hit, miss;
  };
  static constexpr WriteRow kWriteTable[] = {
      {yes, no, any, any, false, true, false, true},
      {any, any, yes, yes, false, false, true, false},
      {yes, any, any, any, true, true, false, true},
      {no, any, any, any, true, false, false, false},
  };

  template <class Row, std::size_t n, class Pred>
  static const Row& firstRow(const Row (&table)[n], Pred pred) {
    return *std::find_if(table, table + n, pred);
  }

  // The shadow step of a read: 0 when the shadow answered, -1 when the hardware must.
  S32 readFromShadow(Part& p, const Access& a, Bytes& out) {
    const bool cacheable = a.res->layout->cacheable;
    const ReadRow& row = firstRow(kReadTable, [&](const ReadRow& r) {
      return matches(r.hw, opt_.hw) && matches(r.okRead, opt_.okRead) &&
             matches(r.force, opt_.force) && matches(r.cacheable, cacheable);
    });
    if (!row.shadow) {
      ++p.counters.readMisses;
      return -1;
    }
    // Both shadows serve every access that lies in one resource: the device shadow copies
    // the bytes, a local cache allocates the entry on first use and copies at most one entry.
    if (p.remote()) localEntry(p, a);
    peekShadow(p, a, out);
    ++p.counters.readHits;
    return 0;
  }

  // Whether the shadow holds every byte of `data`: a local cache holds one entry, so a write
  // of several entries is never found there.
  bool shadowHolds(Part& p, const Access& a, const Bytes& data) {
    if (p.remote() && data.size() > a.res->layout->memoryEntrySize) return false;
    Bytes held(data.size());
    peekShadow(p, a, held);
    return held == data;
  }

  // The shadow step of a write: true when the hardware is to be written.
  bool writeToShadow(Part& p, const Access& a, const Bytes& data) {
    // The shadow is looked at only when skipping is on and the first row (hardware on, the
    // shadow not to be written) does not already send the write to the hardware.
    bool holds = false;
    if (opt_.skip && (!opt_.hw || opt_.okWrite)) {
      Bytes ignored(data.size());
      holds = readFromShadow(p, a, ignored) == 0 && shadowHolds(p, a, data);
    }
    const WriteRow& row = firstRow(kWriteTable, [&](const WriteRow& r) {
      return matches(r.hw, opt_.hw) && matches(r.okWrite, opt_.okWrite) &&
             matches(r.skip, opt_.skip) && matches(r.holds, holds);
    });
    p.counters.writeHits += row.hit;
    p.counters.writeMisses += row.miss;
    if (row.shadow && p.remote()) {
      LocalEntry& e = localEntry(p, a);
      std::copy_n(data.begin(), e.data.size(), e.data.begin());
      e.eligible = e.eligible || opt_.hw;
    } else if (row.shadow) {
      std::copy(data.begin(), data.end(), shadow_[a.dev.value()].begin() + a.offset);
    }
    return row.hardware;
  }

  Bytes remoteMask(const Resource& r, U32 size) const {
    if (r.mask.empty()) return {};
    Bytes m(size, 0);
    std::copy_n(r.mask.begin(), std::min<std::size_t>(r.mask.size(), size), m.begin());
    return m;
  }

  // ---- what the chip must hold, recorded apart from the commands ---------------------------

  // The last data written to an entry's hardware and the bits it wrote (mask empty: all),
  // and the parts whose commands reached it since the last full check. Commands of one part
  // run in order; those of different parts may run in another order than they were issued,
  // so an entry reached by two parts is not known until it is written again.
  struct Written {
    Bytes data;
    Bytes mask;
    std::set<std::size_t> parts;
    bool known = true;
  };

  void record(const Part& p, DeviceId dev, DeviceOffset offset, Bytes data, Bytes mask) {
    Written& w = written_[{dev.value(), offset}];
    w.parts.insert(p.index);
    w.known = w.parts.size() == 1;
    w.data = std::move(data);
    w.mask = std::move(mask);
  }

  // A restart wipes the serializer's entries; its replay writes back the eligible ones.
  void recordRestart(const Part& p) {
    for (DeviceId dev : devices_)
      for (const Resource& r : resources_[dev.value()]) {
        if (r.part != p.index) continue;
        const U32 size = r.layout->memoryEntrySize;
        for (U32 e = 0; e < r.layout->entryCount; ++e) {
          const DeviceOffset offset = r.layout->entryOffset(e);
          const auto local = p.local.find({dev.value(), offset});
          const auto it = written_.find({dev.value(), offset});
          if (local != p.local.end() && local->second.eligible)
            record(p, dev, offset, local->second.data, remoteMask(r, size));
          else if (it != written_.end() && !it->second.parts.empty())
            it->second.known = false;  // its own commands may still run after the wipe
          else
            written_[{dev.value(), offset}] = Written{Bytes(size, 0), {}, {}, true};
        }
      }
  }

  // Once every command has run: each known entry holds its last data under its mask.
  void checkRecord() {
    for (auto it = written_.begin(); it != written_.end();) {
      auto& [key, w] = *it;
      if (!w.known) {
        it = written_.erase(it);
        continue;
      }
      const DeviceId dev(key.first);
      const Location at = sw_.chip(dev)->geometry()->locate(key.second);
      const auto got = sw_.chip(dev)->entry(at.layout->id, at.entry);
      bool same = true;
      for (std::size_t i = 0; i < got.size(); ++i) {
        const U8 m = w.mask.empty() ? 0xFF : w.mask[i];
        same = same && (got[i] & m) == (w.data[i] & m);
      }
      check(same, "chip of device " + std::to_string(key.first) + " at " + hexText(key.second) +
                      " holds " + bytesText(got.begin(), got.size()) + ", last written " +
                      bytesText(w.data.begin(), w.data.size()));
      w.parts.clear();
      ++it;
    }
  }

  void execute(Cmd& c) {
    Bytes& chip = chip_[c.dev.value()];
    if (c.kind == Cmd::bulkRead) {
      for (PendingRead& r : reads_)
        if (r.buffer == c.buffer) {
          std::copy_n(chip.begin() + c.offset, c.bytes, r.expected.begin());
          r.done = true;
        }
      return;
    }
    const U8* src = c.kind == Cmd::write ? c.data.data() : c.buffer->data();
    for (U32 i = 0; i < c.bytes; ++i) {
      const U8 m = c.mask.empty() ? 0xFF : c.mask[i];
      chip[c.offset + i] = static_cast<U8>((chip[c.offset + i] & ~m) | (src[i] & m));
    }
  }

  void drain(Part& p) {
    while (!p.pending.empty()) {
      execute(p.pending.front());
      p.pending.pop_front();
    }
  }

  // Hands a command to the part's requester: a remote queue drains itself when full; the
  // S-channel runs it at once while the chip is reachable and holds it back otherwise.
  void submit(Part& p, Cmd c) {
    if (c.buffer) retained_.push_back(c.buffer);
    if (p.remote() && p.pending.size() == kQueueSize) drain(p);
    if (!p.remote() && p.reachable) {
      execute(c);
      return;
    }
    p.pending.push_back(std::move(c));
  }

  // ---- steps ---------------------------------------------------------------------------

  void oneStep() {
    if (parts_[0].pending.size() >= kMaxHeldBack) return toggleReachable(parts_[0]);
    const U64 r = below(100);
    if (r < 30) return read(pickAccess(false, false));
    if (r < 62) return write(pickAccess(true, false));
    if (r < 69) return bulkRead(pickAccess(false, true));
    if (r < 76) return bulkWrite(pickAccess(true, true));
    if (r < 84) return wait();
    if (r < 92) return option();
    if (r < 96) return readiness();
    if (r < 98) return restart();
    serve();
  }

  void read(const Access& a) {
    Part& p = routed(a);
    Bytes actual = sentinel(a.size), expected = actual;
    S32 rc = readFromShadow(p, a, expected);
    // The hardware answers what the shadow refused; a queue runs everything before the read
    // first, and the S-channel cannot read a chip that is not there.
    if (rc != 0 && (p.remote() || p.reachable)) {
      drain(p);
      std::copy_n(chip_[a.dev.value()].begin() + a.offset, a.size, expected.begin());
      rc = 0;
    }
    SimOptArg arg = sw_.optArg(a.dev, a.offset);
    log("read", a, p);
    const S32 got = dal_->dalRead(a.dev, a.offset, static_cast<U16>(a.size), actual.data(),
                                  a.optArg ? &arg : nullptr);
    check(got == rc,
          "dalRead returned " + std::to_string(got) + ", expected " + std::to_string(rc));
    check(actual == expected, "dalRead data differs from the model");
  }

  void write(const Access& a) {
    Part& p = routed(a);
    const Bytes data = pickData(a);
    if (writeToShadow(p, a, data)) {
      const Bytes mask = p.remote() ? remoteMask(*a.res, a.size) : Bytes{};
      record(p, a.dev, a.offset, data, mask);
      submit(p, Cmd{Cmd::write, a.dev, a.offset, data, mask, a.size, nullptr});
      if (p.remote() && opt_.blocking) drain(p);
    }
    SimOptArg arg = sw_.optArg(a.dev, a.offset);
    log("write", a, p);
    const S32 got = dal_->dalWrite(Zorvek::oneDeviceMask(a.dev), a.offset, static_cast<U16>(a.size),
                                   data.data(), a.optArg ? &arg : nullptr);
    check(got == 0, "dalWrite returned " + std::to_string(got));
  }

  U32 wholeEntries(const Access& a) const {
    const U32 e = a.res->layout->memoryEntrySize;
    return a.size / e * e;
  }

  void bulkRead(const Access& a) {
    Part& p = routed(a);
    auto buffer = std::make_shared<Bytes>(sentinel(a.size));
    PendingRead pr{buffer, *buffer};
    if (readFromShadow(p, a, pr.expected) == 0) {
      pr.done = true;
    } else {
      reads_.push_back(pr);
      submit(p, Cmd{Cmd::bulkRead, a.dev, a.offset, {}, {}, wholeEntries(a), buffer});
    }
    SimOptArg arg = sw_.optArg(a.dev, a.offset);
    SimDalHelper::bulkBufferIs(&arg, buffer->data());
    log("bulkRead", a, p);
    const S32 got = dal_->dalBulkRead(a.dev, a.offset, a.size, buffer->data(), &arg);
    check(got == 0, "dalBulkRead returned " + std::to_string(got));
    if (pr.done) check(*buffer == pr.expected, "dalBulkRead from the shadow: data differs");
  }

  void bulkWrite(const Access& a) {
    Part& p = routed(a);
    auto buffer = std::make_shared<Bytes>(pickData(a));
    if (writeToShadow(p, a, *buffer)) {
      const U32 e = a.res->layout->memoryEntrySize;
      for (U32 at = 0; at < wholeEntries(a); at += e)
        record(p, a.dev, a.offset + at, Bytes(buffer->begin() + at, buffer->begin() + at + e), {});
      submit(p, Cmd{Cmd::bulkWrite, a.dev, a.offset, {}, {}, wholeEntries(a), buffer});
    }
    SimOptArg arg = sw_.optArg(a.dev, a.offset);
    SimDalHelper::bulkBufferIs(&arg, buffer->data());
    log("bulkWrite", a, p);
    const S32 got =
        dal_->dalBulkWrite(Zorvek::oneDeviceMask(a.dev), a.offset, a.size, buffer->data(), &arg);
    check(got == 0, "dalBulkWrite returned " + std::to_string(got));
  }

  void wait() {
    for (Part& p : parts_)
      if (p.remote() && p.dal && opt_.hw && p.ready) drain(p);
    logText("waitForCompletion");
    dal_->waitForCompletion(DeviceId(0));
  }

  void serve() {
    for (Part& p : parts_)
      if (p.remote()) drain(p);
    logText("serve");
    sw_.serve();
  }

  // The options the model switches: the model's flag, the DAL's getter and setter.
  struct OptionDef {
    const char* name;
    bool Options::*flag;
    bool (Zorvek::Dal::*get)() const;
    void (Zorvek::Dal::*set)(bool);
  };
#define OPTION(option, flag) \
  { #option, &Options::flag, &Zorvek::Dal::option, &Zorvek::Dal::option##Is }
  static constexpr OptionDef kOptions[] = {
      OPTION(hwAccessAllowed, hw),          OPTION(okToReadFromShadow, okRead),
      OPTION(okToWriteToShadow, okWrite),   OPTION(forceReadFromShadow, force),
      OPTION(skipHwWriteIfShadowHit, skip), OPTION(blocking, blocking)};
#undef OPTION

  void option() {
    const OptionDef& o = kOptions[below(std::size(kOptions))];
    bool& flag = opt_.*o.flag;
    if (o.flag == &Options::blocking && !flag && !parts_[0].reachable) return;
    flag = !flag;
    logText(std::string(o.name) + " " + (flag ? "True" : "False"));
    (dal_.get()->*o.set)(flag);
  }

  // Takes a serializer's queue out of service (or back), or the chip away from the
  // S-channel (or back). A blocking write to an unreachable chip fails, and a failed write
  // is fatal by design, so the chip goes away only while writes do not block.
  void readiness() {
    Part& p = parts_[below(parts_.size())];
    if (p.remote() && !p.dal) return;
    if (!p.remote() && p.reachable && opt_.blocking) return;
    toggleReachable(p);
  }

  void toggleReachable(Part& p) {
    p.reachable = !p.reachable;
    logText(p.name + (p.reachable ? " reachable" : " unreachable"));
    if (p.remote()) {
      const Kel::String queue = p.dal->requester()->name();
      if (p.reachable)
        p.serializer->status()->servedQueueIs(queue);
      else
        p.serializer->status()->servedQueueDel(queue);
      return;
    }
    // The S-channel issues what it held back as soon as the chip is there again.
    if (p.reachable) drain(p);
    Zorvek::schanBackendIs(p.reachable ? Kel::Ptr<Zorvek::SchanBackend>(sw_.chips()) : nullptr);
  }

  // A restart wipes the serializer's tables on every device at once; what its queue still
  // holds runs afterwards, and so does the replay of every hardware-write eligible entry.
  void restart() {
    Part& p = parts_[1 + below(parts_.size() - 1)];
    for (DeviceId dev : devices_)
      for (const Resource& r : resources_[dev.value()])
        if (r.part == p.index)
          std::fill_n(chip_[dev.value()].begin() + r.layout->base, r.layout->sizeBytes(), 0);
    recordRestart(p);
    logText("restart " + p.name);
    sw_.restart(p.name);
    // Tables in (device, resource id) order, the entries of a table in their order of use.
    std::map<std::tuple<U32, PhysicalResourceId, U64>, DeviceOffset> replay;
    for (const auto& [key, e] : p.local)
      if (e.eligible)
        replay.emplace(std::tuple(key.first, resourceAt(DeviceId(key.first), key.second).layout->id,
                                  e.firstUse),
                       key.second);
    for (const auto& [order, offset] : replay) {
      const DeviceId dev(std::get<0>(order));
      const Resource& r = resourceAt(dev, offset);
      submit(p, Cmd{Cmd::write, dev, offset, p.local[{dev.value(), offset}].data,
                    remoteMask(r, r.layout->memoryEntrySize), r.layout->memoryEntrySize, nullptr});
    }
  }

  const Resource& resourceAt(DeviceId dev, DeviceOffset offset) const {
    for (const Resource& r : resources_.at(dev.value()))
      if (r.layout->contains(offset, 1)) return r;
    throw std::logic_error("no resource");
  }

  // ---- checks --------------------------------------------------------------------------

  void checkStep() {
    bool changed = false;
    for (Part& p : parts_) {
      const bool ready = !opt_.hw || p.reachable;
      changed = changed || (p.dal && ready != p.ready);
      p.ready = ready;
    }
    // The parent follows its members' changes only while the default DAL is ready.
    if (changed && parts_[0].ready) {
      parentReady_ = true;
      for (const Part& p : parts_)
        if (p.dal) parentReady_ = parentReady_ && p.ready;
    }
    check(dal_->ready() == parentReady_, "DemuxDal ready " + std::to_string(dal_->ready()));
    for (Part& p : parts_) {
      if (!p.dal) continue;
      const Zorvek::Dal& d = *p.dal;
      check(d.ready() == p.ready, p.name + " ready " + std::to_string(d.ready()));
      for (const OptionDef& o : kOptions)
        check((d.*o.get)() == opt_.*o.flag, p.name + " " + o.name + " differs from the DemuxDal's");
      const Counters got{d.cacheReadHits(), d.cacheReadMisses(), d.cacheWriteHits(),
                         d.cacheWriteMisses()};
      check(got == p.counters,
            p.name + " counters " + countersText(got) + ", expected " + countersText(p.counters));
    }
    for (PendingRead& r : reads_)
      if (r.done) check(*r.buffer == r.expected, "a bulk read's entries differ from the chip's");
    std::erase_if(reads_, [](const PendingRead& r) { return r.done; });
    while (retained_.size() > kQueueSize * 4) retained_.pop_front();
    compareShadows(false);
  }

  // The local cache entries and the device shadow: every entry, or those of the last access.
  void compareShadows(bool all) {
    for (Part& p : parts_) {
      if (!p.remote() || !p.dal) continue;
      if (all) {
        for (const auto& [key, e] : p.local) compareLocal(p, key, e);
      } else if (auto it = p.local.find(lastKey_); it != p.local.end()) {
        compareLocal(p, it->first, it->second);
      }
    }
    if (!all) return compareDeviceShadow(DeviceId(lastKey_.first), lastKey_.second);
    for (DeviceId dev : devices_)
      for (const Resource& r : resources_[dev.value()])
        for (U32 e = 0; e < r.layout->entryCount; ++e)
          compareDeviceShadow(dev, r.layout->entryOffset(e));
  }

  void compareLocal(Part& p, const std::pair<U32, DeviceOffset>& key, const LocalEntry& e) {
    const DeviceId dev(key.first);
    const Kel::Ptr<Zorvek::CacheTable> table =
        static_cast<Zorvek::RequesterDalRemote&>(*p.dal).localCache(
            CacheTableIndex(dev, resourceAt(dev, key.second).layout->id));
    const U8* data = table ? table->entryDataPtr(key.second) : nullptr;
    if (data && std::equal(e.data.begin(), e.data.end(), data) &&
        table->entryOffsetHwWriteEligible(key.second) == e.eligible)
      return;
    check(false,
          p.name + " local cache entry at " + hexText(key.second) + " differs from the model");
  }

  void compareDeviceShadow(DeviceId dev, DeviceOffset offset) {
    const U32 size = resourceAt(dev, offset).layout->memoryEntrySize;
    Bytes got(size);
    sw_.helper()->shadowRead(dev, offset, static_cast<U16>(size), got.data(), nullptr);
    if (std::equal(got.begin(), got.end(), shadow_[dev.value()].begin() + offset)) return;
    check(false, "device shadow of device " + std::to_string(dev.value()) + " at " +
                     hexText(offset) + " differs from the model");
  }

  void fullCheck() {
    if (!parts_[0].reachable) toggleReachable(parts_[0]);
    serve();
    checkStep();
    checkRecord();
    compareShadows(true);
  }

  template <class It>
  static std::string bytesText(It first, std::size_t n) {
    std::string text;
    for (std::size_t i = 0; i < n; ++i, ++first) {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%02x", unsigned{*first});
      text += hex;
    }
    return text;
  }

  static std::string countersText(const Counters& c) {
    return "read " + std::to_string(c.readHits) + "/" + std::to_string(c.readMisses) + " write " +
           std::to_string(c.writeHits) + "/" + std::to_string(c.writeMisses);
  }

  void log(const char* what, const Access& a, const Part& p) {
    lastKey_ = {a.dev.value(), a.offset};
    std::ostringstream os;
    os << what << " device " << unsigned{a.dev.value()} << " offset " << hexText(a.offset)
       << " size " << a.size << (a.optArg ? "" : " no optArg") << " -> " << p.name;
    logText(os.str());
  }

  void logText(std::string text) {
    recent_.push_back("step " + std::to_string(step_) + ": " + std::move(text));
    if (recent_.size() > 12) recent_.pop_front();
  }

  void check(bool ok, const std::string& what) {
    if (ok || !failure_.empty()) return;
    std::ostringstream os;
    os << "seed " << seed_ << ", step " << step_ << ": " << what << "\nlast steps:\n";
    for (const std::string& s : recent_) os << "  " << s << "\n";
    failure_ = os.str();
  }

  SimSwitch sw_;
  U64 seed_;
  std::mt19937_64 rng_;
  Kel::Ptr<Zorvek::DemuxDal> dal_;
  std::vector<Part> parts_;
  std::vector<DeviceId> devices_;
  std::map<U32, std::vector<Resource>> resources_;
  std::map<U32, Bytes> chip_;
  std::map<U32, Bytes> shadow_;
  Options opt_;
  bool parentReady_ = false;
  std::deque<PendingRead> reads_;
  std::deque<std::shared_ptr<Bytes>> retained_;  // bulk buffers, kept past their commands
  std::map<std::pair<U32, DeviceOffset>, Written> written_;  // (device, entry offset)
  std::pair<U32, DeviceOffset> lastKey_{0, 0};
  std::deque<std::string> recent_;
  U64 step_ = 0;
  U64 uses_ = 0;
  std::string failure_;
};

// The embedded default, and MaskedVariant: one device; a replicated remote table whose memory
// entries hold several entries, with a sparse mask reached through its normalised id; a mask
// that covers whole entries; a remote table without one; a serializer that owns nothing;
// S-channel resources that are not cacheable.
class DemuxDalModelTest : public ::testing::TestWithParam<std::string> {};

TEST_P(DemuxDalModelTest, RandomStepsMatchTheModel) {
  // A fixed seed keeps the suite reproducible; ZORVEK_MODEL_SEED=random asks for a new one.
  const char* asked = std::getenv("ZORVEK_MODEL_SEED");
  const U64 seed = asked && std::string_view(asked) == "random" ? std::random_device{}()
                                                                : envNumber("ZORVEK_MODEL_SEED", 1);
  const U64 steps = envNumber("ZORVEK_MODEL_STEPS", kDefaultSteps);
  std::printf("%s: seed %llu, %llu steps\n", GetParam().c_str(),
              static_cast<unsigned long long>(seed), static_cast<unsigned long long>(steps));
  ModelRun run(GetParam() == "MaskedVariant"
                   ? Topology::load(ZORVEK_TEST_DATA "/sim/topologies/masked-variant.json")
                   : Topology::embeddedDefault(),
               seed);
  const std::string failure = run.run(steps);
  EXPECT_TRUE(failure.empty()) << failure;
}

INSTANTIATE_TEST_SUITE_P(Topologies, DemuxDalModelTest,
                         ::testing::Values("EmbeddedDefault", "MaskedVariant"),
                         [](const auto& info) { return info.param; });

std::map<std::string, std::int64_t> liveCounts() {
  std::map<std::string, std::int64_t> counts;
  for (const Kel::Type* t : Kel::TypeRegistry::types())
    if (t->liveCount() != 0) counts[t->name()] = t->liveCount();
  return counts;
}

// Tearing down a simulated switch and the DAL tree built on it frees every entity they made:
// after a model run (every kind of access, option and readiness changes, restarts and
// replays) the live count of every registered entity type is back to its value from before.
TEST(SimSwitchLeakTest, TearDownFreesEveryEntity) {
  // The process's S-channel backend registry lives until exit by design; made before the
  // count, it is not mistaken for a leak.
  Zorvek::schanBackendRegistry();
  const auto before = liveCounts();
  {
    ModelRun run(Topology::embeddedDefault(), 1);
    EXPECT_EQ(run.run(kFullCheckEvery), "");
    EXPECT_NE(liveCounts(), before);  // the count sees the tree's entities
  }
  EXPECT_EQ(liveCounts(), before);
}

}  // namespace
}  // namespace sim
