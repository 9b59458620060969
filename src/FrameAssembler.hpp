// Cuts the received byte stream into frames. Bytes only: knows no sockets, requests or callbacks.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace vorlinkit {

/// Reassembles frames from chunks of any size, linear in the bytes received.
///
/// Frames that lie whole in a chunk are cut straight out of it; a frame that spans chunks is collected in
/// a buffer of its own, which then becomes the frame without a copy. Memory grows with the bytes that
/// have arrived, never with a length that was only announced. Buffers that come back through `recycle`
/// serve again. Used by the framer, on the I/O thread.
class FrameAssembler {
public:
  using Frame = std::shared_ptr<std::vector<std::byte>>;

  enum class Step {
    Frame,              ///< `frame` holds the next whole frame
    NeedMore,           ///< the chunk is used up
    BadProtocolId,      ///< the stream does not go on with "VR": everything buffered is gone
    UnknownMessageType, ///< no such header: everything buffered is gone
  };
  struct Cut {
    Step step{};
    Frame frame;
  };

  /// Takes the next chunk; it must stay valid until `next` has answered anything but `Frame`.
  void feed(std::span<const std::byte> chunk) { chunk_ = chunk; }
  Cut next();
  /// Takes back a frame that may be in use elsewhere still; it is used again only if it is not.
  void recycle(Frame frame);
  /// Forgets a half-received frame, and the memory kept for large ones.
  void reset();

private:
  Cut nextFromChunk();
  Cut nextFromPartial();
  Cut give(Step step);
  Cut keepRest(std::size_t wanted);
  bool collect(std::size_t size);
  Frame freshFrame();
  void forgetLargeBuffers(std::size_t frameSize);

  std::span<const std::byte> chunk_;
  std::vector<std::byte> partial_; // the beginning of a frame whose end has not arrived
  Frame spare_;                    // a frame nobody holds any more; never a large one
  std::vector<std::byte> large_;   // memory for the next large frame, which small ones must not carry away
  std::size_t smallFramesInARow_ = 0;
};

} // namespace vorlinkit
