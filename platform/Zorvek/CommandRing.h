// Zorvek::CommandRing: the queue between a QueueRequester and a serializer that runs in
// another process. A POSIX shared-memory segment holds a bounded single-producer,
// single-consumer ring of commands, each a CommandHeader followed by copies of its data and
// mask bytes, so that the caller may reuse its buffers as soon as the command is enqueued.
// The producer (the requester's agent) creates and owns the segment; the serializer opens it
// as the consumer, and every start of a consumer is a new generation of the ring.
//
//   CommandRingProducer ring("/zorvek-42-a7-s1-Queue", 64 * 1024, 256);
//   ring.tryEnqueue(header, data, size, mask, mask ? size : 0);   // false: full, see waits
//   ring.waitForIndex(header.cmdIndex);   // RingWait::done_ once the serializer ran it
//   CommandRingConsumer served("/zorvek-42-a7-s1-Queue");   // in the serializer: generation+1
//   RingCommand cmd;
//   while (served.waitForCommand(10ms) == RingWait::done_ && served.front(cmd)) {
//     bool ok = ...run cmd...; served.commandExecuted(ok);
//   }
//
// No mutex or condition variable lives in the segment: a process that dies holding one leaves
// it locked for ever. The indices are 64-bit atomics, each written by one side only; a side
// that has nothing to do spins briefly, then sleeps on a futex word of the segment that the
// other side wakes when it sees the sleeper's flag. Every sleep has a time limit, so that a
// waiter notices a consumer that died or was replaced without anybody waking it.
//
// Waking the serializer: its ring thread sleeps in waitForCommand() on the futex the producer
// wakes when it publishes a command; the call also returns at the time limit it was given
// and when another thread calls stop(), so a serializer turns its activity loop between calls
// (no eventfd: the producer never makes a system call while the consumer keeps up).
//
// Read data comes back through a response area beside the ring, not through a second ring:
// a requester waits for each read at once (it needs the bytes), so one read's data is in
// flight at a time, and a single area can never fill up and block the serializer on a
// producer that is itself waiting for the serializer. The area keeps the data of the last
// read that ran, tagged with its command index, until the next read runs: collect it
// (readData) before enqueuing another read.
//
// When the consumer dies. The producer's waits (waitForIndex, waitForSpace) return
// consumerDead_ as soon as the consumer's process is gone, and generationChanged_ once a new
// consumer started (also when it started before the wait: the producer's accepted generation
// differs until acceptGeneration()). A new generation starts cold: it discards every command
// still in the ring (head := tail; the first generation keeps what was published before it),
// publishes the highest index it discarded (a wait for one of them ends with generationChanged_,
// whichever generation the producer accepted) and runs only those published after it started.
// Commands up to lastExecutedIndex() ran; what becomes of the others:
//   - write, blockingWrite: never ran, or ran in part when the consumer died in the middle of
//     one. The requester treats them as lost: its remote DAL replays its shadow when the
//     serializer's restart count changes, which writes every entry it shadows again. A
//     blockingWrite's wait ends with the status instead of done; the write is not retried.
//   - read: its data never arrives (readData returns false); the read fails.
//   - bulkWrite: lost like a write, but the replay restores only the entries the shadow kept
//     (the first of each bulk write).
//   - bulkRead: like a read: its entries come back through the response area, and the
//     requester copies them to the memory at physAddr only once they arrived; when they never
//     do, the bulk read fails and that memory is left as it was.
//   - free: dropped. The new generation wiped its tables, so the entries are free anyway.
// A consumer killed at any step leaves the ring consistent for the next generation: the
// consumer writes only its own words (head, the executed, failed and discarded indices, the
// response area, its flag),
// and the next one takes the head from the producer's tail.
//
// Segment layout (native byte order; offsets in bytes):
//   0     u64 magic "ZRVKRING", u32 layout version, u32 ring bytes (a power of two),
//         u32 response area bytes, u32 reserved
//   64    producer's line: u64 tail (ring bytes ever published)
//   128   consumer's line: u64 head (ring bytes ever consumed), u64 lastExecutedIndex,
//         u64 responseIndex (the read whose data the response area holds),
//         u64 lastFailedIndex, u64 failedCmds, u64 lastDiscardedIndex (the highest index a
//         new generation discarded), u64 executedCmds
//   192   u32 commandSeq (futex the consumer sleeps on), u32 consumerWaiting
//   256   u32 progressSeq (futex the producer sleeps on), u32 producerWaiting
//   320   u32 generation, s32 consumerPid (0 before the first consumer)
//   384   the ring, then the response area
// Each side writes its index for every command, and each side reads the other's sleeper
// flag for every command: the flags and futex words, written only around a sleep, keep off
// the indices' lines so that those reads stay in the reader's cache.
// A record starts at a multiple of 16 bytes of the ring and takes a multiple of 16 bytes:
//   u32 record bytes, u32 kind (1 command, 2 padding up to the ring's end), u32 data bytes,
//   u32 mask bytes, the CommandHeader (plain fields), the data bytes, the mask bytes.
// A record never wraps: one that does not fit before the ring's end follows a padding record.
//
// Each side is used from one thread (the consumer's stop() from any thread).
#pragma once

