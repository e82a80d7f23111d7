// The decoder of a dumped Kwisp trace ring, fed corrupted dumps (the seed corpus holds a real
// one). Rejections are Kwisp::DecodeError only; a dump that decodes gives one line per
// record, never more than the dump has slots.
#include "Kwisp/Kwisp.h"
#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  try {
    const std::vector<std::string> lines = Kwisp::decodeBytes(fuzz::text(data, size));
    fuzz::require(lines.size() <= size / Kwisp::kSlotBytes, "at most one line per slot");
  } catch (const Kwisp::DecodeError&) {
  }
  return 0;
}
