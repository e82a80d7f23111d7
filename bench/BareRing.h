// The bare ring that the benchmarks of processes measure against: a single-producer,
// single-consumer ring in shared memory whose only shared words are a tail the producer
// publishes and a head the consumer publishes (both counted in commands), each on its own
// cache line, and fixed-size records, each a command header followed by its 16 data bytes,
// laid out as many to a ring as a CommandRing's records of the same command. Each side keeps
// a copy of the other's index and reads it again only when the copy says full (or empty).
// No framing, no generation, no futex, no executed index: what any queue between two
// processes pays.
//
//   auto* bare = new (sharedMemory) BareRing();       // mapped before the fork
//   child:  bareConsume(*bare, n);                    // returns the sum of what it took
//   parent: bareProduce(*bare, first, n);             // returns once the consumer took all
#pragma once

#include <atomic>
#include <cstring>

#include "Zorvek/CommandRing.h"

namespace Zorvek::bench {

constexpr U32 kRingBytes = 64 * 1024;
constexpr U32 kData = 16;

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

inline const U32 kSlotBytes = CommandRing::recordBytes(kData);
inline const U32 kSlots = kRingBytes / kSlotBytes;

struct BareRing {
  alignas(64) std::atomic<U64> tail{0};
  alignas(64) std::atomic<U64> head{0};
  alignas(64) U8 records[kRingBytes];
};

// Command n: a 16-byte write of n, twice, at an offset that moves with n.
inline void makeCommand(CommandHeader& h, U8* data, U64 n) {
  h.cmdIndex = n;
  h.offset = U32(n * kData);
  std::memcpy(data, &n, 8);
  std::memcpy(data + 8, &n, 8);
}

// What a consumer adds up for a command: its index and its data, 3n for command n.
inline U64 sumOf(const CommandHeader& h, const U8* data) {
  U64 a = 0, b = 0;
  std::memcpy(&a, data, 8);
  std::memcpy(&b, data + 8, 8);
  return h.cmdIndex + a + b;
}

inline CommandHeader firstHeader() {
  return singleCommand(Command::writeCmd_, oneDeviceMask(DeviceId(0)),
                       PhysicalResourceId(ResourceType::tableResource_, 7), 0, kData);
}

inline void bareProduce(BareRing& bare, U64 first, U64 count) {
  CommandHeader h = firstHeader();
  U8 data[kData];
  U64 tail = bare.tail.load(std::memory_order_relaxed);
  U64 head = bare.head.load(std::memory_order_acquire);
  U32 at = U32(tail % kSlots) * kSlotBytes;
  for (U64 n = first; n < first + count; ++n) {
    makeCommand(h, data, n);
    while (tail - head == kSlots) {
      cpuRelax();
      head = bare.head.load(std::memory_order_acquire);
    }
    std::memcpy(bare.records + at, &h, sizeof h);
    std::memcpy(bare.records + at + sizeof h, data, kData);
    at = at + kSlotBytes == kSlots * kSlotBytes ? 0 : at + kSlotBytes;
    bare.tail.store(++tail, std::memory_order_release);
  }
  while (bare.head.load(std::memory_order_acquire) != tail) cpuRelax();
}

inline U64 bareConsume(BareRing& bare, U64 count) {
  U64 head = bare.head.load(std::memory_order_relaxed);
  U64 tail = head;
  U32 at = U32(head % kSlots) * kSlotBytes;
  U64 sum = 0;
  CommandHeader h;
  for (U64 n = 0; n < count; ++n) {
    while (tail == head) {
      cpuRelax();
      tail = bare.tail.load(std::memory_order_acquire);
    }
    std::memcpy(&h, bare.records + at, sizeof h);
    sum += sumOf(h, bare.records + at + sizeof h);
    at = at + kSlotBytes == kSlots * kSlotBytes ? 0 : at + kSlotBytes;
    bare.head.store(++head, std::memory_order_release);
  }
  return sum;
}

}  // namespace Zorvek::bench
