#include "Kwisp/Kwisp.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace Kwisp {

namespace {

constexpr char kMagic[8] = {'K', 'W', 'I', 'S', 'P', 'R', 'N', 'G'};
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kPayloadBytes = kSlotBytes - kHeaderBytes;
// A ring in a file (ringFileIs): the dump's magic, version 2, a header of fixed size, an area
// of fixed size for descriptors, then the slots, stamped in record-clock ticks.
constexpr std::uint32_t kFileVersion = 2;
constexpr std::size_t kFileHeaderBytes = 64;
constexpr std::size_t kFileDescriptorBytes = 256 * 1024;
// How long the record clock's rate is measured for when a ring moves to a file.
constexpr int kFileRateMs = 20;

// A descriptor as the decoder sees it: copied strings, so a dumped ring decodes without the
// process that wrote it.
struct DescriptorText {
  unsigned level = 0;
  int line = 0;
  std::string handle, file, function, format;
};

std::uint64_t steadyNanoseconds() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

#if defined(__x86_64__) || defined(__i386__)
std::uint64_t readClock() { return __rdtsc(); }
constexpr bool kTicksAreNanoseconds = false;
#else
std::uint64_t readClock() { return steadyNanoseconds(); }
constexpr bool kTicksAreNanoseconds = true;
#endif

// A reading of both clocks at (nearly) the same moment.
struct ClockPair {
  std::uint64_t ticks = 0;
  std::uint64_t nanoseconds = 0;
  static ClockPair now() { return {readClock(), steadyNanoseconds()}; }
};

// Turns record-clock ticks into steady-clock nanoseconds, by the rate between two readings.
class TickConverter {
 public:
  TickConverter(const ClockPair& base, const ClockPair& later) : base_(base) {
    if (later.ticks > base.ticks && later.nanoseconds > base.nanoseconds)
      nanosecondsPerTick_ = static_cast<long double>(later.nanoseconds - base.nanoseconds) /
                            static_cast<long double>(later.ticks - base.ticks);
  }
  std::uint64_t nanoseconds(std::uint64_t ticks) const {
    if (kTicksAreNanoseconds) return ticks;
    if (ticks <= base_.ticks) return base_.nanoseconds;
    return base_.nanoseconds +
           static_cast<std::uint64_t>(static_cast<long double>(ticks - base_.ticks) *
                                      nanosecondsPerTick_);
  }

