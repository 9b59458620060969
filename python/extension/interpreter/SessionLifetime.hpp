#pragma once

#include <pybind11/pybind11.h>

#include <set>

namespace vorlinkit::python {

class PySession;

/// Knows every live session of the process, for the two moments that concern them all: the interpreter's
/// exit, and a fork. Used with the interpreter lock held.
class SessionLifetime {
public:
  /// Registers the exit and fork steps with the interpreter; once, while the module is imported.
  static void install();

  static void add(PySession& session);
  static void remove(PySession& session);

private:
  /// Called by `atexit`, after the exit functions of scripts that imported the module first.
  static void interpreterExits();
  static std::set<PySession*>& sessions();
};

} // namespace vorlinkit::python
