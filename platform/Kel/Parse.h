// Text parsing and printing of attribute values in the framework's text form.
//
//   Kel::String::IteratorConst it = text.begin();
//   Kel::needString(it, text.end(), "Value('");          // exact characters, no blanks skipped
//   std::uint64_t v; Kel::deserializeAttr(it, text.end(), "startingCmdIndex", v);
//
// Every failure throws Kel::ParseError naming what was expected and where (the offset from
// the start of the parse when known, and the text found there).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Kel/Export.h"
#include "Kel/String.h"

namespace Kel {

class KEL_EXPORT ParseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Requires the characters of `expected` at `it`, one for one; advances past them.
KEL_EXPORT void needString(String::IteratorConst& it, const String::IteratorConst& end,
                           std::string_view expected);

// Reads an unsigned decimal number (no sign, no blanks) that fits the destination; `attr`
// names the attribute in the error message. Advances past the digits.
KEL_EXPORT void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                                std::string_view attr, std::uint64_t& value);
KEL_EXPORT void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                                std::string_view attr, std::uint32_t& value);
KEL_EXPORT void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                                std::string_view attr, std::uint16_t& value);
KEL_EXPORT void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end,
                                std::string_view attr, std::uint8_t& value);

// The text form of a number (decimal) and of a bool ("True" / "False").
KEL_EXPORT String valueToStrep(std::uint64_t v);
KEL_EXPORT String valueToStrep(bool v);

}  // namespace Kel