 private:
  ClockPair base_;
  long double nanosecondsPerTick_ = 1;
};

// A ring in a file: the mapping, and where descriptors go as they are built.
struct RingFile {
  std::string path;
  unsigned char* base = nullptr;
  std::size_t bytes = 0;
  std::size_t descriptorsAt = 0;  // start of the descriptor area
  ~RingFile() {
    if (base) munmap(base, bytes);
  }
};

struct Ring {
  std::vector<unsigned char> heap = std::vector<unsigned char>(kDefaultSlots * kSlotBytes);
  // The slots: the heap's, or the file's.
  std::span<unsigned char> slots = heap;
  std::uint64_t next = 0;
  // The slot the next record takes: it wraps without dividing by the slot count.
  unsigned char* cursor = slots.data();
  ClockPair base = ClockPair::now();
  std::mutex descriptorMutex;
  // The texts of every descriptor ever built, copied when it is built: records keep decoding
  // after a trace point is gone (its library unloaded, or a descriptor that was not static).
  std::map<std::uint32_t, DescriptorText> descriptors;
  std::unique_ptr<RingFile> file;
};

Ring& ring() {
  static Ring* r = new Ring;  // outlives static descriptors of unloading libraries
  return *r;
}

template <class T>
void put(unsigned char* p, T v) {
  std::memcpy(p, &v, sizeof v);
}
template <class T>
T get(const unsigned char* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

std::string hex(std::uint64_t v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%" PRIx64, v);
  return buf;
}

std::string valueText(const Value& v, bool asHex) {
  switch (v.tag) {
    case Tag::string:
      return std::string(v.text);
    case Tag::boolean:
      return v.bits ? "True" : "False";
    case Tag::signedInt:
      return asHex ? hex(v.bits) : std::to_string(static_cast<std::int64_t>(v.bits));
    case Tag::unsignedInt:
      break;
  }
  return asHex ? hex(v.bits) : std::to_string(v.bits);
}

// Decodes the payload of one slot into values whose strings point into the slot.
std::vector<Value> decodeArgs(const unsigned char* slot, std::uint64_t seq) {
  const unsigned argc = slot[20];
  const std::size_t used = get<std::uint16_t>(slot + 22);
  auto bad = [&](const char* why) {
    return DecodeError("record " + std::to_string(seq) + ": " + why);
  };
  if (used > kPayloadBytes) throw bad("payload size exceeds the slot");
  const unsigned char* p = slot + kHeaderBytes;
  const unsigned char* end = p + used;
  std::vector<Value> out;
  for (unsigned i = 0; i < argc; ++i) {
    if (p >= end) throw bad("argument beyond the payload");
    Value v;
    v.tag = static_cast<Tag>(*p++);
    switch (v.tag) {
      case Tag::unsignedInt:
      case Tag::signedInt:
      case Tag::boolean:
        if (end - p < 8) throw bad("truncated number argument");
        v.bits = get<std::uint64_t>(p);
        p += 8;
        break;
      case Tag::string: {
        if (p >= end) throw bad("truncated string argument");
        const std::size_t len = *p++;
        if (static_cast<std::size_t>(end - p) < len)
          throw bad("string argument beyond the payload");
        v.text = std::string_view(reinterpret_cast<const char*>(p), len);
        p += len;
        break;
      }
      default:
        throw bad("unknown argument tag");
    }
    out.push_back(v);
  }
  return out;
}

std::vector<Record> decodeSlots(const unsigned char* slots, std::size_t count,
                                const std::map<std::uint32_t, DescriptorText>& descs) {
  std::vector<std::pair<std::uint64_t, const unsigned char*>> used;
  for (std::size_t i = 0; i < count; ++i) {
    const unsigned char* s = slots + i * kSlotBytes;
    const std::uint64_t seq = get<std::uint64_t>(s);
    if (seq) used.emplace_back(seq - 1, s);
  }
  std::sort(used.begin(), used.end());
  std::vector<Record> records;
  for (auto& [seq, s] : used) {
    auto it = descs.find(get<std::uint32_t>(s + 16));
    if (it == descs.end())
      throw DecodeError("record " + std::to_string(seq) + ": unknown descriptor " +
                        std::to_string(get<std::uint32_t>(s + 16)));
    const DescriptorText& d = it->second;
    const auto args = decodeArgs(s, seq);
    Record r{.sequence = seq,
             .nanoseconds = get<std::uint64_t>(s + 8),
             .handle = d.handle,
             .level = d.level,
             .file = d.file,
             .line = d.line,
             .function = d.function,
             .format = d.format,
             .arguments = {},
             .text = render(d.format, args.data(), args.size()),
             .truncated = (s[21] & 1) != 0};
    for (const Value& v : args) r.arguments.push_back(valueText(v, false));
    records.push_back(std::move(r));
  }
  return records;
}

std::vector<std::string> linesOf(const std::vector<Record>& records) {
  std::vector<std::string> lines;
  lines.reserve(records.size());
  for (const Record& r : records) lines.push_back(lineOf(r));
  return lines;
}

DescriptorText textOf(const Descriptor& d) {
  const char* file = d.file();
  for (const char* p = file; *p; ++p)
    if (*p == '/') file = p + 1;
  return {d.level(), d.line(), d.handle().name(), file, d.function(), d.format()};
}

std::map<std::uint32_t, DescriptorText> knownDescriptors() {
  Ring& r = ring();
  std::lock_guard lock(r.descriptorMutex);
  return r.descriptors;
}

// A copy of `slots` whose stamps are steady-clock nanoseconds.
std::vector<unsigned char> inNanoseconds(std::span<const unsigned char> raw,
                                         const TickConverter& converter) {
  std::vector<unsigned char> slots(raw.begin(), raw.end());
  for (std::size_t at = 0; at + kSlotBytes <= slots.size(); at += kSlotBytes) {
    unsigned char* s = slots.data() + at;
    if (get<std::uint64_t>(s))
      put<std::uint64_t>(s + 8, converter.nanoseconds(get<std::uint64_t>(s + 8)));
  }
  return slots;
}

std::vector<unsigned char> slotsInNanoseconds(const Ring& r) {
  return inNanoseconds(r.slots, TickConverter(r.base, ClockPair::now()));
}

// The bytes of a descriptor in a dump: u32 id, u8 level, u32 line, then its handle, file,
// function and format, each a u16 length and its bytes.
void putDescriptor(std::string& out, std::uint32_t id, const DescriptorText& d);

// Appends a descriptor to the file's area, then publishes the bytes used: a process that dies
// while it writes one leaves the area as it was. One that does not fit is left out (its
// records then do not decode).
void fileDescriptor(RingFile& file, std::uint32_t id, const DescriptorText& d) {
  std::string bytes;
  putDescriptor(bytes, id, d);
  unsigned char* used = file.base + 52;
  const std::uint32_t at = get<std::uint32_t>(used);
  if (at + bytes.size() > kFileDescriptorBytes) return;
  std::memcpy(file.base + file.descriptorsAt + at, bytes.data(), bytes.size());
  std::atomic_signal_fence(std::memory_order_seq_cst);
  put<std::uint32_t>(used, static_cast<std::uint32_t>(at + bytes.size()));
}

// Reads the dump format with bounds checks on every field.
class Reader {
 public:
  explicit Reader(std::string_view b) : b_(b) {}
  template <class T>
  T num(const char* what) {
    need(sizeof(T), what);
    T v;
    std::memcpy(&v, b_.data() + pos_, sizeof v);
    pos_ += sizeof v;
    return v;
  }
  std::string str(const char* what) {
    const std::size_t n = num<std::uint16_t>(what);
    need(n, what);
    std::string s(b_.substr(pos_, n));
    pos_ += n;
    return s;
  }
  std::string_view bytes(std::size_t n, const char* what) {
    need(n, what);
    std::string_view s = b_.substr(pos_, n);
    pos_ += n;
    return s;
  }
  std::size_t pos() const { return pos_; }
  std::size_t left() const { return b_.size() - pos_; }

 private:
  void need(std::size_t n, const char* what) {
    if (b_.size() - pos_ < n)
      throw DecodeError(std::string("truncated dump: ") + what + " at byte " +
                        std::to_string(pos_));
  }
  std::string_view b_;
  std::size_t pos_ = 0;
};

void putStr(std::string& out, std::string_view s) {
  const auto n = static_cast<std::uint16_t>(std::min<std::size_t>(s.size(), 0xFFFF));
  out.append(reinterpret_cast<const char*>(&n), sizeof n);
  out.append(s.substr(0, n));
}
template <class T>
void putNum(std::string& out, T v) {
  out.append(reinterpret_cast<const char*>(&v), sizeof v);
}

void putDescriptor(std::string& out, std::uint32_t id, const DescriptorText& d) {
  putNum<std::uint32_t>(out, id);
  putNum<std::uint8_t>(out, static_cast<std::uint8_t>(d.level));
  putNum<std::uint32_t>(out, static_cast<std::uint32_t>(d.line));
  putStr(out, d.handle);
  putStr(out, d.file);
  putStr(out, d.function);
  putStr(out, d.format);
}

}  // namespace

Descriptor::Descriptor(const Kel::TraceHandle& handle, unsigned level, const char* file, int line,
                       const char* function, const char* format)
    : handle_(&handle),
      level_(level),
      file_(file),
      line_(line),
      function_(function),
      format_(format) {
  Ring& r = ring();
  std::lock_guard lock(r.descriptorMutex);
  id_ = static_cast<std::uint32_t>(r.descriptors.size() + 1);
  const DescriptorText& text = r.descriptors.emplace(id_, textOf(*this)).first->second;
  if (r.file) fileDescriptor(*r.file, id_, text);
}

std::uint64_t clockTicks() { return readClock(); }

namespace detail {

Claim claimSlot(std::uint32_t id) {
  Ring& r = ring();
  unsigned char* const slot = r.cursor;
  r.cursor =
      slot + kSlotBytes == r.slots.data() + r.slots.size() ? r.slots.data() : slot + kSlotBytes;
  // The slot is no record until the writer publishes it: a process that dies while it writes
  // leaves an empty slot, never an old record's number over new bytes. Only the compiler can
  // reorder these stores: the processor keeps them in order, and a ring in a file outlives a
  // killed process with every store it made.
  put<std::uint64_t>(slot, 0);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  put<std::uint64_t>(slot + 8, readClock());
  put<std::uint32_t>(slot + 16, id);
  return {slot, r.next++};
}

}  // namespace detail

void record(const Descriptor& d, const Value* values, std::size_t count) {
  RecordWriter w(d);
  for (std::size_t i = 0; i < count; ++i) w.add(values[i]);
}

std::string render(std::string_view format, const Value* values, std::size_t count) {
  std::string out;
  std::size_t arg = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c != '%' || i + 1 == format.size()) {
      out += c;
      continue;
    }
    const char k = format[i + 1];
    if (k == '%') {
      out += '%';
    } else if (k == 'x' || k == 's') {
      out += arg < count ? valueText(values[arg], k == 'x') : std::string("<missing>");
      ++arg;
    } else {
      out += c;
      continue;
    }
    ++i;
  }
  return out;
}

