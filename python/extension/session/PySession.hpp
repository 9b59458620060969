// What Python knows as VorlinSession: one core session and the Python callables it may call.
#pragma once

#include "interpreter/PythonCallback.hpp"
#include "session/BoundTypes.hpp"
#include "session/EnumMembers.hpp"
#include "session/Events.hpp"

#include <vorlinkit/VorlinSession.hpp>

#include <pybind11/pybind11.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace vorlinkit::python {

using FrameDirections = EnumMembers<FrameDirection, 2>;

/// Every method is called with the interpreter lock held, from any Python thread, callbacks included.
/// Those that may wait give the lock up for as long as they are in the core. All members are guarded by
/// the interpreter lock.
class PySession {
public:
  PySession(const SessionConfig& config, std::shared_ptr<IVorlinLogger> logger);
  /// Closes the connection and ends the I/O thread, with the lock given up.
  ~PySession();
  PySession(const PySession&) = delete;
  PySession& operator=(const PySession&) = delete;

  pybind11::tuple connect();
  void disconnect();
  bool isConnected() const noexcept;
  std::uint8_t clientId() const noexcept;
  pybind11::tuple send(std::uint16_t commandId, const std::optional<pybind11::bytes>& payload);

  void onConnectionStateChanged(const pybind11::function& callback);
  void onNotification(std::uint16_t commandId, const pybind11::function& callback);
  void onFrame(const pybind11::function& callback);

  // For the typed client (PySessionEvents.cpp)
  void attach(const PyEventQueue& queue);
  pybind11::tuple request(std::uint16_t commandId, const pybind11::bytes& payload, std::int64_t timeout,
                          std::uint64_t connection);
  void sendForReply(std::uint16_t commandId, const pybind11::bytes& payload, std::int64_t timeout,
                    std::uint64_t connection, const pybind11::object& token);
  void startConnect(const pybind11::object& token);
  void startDisconnect(const pybind11::object& token);
  void watch(std::uint16_t commandId);
  void close();

  /// For the garbage collector: the callables are all that this object owns of Python.
  int visitCallbacks(visitproc visit, void* context) const;
  void clearCallbacks();

private:
  /// A call that gives the interpreter lock up with the core in its hands: nobody ends the core meanwhile.
  class Inside {
  public:
    explicit Inside(PySession& session) noexcept : session_(session) { ++session_.inside_; }
    ~Inside() {
      if (--session_.inside_ == 0 && session_.closed_) session_.endCore();
    }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

  private:
    PySession& session_;
  };

  /// A callable that has been registered, and whether the core knows of it already.
  struct Slot {
    std::shared_ptr<PythonCallback> callback;
    bool inCore = false;
  };
  template <typename Register>
  void keep(Slot& slot, const char* name, const pybind11::function& callback, Register&& registerInCore);

  /// The core session; null when it must not be called: the interpreter's exit has taken it, or this is the child
  /// of a fork, where the locks of an inherited session may be held for ever.
  VorlinSession* usableCore() const noexcept;
  template <typename Start> void startForReply(const pybind11::object& token, Start&& start);
  void endCore() noexcept;

  std::unique_ptr<VorlinSession> core_;
  std::shared_ptr<Outlet> outlet_; // null until a queue is attached
  int inside_ = 0;
  bool closed_ = false;            // its core ends, or has ended
  const std::uint32_t generation_; // of the process that made the session
  Slot stateSlot_;
  Slot frameSlot_;
  std::map<std::uint16_t, Slot> notificationSlots_;
};

} // namespace vorlinkit::python
