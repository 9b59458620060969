// The only place that speaks to the operating system other than through asio.
#pragma once

#include "Asio.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <span>
#include <system_error>
#include <thread>

namespace vorlinkit::platform {

/// Changes when this process is a fork of the one that read it before. Threads do not survive a fork, so
/// a session of another generation has no I/O thread and must not be waited for.
std::uint64_t processGeneration() noexcept;

/// Starts a thread that takes no signals, so that those stay with the host program's own threads.
/// Throws std::system_error when the system has no thread to give.
std::thread startThread(std::function<void()> body);

/// Opens `socket`, which is closed, for a connection. Programs that this process starts never inherit it, not
/// even one that another thread starts at this moment (except on Apple systems, which take a second call for it).
std::error_code openStream(asio::ip::tcp::socket& socket, asio::ip::tcp protocol);

/// Makes a fresh connection notice a dead or stuck peer: no delay of small writes, keep-alive probes (after 15 s,
/// every 5 s, 3 times), and an end to writes that make no progress for `writeTimeout` (on Apple systems in whole
/// seconds). What a platform does not have is left out.
void prepareConnection(asio::ip::tcp::socket& socket, std::chrono::milliseconds writeTimeout) noexcept;

/// Registers a connected socket with its event loop anew. Connecting has asked to be told of room to write, and every
/// wait for bytes would first be answered with that.
std::error_code watchForBytesOnly(asio::ip::tcp::socket& socket);

/// On loopback a port nobody listens on may be answered by the very socket that asks.
bool connectedToItself(const asio::ip::tcp::socket& socket) noexcept;

/// How many bytes were written that the peer has not acknowledged yet; 0 where the platform does not tell.
std::size_t unacknowledgedBytes(asio::ip::tcp::socket::native_handle_type socket) noexcept;

/// Writes what fits without waiting, maybe nothing; yields how much. May run on any thread, beside reads of the
/// socket's owner.
std::expected<std::size_t, std::error_code> writeSome(asio::ip::tcp::socket::native_handle_type socket,
                                                      std::span<const std::byte> bytes) noexcept;

} // namespace vorlinkit::platform
