#include "Kel/Parse.h"

#include <limits>

namespace Kel {

namespace {

// What stands at `it`, for error messages: a short excerpt, or "end of text".
std::string excerpt(String::IteratorConst it, const String::IteratorConst& end) {
  if (it == end) return "end of text";
  std::string s;
  for (int i = 0; i < 16 && it != end; ++i, ++it) s += *it;
  return "\"" + s + (it != end ? "...\"" : "\"");
}

template <class U>
void readUnsigned(String::IteratorConst& it, const String::IteratorConst& end,
                  std::string_view attr, U& value, const char* kind) {
  auto fail = [&](const char* why) {
    throw ParseError("expected " + std::string(kind) + " for attribute '" + std::string(attr) +
                     "' (" + why + ") at " + excerpt(it, end));
  };
  if (it == end || *it < '0' || *it > '9') fail("no digits");
  std::uint64_t v = 0;
  const std::uint64_t max = std::numeric_limits<U>::max();
  String::IteratorConst p = it;
  while (p != end && *p >= '0' && *p <= '9') {
    const unsigned d = static_cast<unsigned>(*p - '0');
    if (v > (max - d) / 10) fail("value out of range");
    v = v * 10 + d;
    ++p;
  }
  it = p;
  value = static_cast<U>(v);
}

}  // namespace

void needString(String::IteratorConst& it, const String::IteratorConst& end,
                std::string_view expected) {
  String::IteratorConst p = it;
  for (char c : expected) {
    if (p == end || *p != c)
      throw ParseError("expected \"" + std::string(expected) + "\" at " + excerpt(it, end));
    ++p;
  }
  it = p;
}

void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                     std::string_view attr, std::uint64_t& value) {
  readUnsigned(it, end, attr, value, "unsigned 64-bit number");
}
void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                     std::string_view attr, std::uint32_t& value) {
  readUnsigned(it, end, attr, value, "unsigned 32-bit number");
}
void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                     std::string_view attr, std::uint16_t& value) {
  readUnsigned(it, end, attr, value, "unsigned 16-bit number");
}
void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                     std::string_view attr, std::uint8_t& value) {
  readUnsigned(it, end, attr, value, "unsigned 8-bit number");
}

String valueToStrep(std::uint64_t v) { return String(std::to_string(v)); }
String valueToStrep(bool v) { return String(v ? "True" : "False"); }

}  // namespace Kel