#include <sys/types.h>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>

#include "Kel/Export.h"
#include "Zorvek/RequesterQueue.h"

namespace Zorvek {

// A segment that cannot be created, opened or used as a ring; the text names the segment.
class KEL_EXPORT CommandRingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// How a wait ended.
enum class RingWait : U8 {
  done_ = 0,
  // A consumer started since the producer's accepted generation.
  generationChanged_ = 1,
  // The consumer's process is gone (or no consumer ever started).
  consumerDead_ = 2,
  // Consumer only: stop() was called.
  stopped_ = 3,
  // Consumer only: no command came within the time given.
  timedOut_ = 4,
};
KEL_EXPORT const char* ringWaitName(RingWait wait);

// A command as the consumer sees it; the bytes stay in the ring until commandExecuted().
struct RingCommand {
  CommandHeader header;
  std::span<const U8> data;
  std::span<const U8> dataMask;
};

struct CommandRingLayout;

// The mapping of a ring segment, as both sides see it.
class KEL_EXPORT CommandRing {
 public:
  CommandRing(const CommandRing&) = delete;
  CommandRing& operator=(const CommandRing&) = delete;

  const std::string& name() const { return name_; }
  // Bytes of the ring, and of the response area.
  U32 capacity() const { return capacity_; }
  U32 responseCapacity() const { return responseCapacity_; }
  // The consumer's generation (0 before the first consumer started) and process.
  U32 generation() const;
  pid_t consumerPid() const;
  // The command index of the last command the consumer executed (0 before the first).
  U64 lastExecutedIndex() const;
  // The command index of the last command that failed (0 before the first), and the
  // numbers of commands executed (failed or not) and failed, over every generation.
  U64 lastFailedIndex() const;
  U64 executedCmds() const;
  U64 failedCmds() const;
  // Whether the producer sleeps in one of its waits.
  bool producerWaiting() const;

  // The ring bytes that a command with `payloadBytes` bytes of data and mask takes.
  static U32 recordBytes(U32 payloadBytes);

  // A mapped segment, which the ring unmaps when it goes.
  struct Mapping {
    void* base;
    std::size_t bytes;
  };

 protected:
  CommandRing(std::string name, Mapping mapping);
  ~CommandRing();

  CommandRingLayout& layout() const { return *layout_; }
  U8* ring() const { return ring_; }
  U8* responseArea() const { return ring_ + capacity_; }
  // Where the ring byte of running offset `offset` is.
  U32 ringOffset(U64 offset) const { return static_cast<U32>(offset & (capacity_ - 1)); }
  // Whether this process passes the other side's sleeper barriers (see CommandRing.cpp).
  bool asymmetricBarriers() const { return asymmetricBarriers_; }

