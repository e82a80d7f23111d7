// Zorvek::CacheTable: the local shadow of one hardware table (one device, one table
// resource) that belongs to another agent's serializer. The agent that writes entries of
// such a table keeps their data here, so that it can serve shadow reads and replay its
// entries when the serializer restarts.
//
//   auto table = Kel::allocate<Zorvek::CacheTable>(agentId, CacheTableIndex(dev, rid), n, 16);
//   table->entryIs(offset, table->initialEntryData(), true);   // first use: allocate
//   table->writeEntryData(offset, data, true);                 // whole entry, eligible
//   table->readEntryData(offset, out, 16);
//
// Entries are allocated lazily, keyed by device offset, and numbered by first use (entry
// index 0, 1, ...); at most numEntries() offsets can be in use. An entry stays in use until a
// cold restart; its data pointer is stable for that long.
//
// Hardware-write eligibility: an entry becomes eligible when writeEntryData() stores data
// with hardware access allowed, that is when the data has been (or is about to be) written
// to the serializer; a later write with hardware access off keeps it eligible, since the
// serializer then still holds an earlier version that a replay must restore. Allocation
// alone (entryIs) never makes an entry eligible: its initial data comes from the table, not
// from the agent, and replaying it could overwrite bytes that another agent wrote.
//
// Restarts: doRestart(true) (cold: the serializer has just been asked to free everything
// this agent owned) forgets every entry, its data and its eligibility, and releases their
// memory; doRestart(false) (warm: the serializer kept its entries) keeps everything.
//
// Lookup: an entry whose offset is the table's first offset in use plus a multiple of the
// entry size (as a table's entries are laid out) is found by its position, one array read;
// other offsets (a table entered at offsets that are not one entry apart, or more entries
// apart than the table has) go to a hash index, which is then probed as well.
//
// Memory: the data of the entries lives in chunks of 64 entries (never more entries than
// the table has), so an entry costs entrySize bytes of data plus about 4.3 bytes of chunk
// bookkeeping (its offset and eligibility bit), plus 4 bytes per position from the first
// offset in use to the last (at most numEntries() positions; growing by doubling, so up to
// twice the span until the table is full), or 8 bytes per slot of the hash index, kept
// between 3/8 and 3/4 full (11 to 22 bytes), for an offset without a position. One entry
// in use of a table filled in place therefore costs entrySize + 8 to 13 bytes; a table also
// holds one zero-filled initial entry and, once used, at least one chunk.
//
// Used from the agent's activity thread only.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "Kel/Assert.h"
#include "Kel/Entity.h"
#include "ZorvekTypes/Types.h"

namespace Zorvek {

class KEL_EXPORT CacheTable : public Kel::Entity {
  KEL_ENTITY_TYPE(CacheTable)

 public:
  // The entry index of an offset that is not in use.
  static constexpr U32 kNoEntry = 0xFFFFFFFF;
  static constexpr U32 kEntriesPerChunk = 64;

  // An empty table of numEntries entries of entrySize bytes, owned by agentId. Asserts
  // "entrySize > 0".
  CacheTable(AgentId agentId, const CacheTableIndex& tableIndex, U32 numEntries, U32 entrySize);

  AgentId agentId() const { return agentId_; }
  const CacheTableIndex& tableIndex() const { return tableIndex_; }
  U32 numEntries() const { return numEntries_; }
  U32 entrySize() const { return entrySize_; }

  // The entries collection: entries() offsets are in use, numbered 0..entries()-1 in the
  // order of first use. A walk over it (a replay) reads each entry by its index, in memory
  // order, without a probe of the offset index. Each asserts "entryIndex < entries()".
  U32 entries() const { return entries_; }
  DeviceOffset entryOffset(U32 entryIndex) const;
  const unsigned char* entryData(U32 entryIndex) const;
  bool entryHwWriteEligible(U32 entryIndex) const;
  // The index of the entry at `offset`, or kNoEntry. Offsets one entry apart from the
  // table's first offset are found by position (an entry's offset is usually the table's
  // base plus a multiple of its size); any other offset by the hash index.
  U32 entryIndex(DeviceOffset offset) const {
    const U32 position = stridePosition(offset - firstOffset_);
    if (position < positions_.size()) {
      const U32 index = positions_[position];
      if (index != kNoEntry || slots_.empty()) return index;
    } else if (slots_.empty()) {
      return kNoEntry;
    }
    return slots_[slotFor(offset)].index;
  }

  // The entry's data (entrySize() bytes), or null when the offset is not in use.
  const unsigned char* entryDataPtr(DeviceOffset offset) const {
    const U32 index = entryIndex(offset);
    return index == kNoEntry ? nullptr : data(index);
  }
  unsigned char* entryDataPtr(DeviceOffset offset) {
    const U32 index = entryIndex(offset);
    return index == kNoEntry ? nullptr : data(index);
  }

