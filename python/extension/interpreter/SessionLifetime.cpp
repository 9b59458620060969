#include "interpreter/SessionLifetime.hpp"

#include "interpreter/InterpreterLock.hpp"
#include "session/PySession.hpp"

#include <cstdio>
#include <memory>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// How long an exit waits for callbacks that are still running. Whoever is inside the core leaves by
/// itself much sooner.
constexpr std::chrono::seconds EXIT_LIMIT{5};

/// Waits until nobody outside wants the interpreter lock any more, then ends the sessions. Called without
/// the lock, so that those inside can come back through the gate.
void closeSessions(std::vector<std::unique_ptr<VorlinSession>> cores) {
  if (FinalisationGate::instance().awaitEmpty(EXIT_LIMIT)) return; // the cores close as they are destroyed
  std::fputs("vorlinkit_python: a callback is still running at exit and is left behind\n", stderr);
  for (auto& core : cores)
    static_cast<void>(core.release()); // closing would wait for the callback
}

} // namespace

std::set<PySession*>& SessionLifetime::sessions() {
  static auto* const live = new std::set<PySession*>;
  return *live;
}

void SessionLifetime::add(PySession& session) { sessions().insert(&session); }

void SessionLifetime::remove(PySession& session) { sessions().erase(&session); }

void SessionLifetime::interpreterExits() {
  FinalisationGate::instance().close();
  std::vector<std::unique_ptr<VorlinSession>> cores;
  for (auto* const session : sessions())
    cores.push_back(session->takeCore());
  const InterpreterRelease unlocked(InterpreterRelease::AtExit{});
  closeSessions(std::move(cores));
}

void SessionLifetime::install() {
  py::module_::import("atexit").attr("register")(py::cpp_function(&SessionLifetime::interpreterExits));
  const auto os = py::module_::import("os");
  if (!py::hasattr(os, "register_at_fork")) return;
  const py::cpp_function afterFork([] { FinalisationGate::instance().startGeneration(); });
  os.attr("register_at_fork")(py::arg("after_in_child") = afterFork);
}

} // namespace vorlinkit::python
