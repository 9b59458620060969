#include "FrameAssembler.hpp"

#include <algorithm>
#include <utility>

namespace vorlinkit {

/// Adds to the frame that earlier chunks began, until it is whole or the chunk is used up.
FrameAssembler::Partial FrameAssembler::continuePartial(std::span<const std::byte>& chunk) {
  FrameHead head = readHead(partial_);
  while (head.fault == StreamFault::None && partial_.size() < head.frameLength) {
    if (!collect(head.frameLength, chunk)) return {StreamFault::None, false};
    head = readHead(partial_);
  }
  if (head.fault == StreamFault::None) {
    if (!frame_) makeFrame();
    frame_->swap(partial_);
    forgetLargeBuffers(frame_->size());
  }
  partial_.clear();
  return {head.fault, true};
}

/// Moves bytes from the chunk until `partial_` has `size` of them; false if the chunk did not suffice.
bool FrameAssembler::collect(std::uint64_t size, std::span<const std::byte>& chunk) {
  const auto missing = size - partial_.size();
  const auto taken = chunk.first(missing < chunk.size() ? static_cast<std::size_t>(missing) : chunk.size());
  // Doubling, but never beyond the end of the frame.
  if (const std::size_t needed = partial_.size() + taken.size(); needed > partial_.capacity()) {
    const std::size_t doubled = std::max(needed, 2 * partial_.capacity());
    partial_.reserve(size < doubled ? static_cast<std::size_t>(size) : doubled);
  }
  partial_.insert(partial_.end(), taken.begin(), taken.end());
  chunk = chunk.subspan(taken.size());
  return partial_.size() == size;
}

/// The chunk ends inside a frame, which is collected from here on.
void FrameAssembler::keepRest(std::span<const std::byte> rest, std::uint64_t frameLength) {
  if (frameLength > largeBuffer) partial_ = std::move(large_);
  partial_.assign(rest.begin(), rest.end());
}

void FrameAssembler::makeFrame() { frame_ = std::make_shared<std::vector<std::byte>>(); }

void FrameAssembler::keepForLargeFrames(std::vector<std::byte>& buffer) {
  if (smallFramesInARow_ < smallFramesUntilRelease && buffer.capacity() > large_.capacity()) large_.swap(buffer);
}

void FrameAssembler::reset() {
  partial_ = {};
  frame_ = nullptr;
  large_ = {};
  smallFramesInARow_ = 0;
}

} // namespace vorlinkit
