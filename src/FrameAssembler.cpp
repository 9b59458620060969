#include "FrameAssembler.hpp"

#include "FrameLayout.hpp"

#include <algorithm>
#include <atomic>
#include <utility>

namespace vorlinkit {

namespace {

// A buffer above this size is kept for large frames only, and given back to the system once this many
// frames have done without it.
constexpr std::size_t largeBuffer = 256 * 1024;
constexpr std::size_t smallFramesUntilRelease = 4096;

using Step = FrameAssembler::Step;

/// What the first bytes of a frame say: a fault, more bytes needed, or the length of the frame.
struct Head {
  Step step{};
  std::size_t wanted{}; // Frame: length of the whole frame; NeedMore: bytes to look at next
};

Head readHead(std::span<const std::byte> bytes) {
  if (bytes.size() < layout::headerStart) return {Step::NeedMore, layout::headerStart};
  if (bytes[0] != layout::protocolId0 || bytes[1] != layout::protocolId1) return {Step::BadProtocolId, 0};
  const std::size_t dataLengthAt = layout::headerLength(bytes[3]);
  if (dataLengthAt == 0) return {Step::UnknownMessageType, 0};
  const std::size_t header = layout::wholeHeader(dataLengthAt);
  if (bytes.size() < header) return {Step::NeedMore, header};
  return {Step::Frame, header + layout::readU32(bytes, dataLengthAt)};
}

} // namespace

FrameAssembler::Cut FrameAssembler::next() { return partial_.empty() ? nextFromChunk() : nextFromPartial(); }

FrameAssembler::Cut FrameAssembler::nextFromChunk() {
  if (chunk_.empty()) return {Step::NeedMore, nullptr};
  const Head head = readHead(chunk_);
  if (head.step == Step::NeedMore || (head.step == Step::Frame && chunk_.size() < head.wanted))
    return keepRest(head.wanted);
  if (head.step != Step::Frame) return give(head.step);

  Frame frame = freshFrame();
  frame->assign(chunk_.begin(), chunk_.begin() + static_cast<std::ptrdiff_t>(head.wanted));
  chunk_ = chunk_.subspan(head.wanted);
  forgetLargeBuffers(head.wanted);
  return {Step::Frame, std::move(frame)};
}

FrameAssembler::Cut FrameAssembler::nextFromPartial() {
  Head head = readHead(partial_);
  while (head.step == Step::NeedMore) {
    if (!collect(head.wanted)) return {Step::NeedMore, nullptr};
    head = readHead(partial_);
  }
  if (head.step != Step::Frame) return give(head.step);
  if (!collect(head.wanted)) return {Step::NeedMore, nullptr};

  Frame frame = freshFrame();
  frame->swap(partial_);
  partial_.clear();
  forgetLargeBuffers(head.wanted);
  return {Step::Frame, std::move(frame)};
}

FrameAssembler::Cut FrameAssembler::give(Step step) {
  partial_.clear();
  chunk_ = {};
  return {step, nullptr};
}

/// The chunk ends inside a frame, which is collected from here on.
FrameAssembler::Cut FrameAssembler::keepRest(std::size_t wanted) {
  if (wanted > largeBuffer) partial_ = std::move(large_);
  partial_.assign(chunk_.begin(), chunk_.end());
  chunk_ = {};
  return {Step::NeedMore, nullptr};
}

/// Moves bytes from the chunk until `partial_` has `size` of them; false if the chunk did not suffice.
bool FrameAssembler::collect(std::size_t size) {
  if (partial_.size() >= size) return true;
  const auto taken = chunk_.first(std::min(size - partial_.size(), chunk_.size()));
  // Doubling, but never beyond the end of the frame.
  if (const std::size_t needed = partial_.size() + taken.size(); needed > partial_.capacity())
    partial_.reserve(std::min(size, std::max(needed, 2 * partial_.capacity())));
  partial_.insert(partial_.end(), taken.begin(), taken.end());
  chunk_ = chunk_.subspan(taken.size());
  return partial_.size() == size;
}

FrameAssembler::Frame FrameAssembler::freshFrame() {
  return spare_ ? std::exchange(spare_, nullptr) : std::make_shared<std::vector<std::byte>>();
}

void FrameAssembler::recycle(Frame frame) {
  if (!frame || frame.use_count() != 1) return;
  // Another thread may have dropped the last copy but this one: its reads of the frame come before our writes.
#ifdef __SANITIZE_THREAD__
  {
    const Frame synchronised = frame;
  } // what the fence does, in a form that ThreadSanitizer understands
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
  if (frame->capacity() <= largeBuffer)
    spare_ = std::move(frame);
  else if (smallFramesInARow_ < smallFramesUntilRelease && frame->capacity() > large_.capacity())
    large_.swap(*frame);
}

void FrameAssembler::reset() {
  chunk_ = {};
  partial_ = {};
  spare_ = nullptr;
  large_ = {};
  smallFramesInARow_ = 0;
}

void FrameAssembler::forgetLargeBuffers(std::size_t frameSize) {
  if (frameSize > largeBuffer)
    smallFramesInARow_ = 0;
  else if (++smallFramesInARow_ == smallFramesUntilRelease)
    large_ = {};
}

} // namespace vorlinkit
