// Kwisp: the per-process ring buffer of binary trace records.
//
// Each trace point owns one Descriptor, built once (handle, level, file, line, function and
// a format of fixed text with "%x" for a hexadecimal and "%s" for any other value). A record
// stores only the descriptor id, a timestamp and the arguments in binary; text is made when
// the ring is decoded, in memory or from a file written by dump().
//
// A record is stamped with the processor's time-stamp counter where there is one (x86): it
// costs a fraction of a steady-clock read, and recording must stay cheap enough to leave on.
// The ring remembers a steady-clock reading and the counter at the same moment; decoding and
// dumping take a second pair and turn every stamp into steady-clock nanoseconds with the
// rate measured between the two, so dumps and decoded lines carry nanoseconds as before.
//
// Ring slot layout (kSlotBytes = 128 bytes, little-endian, slot = sequence % slot count):
//   0  u64  sequence number + 1 (0: empty slot)
//   8  u64  timestamp: in the ring, ticks of the record clock; in a dump and when decoded,
//            nanoseconds of the steady clock
//   16 u32  descriptor id
//   20 u8   argument count
//   21 u8   flags (bit 0: arguments truncated to fit the slot)
//   22 u16  payload bytes used
//   24      payload, per argument: u8 tag, then 'u'/'i'/'b': u64 value; 's': u8 length, bytes
//
// Dump file layout:
//   "KWISPRNG" magic, u32 version (1), u32 descriptor count,
//   per descriptor: u32 id, u8 level, u32 line, then handle, file, function and format, each
//   as u16 length + bytes;
//   u32 slot size (128), u32 slot count, then the slots as above.
//
// Records are written from the agent's activity thread only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/Export.h"
#include "Kel/Trace.h"

namespace Kwisp {

constexpr std::size_t kSlotBytes = 128;
constexpr std::size_t kHeaderBytes = 24;
constexpr std::size_t kDefaultSlots = 8192;

enum class Tag : std::uint8_t {
  unsignedInt = 'u',
  signedInt = 'i',
  boolean = 'b',
  string = 's',
};

// One argument of a record, as handed to record() (a view: strings are not copied).
struct Value {
  Tag tag = Tag::unsignedInt;
  std::uint64_t bits = 0;
  std::string_view text;
};

class KEL_EXPORT Descriptor {
 public:
  Descriptor(const Kel::TraceHandle& handle, unsigned level, const char* file, int line,
             const char* function, const char* format);
  std::uint32_t id() const { return id_; }
  const Kel::TraceHandle& handle() const { return *handle_; }
  unsigned level() const { return level_; }
  const char* file() const { return file_; }
  int line() const { return line_; }
  const char* function() const { return function_; }
  const char* format() const { return format_; }

 private:
  std::uint32_t id_;
  const Kel::TraceHandle* handle_;
  unsigned level_;
  const char* file_;
  int line_;
  const char* function_;
  const char* format_;
};

class KEL_EXPORT DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The clock that stamps records: the time-stamp counter where there is one, else the steady
// clock in nanoseconds.
KEL_EXPORT std::uint64_t clockTicks();

// Writes one record straight into its slot: making the writer claims the next slot (the
// oldest record goes when the ring is full) and stamps it; each argument is encoded as it is
// added; the header is completed, and the record published, when the writer goes. From the
// first argument that does not fit on, arguments are dropped and the record is flagged as
// truncated; a string is cut to the room left (flagged too). Every argument takes at least
// two bytes, so a slot never holds more than its one-byte argument count can say.
namespace detail {
// The next slot, claimed and stamped for a record of descriptor `id`, and its sequence number.
struct Claim {
  unsigned char* slot;
  std::uint64_t sequence;
};
KEL_EXPORT Claim claimSlot(std::uint32_t id);
}  // namespace detail

class RecordWriter {
 public:
  // Inline, so that the writer's state stays in registers while the arguments go in.
  explicit RecordWriter(const Descriptor& d) {
    const detail::Claim c = detail::claimSlot(d.id());
    slot_ = c.slot;
    sequence_ = c.sequence;
    p_ = slot_ + kHeaderBytes;
  }
  ~RecordWriter() {
    slot_[20] = argc_;
    slot_[21] = flags_;
    const auto used = static_cast<std::uint16_t>(p_ - (slot_ + kHeaderBytes));
    std::memcpy(slot_ + 22, &used, sizeof used);
    const std::uint64_t published = sequence_ + 1;
    std::memcpy(slot_, &published, sizeof published);
  }
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  void number(Tag tag, std::uint64_t bits) {
    if (full_ || slot_ + kSlotBytes - p_ < 9) return drop();
    *p_++ = static_cast<unsigned char>(tag);
    std::memcpy(p_, &bits, sizeof bits);
    p_ += sizeof bits;
    ++argc_;
  }
  void text(std::string_view s) {
    if (full_ || slot_ + kSlotBytes - p_ < 2) return drop();
    const std::size_t room = std::min<std::size_t>(slot_ + kSlotBytes - p_ - 2, 255);
    const std::size_t len = std::min(s.size(), room);
    if (len < s.size()) flags_ |= kTruncated;
    *p_++ = static_cast<unsigned char>(Tag::string);
    *p_++ = static_cast<unsigned char>(len);
    std::memcpy(p_, s.data(), len);
    p_ += len;
    ++argc_;
  }
  void add(const Value& v) { v.tag == Tag::string ? text(v.text) : number(v.tag, v.bits); }

