#include "interpreter/SessionLifetime.hpp"

#include "interpreter/InterpreterLock.hpp"

#include <pybind11/pybind11.h>

#include <chrono>
#include <cstdio>
#include <vector>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

/// How long an exit waits for callbacks that are still running. Whoever is inside the core leaves by
/// itself much sooner.
constexpr std::chrono::seconds exitLimit{5};
constexpr std::chrono::milliseconds exitSlice{50};

/// Answers everybody who waits for these sessions, and waits until nobody outside wants the interpreter lock any
/// more. Closing is started again and again, for a thread that was on its way to `connect` when the gate closed.
bool everybodyLeaves(const std::vector<SessionLifetime::Core>& cores,
                     const std::vector<std::weak_ptr<Wakeable>>& waited) {
  const auto limit = std::chrono::steady_clock::now() + exitLimit;
  do {
    for (const auto& core : cores)
      core->start_disconnect();
    for (const auto& one : waited)
      if (const auto alive = one.lock()) alive->wake();
    if (FinalisationGate::instance().awaitEmpty(exitSlice)) return true;
  } while (std::chrono::steady_clock::now() < limit);
  return false;
}

/// Ends the sessions. Called without the interpreter lock, so that those inside can come back through the gate.
void closeSessions(std::vector<SessionLifetime::Core> cores, std::vector<std::weak_ptr<Wakeable>> waited) {
  if (everybodyLeaves(cores, waited)) return; // the cores end as they are destroyed
  std::fputs("vorlinkit_python: a callback is still running at exit and is left behind\n", stderr);
  for (auto& core : cores)
    static_cast<void>(core.release()); // ending it would wait for the callback
}

} // namespace

std::set<SessionLifetime::Core*>& SessionLifetime::cores() {
  static auto* const live = new std::set<Core*>;
  return *live;
}

void SessionLifetime::add(Core& core) { cores().insert(&core); }

void SessionLifetime::remove(Core& core) { cores().erase(&core); }

std::vector<std::weak_ptr<Wakeable>>& SessionLifetime::waited() {
  static auto* const live = new std::vector<std::weak_ptr<Wakeable>>;
  return *live;
}

void SessionLifetime::add(const std::shared_ptr<Wakeable>& one) {
  std::erase_if(waited(), [](const auto& other) { return other.expired(); });
  waited().push_back(one);
}

void SessionLifetime::interpreterExits() {
  FinalisationGate::instance().close();
  std::vector<Core> taken;
  for (auto* const core : cores())
    if (*core) taken.push_back(std::move(*core));
  const InterpreterRelease unlocked(InterpreterRelease::AtExit{});
  closeSessions(std::move(taken), waited());
}

void SessionLifetime::install() {
  py::module_::import("atexit").attr("register")(py::cpp_function(&SessionLifetime::interpreterExits));
  const auto os = py::module_::import("os");
  if (!py::hasattr(os, "register_at_fork")) return;
  const py::cpp_function afterFork([] { FinalisationGate::instance().startGeneration(); });
  os.attr("register_at_fork")(py::arg("after_in_child") = afterFork);
}

} // namespace vorlinkit::python
