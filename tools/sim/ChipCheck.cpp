#include "ChipCheck.h"

#include <algorithm>

namespace simtool {

namespace {

// The mask byte of byte `i`: every bit without a mask, none beyond a mask's end.
U8 maskByte(const std::vector<U8>* mask, std::size_t i) {
  if (!mask) return 0xff;
  return i < mask->size() ? (*mask)[i] : 0;
}

bool matches(const WrittenEntry& w, std::span<const U8> chip) {
  for (std::size_t i = 0; i < w.data.size(); ++i) {
    const U8 m = maskByte(w.dataMask, i);
    if ((chip[i] & m) != (w.data[i] & m)) return false;
  }
  return true;
}

}  // namespace

ChipCheck checkChip(const sim::SimSwitch& sw, const WrittenEntries& written) {
  ChipCheck check;
  for (const auto& [key, w] : written) {
    ++check.entries;
    const std::span<const U8> chip = sw.chip(w.devId)->entry(w.layout->id, w.entry);
    if (matches(w, chip)) continue;
    const sim::SerializerDef* owner = sw.topology().owner(w.layout->baseId.id());
    check.mismatches.push_back({w.devId, w.layout->name, w.entry, key.second, w.data,
                                std::vector<U8>(chip.begin(), chip.end()),
                                w.dataMask ? *w.dataMask : std::vector<U8>(),
                                owner ? owner->name : std::string()});
  }
  return check;
}

U64 ChipCheck::lost(const std::string& serializer) const {
  return static_cast<U64>(
      std::count_if(mismatches.begin(), mismatches.end(),
                    [&](const Mismatch& m) { return m.serializer == serializer; }));
}

}  // namespace simtool
