// The text form of Zorvek::SerializerId (the framework text of its one attribute, "value").
// Rejections are Kel::ParseError only; an accepted text prints back to an id that parses to
// the same value.
#include <optional>

#include "Kel/Parse.h"
#include "Zorvek/DemuxDalCreator.h"
#include "fuzz/Fuzz.h"

namespace {

std::optional<Zorvek::SerializerId> parse(const Kel::String& text) {
  try {
    return Zorvek::SerializerId(text.begin(), text.end());
  } catch (const Kel::ParseError&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const auto id = parse(Kel::String(fuzz::text(data, size)));
  if (!id) return 0;
  fuzz::require(parse(Zorvek::valueToStrep(*id)) == id,
                "the printed id parses back to the same id");
  return 0;
}