std::string lineOf(const Record& r) {
  char stamp[48];
  std::snprintf(stamp, sizeof stamp, "%" PRIu64 ".%09" PRIu64, r.nanoseconds / 1000000000,
                r.nanoseconds % 1000000000);
  std::string line = std::to_string(r.sequence) + " " + stamp + " " + r.handle + "/" +
                     std::to_string(r.level) + " " + r.file + ":" + std::to_string(r.line) + " " +
                     r.function + ": " + r.text;
  if (r.truncated) line += " [truncated]";
  return line;
}

std::vector<Record> records() {
  const std::vector<unsigned char> slots = slotsInNanoseconds(ring());
  return decodeSlots(slots.data(), slots.size() / kSlotBytes, knownDescriptors());
}

std::vector<std::string> decode() { return linesOf(records()); }

void dump(const std::string& path) {
  Ring& r = ring();
  std::string out(kMagic, sizeof kMagic);
  putNum<std::uint32_t>(out, kVersion);
  auto descs = knownDescriptors();
  putNum<std::uint32_t>(out, static_cast<std::uint32_t>(descs.size()));
  for (auto& [id, d] : descs) putDescriptor(out, id, d);
  putNum<std::uint32_t>(out, static_cast<std::uint32_t>(kSlotBytes));
  putNum<std::uint32_t>(out, static_cast<std::uint32_t>(r.slots.size() / kSlotBytes));
  const std::vector<unsigned char> slots = slotsInNanoseconds(r);
  out.append(reinterpret_cast<const char*>(slots.data()), slots.size());
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  if (!f || !f.write(out.data(), static_cast<std::streamsize>(out.size())))
    throw std::runtime_error("cannot write trace ring to " + path);
}

