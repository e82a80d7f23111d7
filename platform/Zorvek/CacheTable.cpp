#include "Zorvek/CacheTable.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "Kel/Assert.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(CacheTable, "Zorvek::CacheTable")

namespace {

constexpr unsigned kMinIndexBits = 4;

// The inverse of an odd number modulo 2^32 (Newton's iteration; each step doubles the bits
// that are right, from the three of x * x = 1 modulo 8).
U32 oddInverse(U32 odd) {
  U32 inverse = odd;
  for (int i = 0; i < 4; ++i) inverse *= 2 - odd * inverse;
  return inverse;
}

}  // namespace

CacheTable::CacheTable(AgentId agentId, const CacheTableIndex& tableIndex, U32 numEntries,
                       U32 entrySize)
    : agentId_(agentId),
      tableIndex_(tableIndex),
      numEntries_(numEntries),
      entrySize_(entrySize),
      initialEntryData_(entrySize, 0) {
  KEL_ASSERT(entrySize > 0);
  shift_ = static_cast<unsigned>(std::countr_zero(entrySize));
  inverse_ = oddInverse(entrySize >> shift_);
  maxPosition_ = 0xFFFFFFFFu / entrySize;
  // A position at or above maxPosition_ + 1 would be taken for a remainder.
  maxPositions_ = std::min(numEntries, maxPosition_);
}

CacheTable::~CacheTable() = default;

DeviceOffset CacheTable::entryOffset(U32 entryIndex) const {
  KEL_ASSERT(entryIndex < entries());
  return chunks_[entryIndex / kEntriesPerChunk]->offsets[entryIndex % kEntriesPerChunk];
}

const unsigned char* CacheTable::entryData(U32 entryIndex) const {
  KEL_ASSERT(entryIndex < entries());
  return data(entryIndex);
}

bool CacheTable::entryHwWriteEligible(U32 entryIndex) const {
  KEL_ASSERT(entryIndex < entries());
  return (chunks_[entryIndex / kEntriesPerChunk]->eligible >> (entryIndex % kEntriesPerChunk)) & 1u;
}

void CacheTable::entryIs(DeviceOffset offset, const unsigned char* data, bool) {
  KEL_ASSERT(data);
  U32 index = entryIndex(offset);
  if (index == kNoEntry) index = allocate(offset);
  std::memcpy(this->data(index), data, entrySize_);
}

bool CacheTable::entryOffsetHwWriteEligible(DeviceOffset offset) const {
  const U32 index = entryIndex(offset);
  return index != kNoEntry && entryHwWriteEligible(index);
}

void CacheTable::doRestart(bool coldStart) {
  ++restarts_;
  coldStart_ = coldStart;
  if (!coldStart) return;
  // Swapping with empty vectors releases the memory; clear() would keep the capacity.
  std::vector<U32>().swap(positions_);
  std::vector<Slot>().swap(slots_);
  std::vector<std::unique_ptr<Chunk>>().swap(chunks_);
  firstOffset_ = 0;
  indexBits_ = 0;
  hashed_ = 0;
  entries_ = 0;
}

std::size_t CacheTable::memoryBytes() const {
  std::size_t bytes = sizeof(*this) + initialEntryData_.capacity() +
                      positions_.capacity() * sizeof(U32) + slots_.capacity() * sizeof(Slot) +
                      chunks_.capacity() * sizeof(std::unique_ptr<Chunk>);
  for (std::size_t c = 0; c < chunks_.size(); ++c)
    bytes += sizeof(Chunk) + std::size_t{chunkEntries(c)} * entrySize_;
  return bytes;
}

void CacheTable::growIndex() {
  indexBits_ = std::max(kMinIndexBits, indexBits_ + 1);
  std::vector<Slot> old(std::size_t{1} << indexBits_, Slot{0, kNoEntry});
  old.swap(slots_);
  for (const Slot& s : old)
    if (s.index != kNoEntry) slots_[slotFor(s.offset)] = s;
}

bool CacheTable::placeByPosition(DeviceOffset offset, U32 index) {
  const std::size_t size = positions_.size();
  if (size == 0) firstOffset_ = offset;
  U32 position = stridePosition(offset - firstOffset_);
  if (position <= maxPosition_ && position < size) {
    positions_[position] = index;
    return true;
  }
  // The positions grow at least by doubling, up to the table's entries (and, at the front,
  // down to offset 0), so that a table filled in any order moves each position a few times.
  std::size_t front = 0;
  std::size_t grown;
  if (position <= maxPosition_) {
    if (position >= maxPositions_) return false;
    grown = std::min<std::size_t>(std::max<std::size_t>(position + 1, 2 * size), maxPositions_);
  } else {
    // Below the first offset, or not one entry apart from it.
    const U32 below = stridePosition(firstOffset_ - offset);
    if (below > maxPosition_ || below > firstOffset_ / entrySize_) return false;
    front = std::min<std::size_t>(
        {std::max<std::size_t>(below, size), maxPositions_ - size, firstOffset_ / entrySize_});
    if (front < below) return false;
    grown = size + front;
    position = static_cast<U32>(front - below);
  }
  std::vector<U32> wider;
  wider.reserve(grown);  // exactly: a full table's positions take 4 bytes an entry
  wider.assign(front, kNoEntry);
  wider.insert(wider.end(), positions_.begin(), positions_.end());
  wider.resize(grown, kNoEntry);
  positions_.swap(wider);
  firstOffset_ -= static_cast<DeviceOffset>(front * entrySize_);
  positions_[position] = index;
  return true;
}

U32 CacheTable::allocate(DeviceOffset offset) {
  KEL_ASSERT(entries() < numEntries());
  const U32 index = entries_++;
  const std::size_t chunk = index / kEntriesPerChunk;
  if (chunk == chunks_.size()) {
    chunks_.push_back(std::make_unique<Chunk>());
    chunks_.back()->data.reset(new unsigned char[std::size_t{chunkEntries(chunk)} * entrySize_]);
  }
  chunks_[chunk]->offsets[index % kEntriesPerChunk] = offset;
  if (placeByPosition(offset, index)) return index;
  // Keep the hash index at most 3/4 full, so that probe sequences stay short.
  hashed_ += 1;
  if (std::size_t{hashed_} * 4 > slots_.size() * 3) growIndex();
  slots_[slotFor(offset)] = Slot{offset, index};
  return index;
}

U32 CacheTable::chunkEntries(std::size_t chunk) const {
  return static_cast<U32>(std::min<U64>(kEntriesPerChunk, numEntries_ - chunk * kEntriesPerChunk));
}

}  // namespace Zorvek
