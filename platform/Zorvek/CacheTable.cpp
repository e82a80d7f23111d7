#include "Zorvek/CacheTable.h"

#include <algorithm>
#include <cstring>

#include "Kel/Assert.h"

namespace Zorvek {

KEL_DEFINE_ENTITY_TYPE(CacheTable, "Zorvek::CacheTable")

namespace {

constexpr unsigned kMinIndexBits = 4;

}  // namespace

CacheTable::CacheTable(AgentId agentId, const CacheTableIndex& tableIndex, U32 numEntries,
                       U32 entrySize)
    : agentId_(agentId),
      tableIndex_(tableIndex),
      numEntries_(numEntries),
      entrySize_(entrySize),
      initialEntryData_(entrySize, 0) {
  KEL_ASSERT(entrySize > 0);
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
  std::vector<Slot>().swap(slots_);
  std::vector<std::unique_ptr<Chunk>>().swap(chunks_);
  indexBits_ = 0;
  entries_ = 0;
  lastIndex_ = kNoEntry;
}

std::size_t CacheTable::memoryBytes() const {
  std::size_t bytes = sizeof(*this) + initialEntryData_.capacity() +
                      slots_.capacity() * sizeof(Slot) +
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

U32 CacheTable::allocate(DeviceOffset offset) {
  KEL_ASSERT(entries() < numEntries());
  // Keep the index at most 3/4 full, so that probe sequences stay short.
  if ((std::size_t{entries_} + 1) * 4 > slots_.size() * 3) growIndex();
  const U32 index = entries_++;
  const std::size_t chunk = index / kEntriesPerChunk;
  if (chunk == chunks_.size()) {
    chunks_.push_back(std::make_unique<Chunk>());
    chunks_.back()->data.reset(new unsigned char[std::size_t{chunkEntries(chunk)} * entrySize_]);
  }
  chunks_[chunk]->offsets[index % kEntriesPerChunk] = offset;
  slots_[slotFor(offset)] = Slot{offset, index};
  lastOffset_ = offset;
  lastIndex_ = index;
  return index;
}

U32 CacheTable::chunkEntries(std::size_t chunk) const {
  return static_cast<U32>(std::min<U64>(kEntriesPerChunk, numEntries_ - chunk * kEntriesPerChunk));
}

}  // namespace Zorvek