 private:
  std::string name_;
  CommandRingLayout* layout_;
  std::size_t mappedBytes_;
  // Copies of the segment's words that never change, and asymmetricBarriers().
  U8* ring_;
  U32 capacity_;
  U32 responseCapacity_;
  bool asymmetricBarriers_;
};

// The requester's side: creates the segment and owns it.
class KEL_EXPORT CommandRingProducer : public CommandRing {
 public:
  // Creates the segment `name` (an shm_open name, "/..."), replacing a leftover of that name,
  // with a ring of `capacity` bytes rounded up to a power of two (at least 256) and a
  // response area of `responseBytes` bytes (the largest read). Throws CommandRingError.
  CommandRingProducer(std::string name, U32 capacity, U32 responseBytes);
  // Unlinks the segment unless unlink() did.
  ~CommandRingProducer();
  // Removes the segment's name: a consumer can no longer open it; mappings stay valid.
  void unlink();

  // Appends a command with copies of `dataBytes` bytes of `data` and `maskBytes` bytes of
  // `mask` (either may be null with 0 bytes) and publishes it. Returns false, changing
  // nothing, when the ring has no room for it now. Asserts "a record takes at most half the
  // ring" and, for a read or bulk read, "a read fits in the response area".
  bool tryEnqueue(const CommandHeader& header, const void* data, U32 dataBytes, const void* mask,
                  U32 maskBytes);
  // Waits until a command with `payloadBytes` bytes of data and mask fits.
  RingWait waitForSpace(U32 payloadBytes);
  // Waits until the consumer executed the command of index `index`; generationChanged_ also
  // when a new generation discarded it.
  RingWait waitForIndex(U64 index);
  // Copies the data of the read of index `index` to `dest` (`size` bytes at most) and
  // returns true when the response area holds it (the read ran and succeeded).
  bool readData(U64 index, void* dest, U32 size) const;

  // The generation the producer works with: until it accepts a new consumer's generation,
  // every wait ends with generationChanged_. Returns the generation accepted.
  U32 acceptGeneration();
  U32 acceptedGeneration() const { return acceptedGeneration_; }
  // Whether the consumer's process is alive. A consumer that exited but was not yet reaped
  // (a zombie, which still answers kill(pid, 0)) counts as dead.
  bool consumerAlive();

 private:
  // Sleeps until `ready()` holds, the generation changes or the consumer dies.
  template <class Ready>
  RingWait waitFor(Ready ready);
  U64 freeBytes() const { return capacity() - (tail_ - cachedHead_); }

  U64 tail_ = 0;
  U64 cachedHead_ = 0;
  U32 acceptedGeneration_ = 0;
  bool linked_ = true;
  // A descriptor of the consumer's process (pidfd), opened once per consumer pid.
  pid_t watchedPid_ = 0;
  int pidFd_ = -1;
};

// The serializer's side: opens an existing segment and starts a new generation.
class KEL_EXPORT CommandRingConsumer : public CommandRing {
 public:
  // Opens `name`, checks its magic and layout version, then starts a new generation: bumps
  // the generation, publishes this process as the consumer, discards every command in the
  // ring and wakes the producer. Throws CommandRingError naming the segment.
  explicit CommandRingConsumer(const std::string& name);

  // Waits until a command is in the ring, stop() is called or `timeout` passes (counted from
  // the end of a brief spin, which is all the wait takes when the producer keeps it busy).
  RingWait waitForCommand(std::chrono::milliseconds timeout);
  // Makes waitForCommand return stopped_, now and later. Any thread.
  void stop();

  // The next command, left in the ring; false when there is none.
  bool front(RingCommand& cmd);
  // For the read or bulk read at the front: its data, published with its completion.
  // Asserts "size <= responseCapacity()".
  void readDataIs(const void* data, U32 size);
  // Takes the front command out of the ring and publishes its index as executed, and as
  // failed unless it succeeded.
  void commandExecuted(bool succeeded);

 private:
  // The highest command index of the records in [from, to) of the ring.
  U64 lastIndexBetween(U64 from, U64 to) const;

  U64 head_ = 0;
  U64 cachedTail_ = 0;
  // The front record's bytes and index, once front() found it.
  U32 frontBytes_ = 0;
  U64 frontIndex_ = 0;
  std::atomic<bool> stop_{false};
};

}  // namespace Zorvek
