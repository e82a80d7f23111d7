// Device ("fap") identifiers and the 128-bit device mask.
//
// A FapId names one device, 0..127, or the null device 128; any larger value is rejected
// with FapIdRangeError. A Fapmask holds one bit per device (four 32-bit words, bit n =
// device n).
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <ostream>
#include <stdexcept>

#include "Kel/Export.h"

namespace Corvane {

class KEL_EXPORT FapIdRangeError : public std::out_of_range {
 public:
  FapIdRangeError() : std::out_of_range("FapId::value < FapId::min or > FapId::null not allowed") {}
};

class FapId {
 public:
  static constexpr std::uint8_t min = 0;
  static constexpr std::uint8_t null = 128;

  constexpr FapId() noexcept : value_(0) {}
  // Throws FapIdRangeError when v is above the null device.
  constexpr FapId(unsigned v) : value_(checked(v)) {}

  constexpr std::uint8_t value() const noexcept { return value_; }
  constexpr bool isNull() const noexcept { return value_ == null; }

  friend constexpr bool operator==(FapId a, FapId b) noexcept { return a.value_ == b.value_; }
  friend constexpr auto operator<=>(FapId a, FapId b) noexcept { return a.value_ <=> b.value_; }
  friend std::ostream& operator<<(std::ostream& os, FapId f) {
    return os << static_cast<unsigned>(f.value_);
  }

 private:
  static constexpr std::uint8_t checked(unsigned v) {
    if (v > null) throw FapIdRangeError();
    return static_cast<std::uint8_t>(v);
  }
  std::uint8_t value_;
};

class Fapmask {
 public:
  constexpr Fapmask() noexcept : words_{} {}

  // Number of devices in the mask.
  constexpr unsigned fapIds() const noexcept {
    return devices(words_[0]) + devices(words_[1]) + devices(words_[2]) + devices(words_[3]);
  }
  constexpr bool fapId(FapId f) const noexcept {
    return f.value() < 128 && ((words_[f.value() / 32] >> (f.value() % 32)) & 1u);
  }
  constexpr void fapIdIs(FapId f, bool v) noexcept {
    if (f.value() >= 128) return;
    const std::uint32_t bit = 1u << (f.value() % 32);
    if (v)
      words_[f.value() / 32] |= bit;
    else
      words_[f.value() / 32] &= ~bit;
  }
  // The first device after `f` in the mask, or the null device when there is none;
  // starting from the null device yields the first device of the mask.
  constexpr FapId nextFapId(FapId f) const noexcept {
    // A word at a time: the bits of the first word below the start are masked off.
    for (unsigned d = f.isNull() ? 0 : f.value() + 1u; d < 128; d = (d / 32 + 1) * 32) {
      const std::uint32_t w = words_[d / 32] & (~0u << (d % 32));
      if (w) return FapId(d / 32 * 32 + static_cast<unsigned>(std::countr_zero(w)));
    }
    return FapId(FapId::null);
  }
  constexpr std::uint32_t word(unsigned i) const noexcept { return words_[i]; }

  friend constexpr bool operator==(const Fapmask&, const Fapmask&) noexcept = default;

 private:
  // Masks are mostly one device, and a population count may be a library call on this
  // target: clearing the lowest set bit until none is left costs a step per device.
  static constexpr unsigned devices(std::uint32_t w) noexcept {
    unsigned n = 0;
    for (; w; w &= w - 1) ++n;
    return n;
  }

  std::array<std::uint32_t, 4> words_;
};

}  // namespace Corvane