std::vector<std::string> decodeBytes(std::string_view bytes) {
  return linesOf(decodeRecords(bytes));
}

namespace {

std::map<std::uint32_t, DescriptorText> readDescriptors(Reader& in, std::uint32_t n) {
  std::map<std::uint32_t, DescriptorText> descs;
  for (std::uint32_t i = 0; i < n; ++i) {
    const auto id = in.num<std::uint32_t>("descriptor id");
    DescriptorText d;
    d.level = in.num<std::uint8_t>("descriptor level");
    d.line = static_cast<int>(in.num<std::uint32_t>("descriptor line"));
    d.handle = in.str("descriptor handle");
    d.file = in.str("descriptor file");
    d.function = in.str("descriptor function");
    d.format = in.str("descriptor format");
    if (d.level >= Kel::kTraceLevels)
      throw DecodeError("descriptor " + std::to_string(id) + ": level " + std::to_string(d.level) +
                        " out of range");
    descs.emplace(id, std::move(d));
  }
  return descs;
}

std::vector<Record> decodeRingFile(Reader& in) {
  in.num<std::uint32_t>("reserved");
  ClockPair start, later;
  start.ticks = in.num<std::uint64_t>("start ticks");
  start.nanoseconds = in.num<std::uint64_t>("start nanoseconds");
  later.ticks = in.num<std::uint64_t>("later ticks");
  later.nanoseconds = in.num<std::uint64_t>("later nanoseconds");
  const auto capacity = in.num<std::uint32_t>("descriptor area bytes");
  const auto used = in.num<std::uint32_t>("descriptor bytes used");
  if (in.num<std::uint32_t>("slot size") != kSlotBytes)
    throw DecodeError("slot size in ring file does not match " + std::to_string(kSlotBytes));
  const auto slots = in.num<std::uint32_t>("slot count");
  if (used > capacity) throw DecodeError("descriptor bytes used exceed their area");
  const std::string_view area = in.bytes(capacity, "descriptor area");
  // The descriptors written in full: a count is not kept, the bytes used say where they end.
  Reader descriptors(area.substr(0, used));
  std::map<std::uint32_t, DescriptorText> descs;
  while (descriptors.left()) descs.merge(readDescriptors(descriptors, 1));
  if (in.left() != static_cast<std::uint64_t>(slots) * kSlotBytes)
    throw DecodeError("ring file holds " + std::to_string(in.left()) + " slot bytes, header says " +
                      std::to_string(static_cast<std::uint64_t>(slots) * kSlotBytes));
  const std::string_view raw = in.bytes(in.left(), "slots");
  const std::vector<unsigned char> stamped =
      inNanoseconds({reinterpret_cast<const unsigned char*>(raw.data()), raw.size()},
                    TickConverter(start, later));
  return decodeSlots(stamped.data(), slots, descs);
}

}  // namespace

