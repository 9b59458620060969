// Cuts the received byte stream into frames. Bytes only: knows no sockets, requests or callbacks.
#pragma once

#include "FrameLayout.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

// g++ says so by one name, clang by another.
#if defined(__SANITIZE_THREAD__)
#define VORLINKIT_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VORLINKIT_THREAD_SANITIZER 1
#endif
#endif
#ifndef VORLINKIT_THREAD_SANITIZER
#define VORLINKIT_THREAD_SANITIZER 0
#endif

namespace vorlinkit {

/// Reassembles frames from chunks of any size, linear in the bytes received.
///
/// Frames that lie whole in a chunk are cut straight out of it; a frame that spans chunks is collected in
/// a buffer of its own, which then becomes the frame without a copy. Memory grows with the bytes that
/// have arrived, never with a length that was only announced. Frames that come back through `recycle`
/// serve again. Used by the framer, on the I/O thread.
class FrameAssembler {
public:
  using Frame = std::shared_ptr<std::vector<std::byte>>;

  /// Calls `onFrame(Frame&)` for every frame that the chunk completes, in order; the frame may be taken.
  /// At a fault everything that is buffered is gone, the rest of the chunk as well.
  template <typename OnFrame> StreamFault cut(std::span<const std::byte> chunk, OnFrame&& onFrame) {
    // The loop that a stream of small notifications spends its time in.
    for (bool started = !partial_.empty(); started || !chunk.empty(); started = false) {
      if (started) {
        auto rest = chunk;
        const Partial partial = continuePartial(rest);
        if (partial.fault != StreamFault::None || !partial.whole) return partial.fault;
        chunk = rest;
      } else {
        const FrameHead head = readHead(chunk);
        if (head.fault != StreamFault::None) return head.fault;
        if (head.frameLength > chunk.size()) {
          keepRest(chunk, head.frameLength);
          break;
        }
        const auto length = static_cast<std::size_t>(head.frameLength); // fits, as the chunk holds it
        if (!frame_) makeFrame();
        frame_->assign(chunk.data(), chunk.data() + length);
        chunk = chunk.subspan(length);
        forgetLargeBuffers(length);
      }
      onFrame(frame_);
    }
    return StreamFault::None;
  }

  /// Takes back a frame that may be in use elsewhere still; it is used again only if it is not.
  void recycle(Frame frame) {
    if (!frame || frame.use_count() != 1) return;
    // Another thread may have dropped the last copy but this one: its reads come before our writes.
#if VORLINKIT_THREAD_SANITIZER
    {
      const Frame synchronised = frame;
    } // what the fence does, in a form that ThreadSanitizer understands
#else
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    if (frame->capacity() <= largeBuffer)
      frame_.swap(frame);
    else
      keepForLargeFrames(*frame);
  }

  /// Forgets a half-received frame, and the memory kept for large ones.
  void reset();

private:
  // A buffer above this size is kept for large frames only, and given back to the system once this many
  // frames have done without it.
  static constexpr std::size_t largeBuffer = 256 * 1024;
  static constexpr std::size_t smallFramesUntilRelease = 4096;

  struct Partial {
    StreamFault fault;
    bool whole; // it is in `frame_`
  };
  Partial continuePartial(std::span<const std::byte>& chunk);
  bool collect(std::uint64_t size, std::span<const std::byte>& chunk);
  void keepRest(std::span<const std::byte> rest, std::uint64_t frameLength);
  void makeFrame();
  void keepForLargeFrames(std::vector<std::byte>& buffer);
  void forgetLargeBuffers(std::size_t frameLength) {
    if (frameLength > largeBuffer)
      smallFramesInARow_ = 0;
    else if (++smallFramesInARow_ == smallFramesUntilRelease)
      large_ = {};
  }

  Frame frame_;                    // the frame at hand, or a small one that nobody holds any more
  std::vector<std::byte> partial_; // the beginning of a frame whose end has not arrived
  std::vector<std::byte> large_;   // memory for the next large frame, which small ones must not carry away
  std::size_t smallFramesInARow_ = 0;
};

} // namespace vorlinkit
