#include "LateAnswers.hpp"

#include <algorithm>
#include <span>

namespace vorlinkit {

void LateAnswers::add(std::uint16_t commandId) noexcept {
  if (contains(commandId)) return;
  if (count_ == commands_.size())
    more_ = true;
  else
    commands_[count_++] = commandId;
}

void LateAnswers::answered(std::uint16_t commandId) noexcept {
  if (!more_ && !contains(commandId)) clear();
}

bool LateAnswers::contains(std::uint16_t commandId) const noexcept {
  const auto known = std::span(commands_).first(count_);
  return std::ranges::find(known, commandId) != known.end();
}

} // namespace vorlinkit
