#pragma once

#include <vorlinkit/VorlinSession.hpp>

#include <memory>
#include <set>
#include <vector>

namespace vorlinkit::python {

/// What threads wait for inside bound calls without a session.
class Wakeable {
public:
  Wakeable() = default;
  Wakeable(const Wakeable&) = delete;
  Wakeable& operator=(const Wakeable&) = delete;
  virtual ~Wakeable() = default;
  /// Ends their waits.
  virtual void wake() noexcept = 0;
};

/// Knows the core of every live session of the process, for the two moments that concern them all: the
/// interpreter's exit, which takes the cores away and closes them, and a fork. Used with the interpreter lock held.
class SessionLifetime {
public:
  using Core = std::unique_ptr<VorlinSession>;

  /// Registers the exit and fork steps with the interpreter; once, while the module is imported.
  static void install();

  static void add(Core& core);
  static void remove(Core& core);
  static void add(const std::shared_ptr<Wakeable>& waited);

private:
  /// Called by `atexit`, after the exit functions of scripts that imported the module first.
  static void interpreterExits();
  static std::set<Core*>& cores();
  static std::vector<std::weak_ptr<Wakeable>>& waited();
};

} // namespace vorlinkit::python