  // Puts the entry at `offset` in use (if it is not) and fills it from `data` (entrySize()
  // bytes). Allocating the numEntries()+1-th offset asserts "entries() < numEntries()".
  // `hwAccessAllowed` is deliberately not used for eligibility: see the rule above.
  void entryIs(DeviceOffset offset, const unsigned char* data, bool hwAccessAllowed);
  // Copies a whole entry in; the entry must be in use (asserts "entryIndex( offset ) !=
  // kNoEntry"). With hwAccessAllowed the entry becomes hardware-write eligible.
  void writeEntryData(DeviceOffset offset, const unsigned char* data, bool hwAccessAllowed) {
    writeEntryDataAt(usedEntryIndex(offset), data, hwAccessAllowed);
  }
  // Copies min(size, entrySize()) bytes of the entry out; the entry must be in use.
  void readEntryData(DeviceOffset offset, unsigned char* data, U32 size) const {
    readEntryDataAt(usedEntryIndex(offset), data, size);
  }
  // The same on the entry of an index that entryIndex() gave: a shadow access looks its
  // entry up once, puts it in use when it is not, and copies. Every shadow access ends
  // here, so both copies are inline.
  void writeEntryDataAt(U32 entryIndex, const unsigned char* data, bool hwAccessAllowed) {
    KEL_ASSERT(data);
    copyBytes(this->data(entryIndex), data, entrySize_);
    if (hwAccessAllowed)
      chunks_[entryIndex / kEntriesPerChunk]->eligible |= U64{1} << (entryIndex % kEntriesPerChunk);
  }
  void readEntryDataAt(U32 entryIndex, unsigned char* data, U32 size) const {
    copyBytes(data, this->data(entryIndex), std::min(size, entrySize_));
  }
  // True when the entry is in use and eligible for a hardware write (a replay).
  bool entryOffsetHwWriteEligible(DeviceOffset offset) const;

  // Resets the restart state as described above, and counts the restart.
  void doRestart(bool coldStart);
  U32 restarts() const { return restarts_; }
  // The argument of the last doRestart (false before any).
  bool coldStart() const { return coldStart_; }

  // The table's initial entry: entrySize() zero bytes, for allocating entries.
  const unsigned char* initialEntryData() const { return initialEntryData_.data(); }

  // Bytes held by the table's own buffers (allocator overhead not included).
  std::size_t memoryBytes() const;

 protected:
  ~CacheTable() override;

 private:
  // One slot of the offset index (open addressing, linear probing); index kNoEntry: empty.
  struct Slot {
    DeviceOffset offset;
    U32 index;
  };
  struct Chunk {
    std::unique_ptr<unsigned char[]> data;
    U64 eligible = 0;  // bit i: entry i of the chunk is hardware-write eligible
    DeviceOffset offsets[kEntriesPerChunk];
  };

  // The position of an offset `delta` bytes past the first offset: delta / entrySize() when
  // entrySize() divides it, else a value above maxPosition_. The division is exact, so it is
  // a multiplication by the inverse of the size's odd factor and a rotation by its power of
  // two (a remainder shows as high bits after the rotation).
  U32 stridePosition(U32 delta) const { return std::rotr(delta * inverse_, shift_); }
  // Offsets of one table are usually multiples of a stride; the multiplicative hash
  // spreads them over the whole index.
  std::size_t homeSlot(DeviceOffset offset) const {
    return static_cast<std::size_t>((offset * kFibonacciMultiplier) >> (64 - indexBits_));
  }
  // The position of the slot that holds `offset`, or of the empty slot where it would go.
  std::size_t slotFor(DeviceOffset offset) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = homeSlot(offset);; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.index == kNoEntry || s.offset == offset) return i;
    }
  }
  void growIndex();
  // Puts `index` at the position of `offset`, extending the positions to cover it; false
  // when the offset is not one entry apart from the first offset or lies too far away.
  bool placeByPosition(DeviceOffset offset, U32 index);
  U32 allocate(DeviceOffset offset);
  // The index of an entry that must be in use.
  U32 usedEntryIndex(DeviceOffset offset) const {
    const U32 index = entryIndex(offset);
    KEL_ASSERT_TEXT(index != kNoEntry, "entryIndex( offset ) != kNoEntry");
    return index;
  }
  unsigned char* data(U32 index) const {
    return chunks_[index / kEntriesPerChunk]->data.get() +
           std::size_t{index % kEntriesPerChunk} * entrySize_;
  }
  U32 chunkEntries(std::size_t chunk) const;
  // memcpy, with the copies of entries of 4 to 16 bytes (most entries) inline: two copies
  // of half the largest power of two, overlapping when the size is not one.
  static void copyBytes(unsigned char* to, const unsigned char* from, U32 size) {
    if (size >= 8 && size <= 16) {
      std::memcpy(to, from, 8);
      std::memcpy(to + size - 8, from + size - 8, 8);
    } else if (size >= 4 && size < 8) {
      std::memcpy(to, from, 4);
      std::memcpy(to + size - 4, from + size - 4, 4);
    } else {
      std::memcpy(to, from, size);
    }
  }

  static constexpr U64 kFibonacciMultiplier = 0x9E3779B97F4A7C15ull;

  AgentId agentId_;
  CacheTableIndex tableIndex_;
  U32 numEntries_;
  U32 entrySize_;
  U32 entries_ = 0;
  U32 restarts_ = 0;
  bool coldStart_ = false;
  unsigned indexBits_ = 0;  // the hash index has 2^indexBits_ slots (none while empty)
  U32 hashed_ = 0;          // entries in the hash index
  // The positions: the entry index at each offset firstOffset_ + k * entrySize_ (k below
  // positions_.size(), which is at most maxPositions_), kNoEntry where none is in use.
  DeviceOffset firstOffset_ = 0;
  std::vector<U32> positions_;
  U32 inverse_;      // the inverse of entrySize_'s odd factor, modulo 2^32
  unsigned shift_;   // entrySize_'s power of two
  U32 maxPosition_;  // the largest position an offset can have: (2^32 - 1) / entrySize_
  U32 maxPositions_;
  // The hash index, for offsets that have no position.
  std::vector<Slot> slots_;
  std::vector<std::unique_ptr<Chunk>> chunks_;
  std::vector<unsigned char> initialEntryData_;
};

}  // namespace Zorvek
