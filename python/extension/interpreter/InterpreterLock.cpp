#include "interpreter/InterpreterLock.hpp"

#include "interpreter/ParkOnUnwind.hpp"

#include <pybind11/pybind11.h>

namespace vorlinkit::python {

namespace {

FinalisationGate& gate() { return FinalisationGate::instance(); }

/// The only call that waits for the interpreter lock. The caller has a pass of the gate.
void take(PyThreadState* state) noexcept {
  ParkOnUnwind guard;
  PyEval_RestoreThread(state);
  guard.returned();
}

/// What a thread that is not Python's own keeps between two uses of the interpreter: making a thread
/// state for every callback would cost more than the callback.
struct ForeignThread {
  PyThreadState* state = nullptr;
  bool inChunk = false;
  std::optional<FinalisationGate::Pass> keptForChunk;

  ~ForeignThread() {
    if (!state) return;
    const auto pass = gate().enter();
    if (!pass) return; // the interpreter frees what is left of its threads
    take(state);
    PyThreadState_Clear(state);
    PyThreadState_DeleteCurrent();
    gate().leave(*pass);
  }
};

thread_local ForeignThread foreignThread;

PyThreadState* stateOfThisThread() noexcept {
  if (auto* const state = PyGILState_GetThisThreadState()) return state;
  foreignThread.state = PyThreadState_New(PyInterpreterState_Main());
  return foreignThread.state;
}

void giveBack(FinalisationGate::Pass pass) noexcept {
  PyEval_SaveThread();
  gate().leave(pass);
}

} // namespace

bool interpreterLockHeld() noexcept {
  // Not PyGILState_Check, which says yes to everyone once a sub-interpreter has existed.
  auto* const running = _PyThreadState_UncheckedGet();
  return running && running == PyGILState_GetThisThreadState();
}

void releaseAnywhere(PyObject* object) noexcept {
  if (interpreterLockHeld())
    Py_DECREF(object);
  else if (const InterpreterLock lock; lock)
    Py_DECREF(object);
}

InterpreterLock::InterpreterLock() noexcept {
  if (interpreterLockHeld()) {
    usable_ = !gate().closed();
    return;
  }
  const auto pass = gate().enter();
  if (!pass) return;
  auto* const state = stateOfThisThread();
  if (!state) {
    gate().leave(*pass);
    return;
  }
  take(state);
  // The gate may have closed while this thread waited for the lock.
  usable_ = !gate().closed();
  if (foreignThread.inChunk && usable_)
    foreignThread.keptForChunk = pass;
  else
    pass_ = pass;
}

InterpreterLock::~InterpreterLock() {
  if (pass_) giveBack(*pass_);
}

void InterpreterLock::beginChunk() noexcept { foreignThread.inChunk = true; }

void InterpreterLock::endChunk() noexcept {
  foreignThread.inChunk = false;
  if (!foreignThread.keptForChunk) return;
  giveBack(*foreignThread.keptForChunk);
  foreignThread.keptForChunk.reset();
}

InterpreterRelease::InterpreterRelease() noexcept : hearsSignals_(_PyOS_IsMainThread() != 0), pass_(gate().enter()) {
  if (pass_) saved_ = PyEval_SaveThread();
}

InterpreterRelease::InterpreterRelease(AtExit) noexcept : hearsSignals_(false), saved_(PyEval_SaveThread()) {}

InterpreterRelease::~InterpreterRelease() {
  if (saved_) take(saved_);
  if (pass_) gate().leave(*pass_);
}

bool InterpreterRelease::keepWaiting() {
  if (gate().closed() || !gate().current(*pass_)) return false;
  take(saved_);
  saved_ = nullptr;
  if (PyErr_CheckSignals() != 0) throw pybind11::error_already_set();
  // The handler may have forked, or have run the exit functions.
  if (gate().closed() || !gate().current(*pass_)) return false;
  saved_ = PyEval_SaveThread();
  return true;
}

} // namespace vorlinkit::python
