#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorlinkit {

/// The commands whose answer may still come although nobody waits for it any more.
class LateAnswers {
public:
  void add(std::uint16_t commandId) noexcept;
  /// A machine answers in order, so an answer to another command says that the late ones will not come.
  void answered(std::uint16_t commandId) noexcept;
  void clear() noexcept { *this = {}; }
  bool none() const noexcept { return count_ == 0; }

private:
  bool contains(std::uint16_t commandId) const noexcept;

  std::array<std::uint16_t, 8> commands_{};
  std::size_t count_ = 0;
  bool more_ = false; // than there is room for: none is known to be another
};

} // namespace vorlinkit
