// Corvane::Coprocessor: the published description of one packet-processing coprocessor.
// The default value (all zero) describes no coprocessor: valid() is false. A coprocessor
// that restarts comes back with a new generation number (genId).
#pragma once

#include <cstdint>
#include <ostream>

namespace Corvane {

class Coprocessor {
 public:
  constexpr Coprocessor() noexcept = default;
  constexpr Coprocessor(std::uint32_t coprocessorId, std::uint64_t genId) noexcept
      : coprocessorId_(coprocessorId), genId_(genId), valid_(true) {}

  constexpr std::uint32_t coprocessorId() const noexcept { return coprocessorId_; }
  constexpr std::uint64_t genId() const noexcept { return genId_; }
  constexpr bool valid() const noexcept { return valid_; }

  friend constexpr bool operator==(const Coprocessor&, const Coprocessor&) noexcept = default;
  friend std::ostream& operator<<(std::ostream& os, const Coprocessor& c) {
    if (!c.valid_) return os << "Coprocessor(invalid)";
    return os << "Coprocessor(id " << c.coprocessorId_ << ", genId " << c.genId_ << ")";
  }

 private:
  std::uint32_t coprocessorId_ = 0;
  std::uint64_t genId_ = 0;
  bool valid_ = false;
};

}  // namespace Corvane