std::vector<Record> decodeRecords(std::string_view bytes) {
  Reader in(bytes);
  if (in.bytes(sizeof kMagic, "magic") != std::string_view(kMagic, sizeof kMagic))
    throw DecodeError("not a Kwisp ring dump (bad magic)");
  const auto version = in.num<std::uint32_t>("version");
  if (version == kFileVersion) return decodeRingFile(in);
  if (version != kVersion)
    throw DecodeError("unsupported Kwisp dump version " + std::to_string(version));
  const auto n = in.num<std::uint32_t>("descriptor count");
  const auto descs = readDescriptors(in, n);
  if (in.num<std::uint32_t>("slot size") != kSlotBytes)
    throw DecodeError("slot size in dump does not match " + std::to_string(kSlotBytes));
  const auto slots = in.num<std::uint32_t>("slot count");
  if (in.left() != static_cast<std::uint64_t>(slots) * kSlotBytes)
    throw DecodeError("dump holds " + std::to_string(in.left()) + " slot bytes, header says " +
                      std::to_string(static_cast<std::uint64_t>(slots) * kSlotBytes));
  std::string_view raw = in.bytes(in.left(), "slots");
  return decodeSlots(reinterpret_cast<const unsigned char*>(raw.data()), slots, descs);
}

std::vector<std::string> decodeFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw DecodeError("cannot open " + path);
  std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  return decodeBytes(bytes);
}

void clear(std::size_t slots) {
  Ring& r = ring();
  const std::size_t n = slots ? slots : r.slots.size() / kSlotBytes;
  r.file = nullptr;
  r.heap.assign(n * kSlotBytes, 0);
  r.slots = r.heap;
  r.next = 0;
  r.cursor = r.slots.data();
  r.base = ClockPair::now();
}

void ringFileIs(const std::string& path) {
  Ring& r = ring();
  const std::size_t slotBytes = r.slots.size();
  auto file = std::make_unique<RingFile>();
  file->path = path;
  file->descriptorsAt = kFileHeaderBytes;
  file->bytes = kFileHeaderBytes + kFileDescriptorBytes + slotBytes;
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  void* base = MAP_FAILED;
  if (fd >= 0 && ftruncate(fd, static_cast<off_t>(file->bytes)) == 0)
    base = mmap(nullptr, file->bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int error = errno;
  if (fd >= 0) close(fd);
  if (base == MAP_FAILED)
    throw std::runtime_error("Kwisp: cannot make the trace ring file " + path + ": " +
                             std::strerror(error));
  file->base = static_cast<unsigned char*>(base);
  // The record clock's rate, measured now: the file decodes without this process.
  const ClockPair start = ClockPair::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(kFileRateMs));
  const ClockPair later = ClockPair::now();
  unsigned char* h = file->base;
  std::memcpy(h, kMagic, sizeof kMagic);
  put<std::uint32_t>(h + 8, kFileVersion);
  put<std::uint64_t>(h + 16, start.ticks);
  put<std::uint64_t>(h + 24, start.nanoseconds);
  put<std::uint64_t>(h + 32, later.ticks);
  put<std::uint64_t>(h + 40, later.nanoseconds);
  put<std::uint32_t>(h + 48, static_cast<std::uint32_t>(kFileDescriptorBytes));
  put<std::uint32_t>(h + 52, 0);  // descriptor bytes used
  put<std::uint32_t>(h + 56, static_cast<std::uint32_t>(kSlotBytes));
  put<std::uint32_t>(h + 60, static_cast<std::uint32_t>(slotBytes / kSlotBytes));
  std::lock_guard lock(r.descriptorMutex);
  for (const auto& [id, text] : r.descriptors) fileDescriptor(*file, id, text);
  // Records made so far stay behind: the file starts empty, its slots zero.
  r.file = std::move(file);
  r.slots =
      std::span<unsigned char>(r.file->base + kFileHeaderBytes + kFileDescriptorBytes, slotBytes);
  r.next = 0;
  r.cursor = r.slots.data();
  r.base = start;
}

std::size_t slotCount() { return ring().slots.size() / kSlotBytes; }
std::uint64_t recordCount() { return ring().next; }

}  // namespace Kwisp
