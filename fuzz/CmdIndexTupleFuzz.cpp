// The text form of Zorvek::CmdIndexTuple. Rejections are Kel::ParseError only; an accepted
// text gives a tuple whose printed form parses back, whole, to an equal tuple.
#include <optional>

#include "Kel/Parse.h"
#include "Zorvek/DemuxDal.h"
#include "fuzz/Fuzz.h"

namespace {

// The tuple at the start of `text` and the characters it took, or nothing when rejected.
std::optional<std::pair<Zorvek::CmdIndexTuple, std::size_t>> parse(const Kel::String& text) {
  Kel::String::IteratorConst it = text.begin();
  try {
    const Zorvek::CmdIndexTuple tuple(it, text.end());
    return std::pair(tuple, static_cast<std::size_t>(it - text.begin()));
  } catch (const Kel::ParseError&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const auto accepted = parse(Kel::String(fuzz::text(data, size)));
  if (!accepted) return 0;
  fuzz::require(accepted->second <= size, "the parse stays inside the text");
  const Kel::String printed = Zorvek::valueToStrep(accepted->first);
  const auto again = parse(printed);
  fuzz::require(again && again->first == accepted->first && again->second == printed.size(),
                "the printed tuple parses back, whole, to an equal tuple");
  return 0;
}
