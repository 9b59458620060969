#pragma once

#include <cstdint>

namespace vorlinkit {

/// Which way a frame that is shown to the frame observer travels.
enum class FrameDirection : std::uint8_t {
  Tx = 0, ///< about to be written to the machine
  Rx = 1, ///< just received, complete, not yet decoded
};

} // namespace vorlinkit
