#include "bindings.hpp"
#include "session/Events.hpp"
#include "session/PyEventQueue.hpp"

#include <pybind11/stl.h>

namespace py = pybind11;

namespace vorlinkit::python {

namespace {

constexpr auto queueDoc =
    R"(From sessions to whoever looks after them: what happens, as tuples, in the order in which it happens.

Sessions put events in without the interpreter lock. Any thread may call it; one at a time takes events.)";

constexpr auto waitDoc =
    R"(Everything that is there, else what comes first within `timeout` seconds; None: wait for ever.

[] after that or after `wake`. Other Python threads run meanwhile; Ctrl-C ends the wait.)";

} // namespace

void registerEventQueue(py::module_& module) {
  py::class_<PyEventQueue>(module, "_EventQueue", queueDoc)
      .def(py::init<>())
      .def("take", &PyEventQueue::take, "Everything that is there, without waiting.")
      .def("wait", &PyEventQueue::wait, py::arg("timeout"), waitDoc)
      .def("wake", &PyEventQueue::wake, "End a `wait`, now or the next one.")
      .def("fileno", &PyEventQueue::fileno, "A descriptor that is readable while there are events.")
      .def("dropped", &PyEventQueue::dropped, "How many notifications were thrown away because nobody took them.");

  py::class_<EventLogger, IVorlinLogger, std::shared_ptr<EventLogger>>(
      module, "_EventLogger", "A logger whose records are events of a queue; it needs not be kept.")
      .def(py::init([](const PyEventQueue& queue) { return std::make_shared<EventLogger>(queue.queue()); }),
           py::arg("queue"));
}

} // namespace vorlinkit::python