 private:
  static constexpr unsigned char kTruncated = 1;
  void drop() {
    full_ = true;
    flags_ |= kTruncated;
  }
  unsigned char* slot_;
  unsigned char* p_;
  std::uint64_t sequence_;
  unsigned char argc_ = 0;
  unsigned char flags_ = 0;
  bool full_ = false;
};

// Appends one record of these values to the ring.
KEL_EXPORT void record(const Descriptor& d, const Value* values, std::size_t count);

// The text of a format with its arguments: "%x" prints an integer in hexadecimal, "%s" an
// integer in decimal, a bool as True/False, a string as is; "%%" is a percent sign.
KEL_EXPORT std::string render(std::string_view format, const Value* values, std::size_t count);

// One decoded record: its trace point's texts, each argument as "%s" renders it, and the
// format rendered with its arguments.
struct Record {
  std::uint64_t sequence = 0;
  std::uint64_t nanoseconds = 0;  // steady clock
  std::string handle;
  unsigned level = 0;
  std::string file;  // without its directories
  int line = 0;
  std::string function;
  std::string format;
  std::vector<std::string> arguments;
  std::string text;
  bool truncated = false;  // arguments were dropped or cut to fit the slot
};

// The ring's records, oldest first.
KEL_EXPORT std::vector<Record> records();
// A record as one line:
//   "<sequence> <seconds>.<nanoseconds> <handle>/<level> <file>:<line> <function>: <text>"
// followed by " [truncated]" for a truncated record.
KEL_EXPORT std::string lineOf(const Record& r);
// The ring's records, oldest first, one line each.
KEL_EXPORT std::vector<std::string> decode();
// Writes the ring and its descriptors to a file; throws std::runtime_error on I/O failure.
KEL_EXPORT void dump(const std::string& path);
// Moves the ring into the file at `path` (created, or truncated), mapped shared, so that its
// records survive the process however it ends, SIGKILL included: decodeFile() reads the file
// as it is, with every record the process completed. The file holds the descriptors, each
// written as it is built, and the record clock's rate, measured as the ring moves (20 ms).
// Records made before the move stay behind; clear() moves the ring back to memory. Throws
// std::runtime_error naming the file when it cannot be made.
KEL_EXPORT void ringFileIs(const std::string& path);
// Decodes a dumped ring, or a ring file; throws DecodeError naming what is wrong and where.
KEL_EXPORT std::vector<std::string> decodeFile(const std::string& path);
KEL_EXPORT std::vector<std::string> decodeBytes(std::string_view bytes);
KEL_EXPORT std::vector<Record> decodeRecords(std::string_view bytes);

// Empties the ring; resizes it to `slots` slots when given (at least 1).
KEL_EXPORT void clear(std::size_t slots = 0);
KEL_EXPORT std::size_t slotCount();
// Number of records written since the last clear().
KEL_EXPORT std::uint64_t recordCount();

}  // namespace Kwisp
