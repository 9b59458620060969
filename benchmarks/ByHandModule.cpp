// bench_by_hand: an extension module as somebody would write it by hand against the bare C API of the interpreter,
// for just the large messages that are measured, with care: the message held as plain C data, its size or a bound of
// it known first, everything stored into the one object that is returned. The peer of the Python rows about large
// messages.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

char* put(char* to, std::string_view text) {
  std::memcpy(to, text.data(), text.size());
  return to + text.size();
}

char* putNumber(char* to, std::uint64_t value) { return std::to_chars(to, to + 20, value).ptr; }

template <typename Number> char* putBytes(char* to, Number value) {
  for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
    *to++ = static_cast<char>(value >> shift);
  return to;
}

/// Text of at most `bound` characters, all of them ASCII, stored where it will stay.
template <typename Write> PyObject* asciiText(std::size_t bound, Write&& write) {
  PyObject* text = PyUnicode_New(static_cast<Py_ssize_t>(bound), 127);
  if (text == nullptr) return nullptr;
  char* const start = reinterpret_cast<char*>(PyUnicode_1BYTE_DATA(text));
  const Py_ssize_t length = write(start) - start;
  return PyUnicode_Resize(&text, length) == 0 ? text : nullptr;
}

template <typename Write> PyObject* bytes(std::size_t size, Write&& write) {
  PyObject* made = PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(size));
  if (made != nullptr) write(PyBytes_AS_STRING(made));
  return made;
}

// -- the messages -----------------------------------------------------------------------------------------------

struct Motors {
  std::uint16_t error = 0;
  std::string device;
  std::vector<std::pair<std::uint8_t, std::uint8_t>> motors;

  PyObject* toJson() const {
    return asciiText(200 + device.size() + 55 * motors.size(), [this](char* to) {
      to = putNumber(put(to, R"({"CommandError": )"), error);
      to = put(to, R"(, "CommandError_Desc": ")");
      to = put(to, error == 0 ? "Success" : "Unknown; ");
      to = put(put(to, R"(", "AutomatedDeviceID": ")"), device);
      to = putNumber(put(to, R"(", "NumberOfMotors": )"), motors.size());
      to = put(to, R"(, "listOfMotors": [)");
      const char* separator = "";
      for (const auto& [number, type] : motors) {
        to = putNumber(put(put(to, std::exchange(separator, ", ")), R"({"AttachedMotorNumber": )"), number);
        to = putNumber(put(to, R"(, "MotorType": )"), type);
        *to++ = '}';
      }
      return put(to, "]}");
    });
  }
};

struct Commands {
  std::vector<std::uint16_t> ids;

  PyObject* toJson() const {
    return asciiText(60 + 25 * ids.size(), [this](char* to) {
      to = putNumber(put(to, R"({"NumberOfCommands": )"), ids.size());
      to = put(to, R"(, "listOfCommands": [)");
      const char* separator = "";
      for (const std::uint16_t id : ids) {
        to = putNumber(put(put(to, std::exchange(separator, ", ")), R"({"CommandID": )"), id);
        *to++ = '}';
      }
      return put(to, "]}");
    });
  }
};

struct Capture {
  std::uint64_t captureId, timestamp, pixels, lines;
  std::string source;
  std::string frame;

  PyObject* toJson() const {
    return asciiText(250 + source.size() + 26 * frame.size(), [this](char* to) {
      to = putNumber(put(to, R"({"CaptureID": )"), captureId);
      to = put(put(to, R"(, "CapturableID": ")"), source);
      to = putNumber(put(to, R"(", "Timestamp": )"), timestamp);
      to = putNumber(put(to, R"(, "NumPixels": )"), pixels);
      to = putNumber(put(to, R"(, "NumLines": )"), lines);
      to = putNumber(put(to, R"(, "FrameSize": )"), frame.size());
      to = put(to, R"(, "Frame": [)");
      const char* separator = "";
      for (const char byte : frame) {
        to = put(put(to, std::exchange(separator, ", ")), R"({"FrameDataByte": )");
        to = putNumber(to, static_cast<unsigned char>(byte));
        *to++ = '}';
      }
      return put(to, "]}");
    });
  }
};

struct Counts {
  std::uint8_t type = 0;
  std::vector<std::string> components;

  PyObject* encode() const {
    std::size_t size = 3;
    for (const auto& component : components)
      size += component.size() + 1;
    return bytes(size, [this](char* to) {
      to = putBytes(putBytes(to, type), static_cast<std::uint16_t>(components.size()));
      for (const auto& component : components)
        to = put(to, {component.c_str(), component.size() + 1});
    });
  }
};

struct Chunk {
  std::string package;
  std::uint32_t number = 0;
  std::string data;

  PyObject* encode() const {
    return bytes(package.size() + 9 + data.size(), [this](char* to) {
      to = put(to, {package.c_str(), package.size() + 1});
      put(putBytes(putBytes(to, number), static_cast<std::uint32_t>(data.size())), data);
    });
  }
};

// -- to and from Python -----------------------------------------------------------------------------------------

template <typename Message> PyObject* hold(Message message) {
  return PyCapsule_New(new Message(std::move(message)), nullptr,
                       [](PyObject* capsule) { delete static_cast<Message*>(PyCapsule_GetPointer(capsule, nullptr)); });
}

template <typename Message, PyObject* (Message::*Act)() const> PyObject* call(PyObject*, PyObject* capsule) {
  const auto* message = static_cast<const Message*>(PyCapsule_GetPointer(capsule, nullptr));
  return message == nullptr ? nullptr : (message->*Act)();
}

/// The numbers of a sequence; nothing on an error, which is set.
bool load(PyObject* sequence, std::vector<std::uint16_t>& numbers) {
  for (Py_ssize_t i = 0, size = PySequence_Size(sequence); i < size; ++i) {
    PyObject* element = PySequence_GetItem(sequence, i);
    if (element == nullptr) return false;
    numbers.push_back(static_cast<std::uint16_t>(PyLong_AsUnsignedLong(element)));
    Py_DECREF(element);
  }
  return PyErr_Occurred() == nullptr;
}

PyObject* holdMotors(PyObject*, PyObject* arguments) {
  const char *device = nullptr, *pairs = nullptr;
  Py_ssize_t size = 0;
  if (!PyArg_ParseTuple(arguments, "sy#", &device, &pairs, &size)) return nullptr;
  Motors motors{0, device, {}};
  for (Py_ssize_t i = 0; i + 1 < size; i += 2)
    motors.motors.emplace_back(pairs[i], pairs[i + 1]);
  return hold(std::move(motors));
}

PyObject* holdCommands(PyObject*, PyObject* ids) {
  Commands commands;
  return load(ids, commands.ids) ? hold(std::move(commands)) : nullptr;
}

PyObject* holdCapture(PyObject*, PyObject* arguments) {
  unsigned long long captureId = 0, timestamp = 0, pixels = 0, lines = 0;
  const char *source = nullptr, *frame = nullptr;
  Py_ssize_t size = 0;
  if (!PyArg_ParseTuple(arguments, "KsKKKy#", &captureId, &source, &timestamp, &pixels, &lines, &frame, &size))
    return nullptr;
  return hold(Capture{captureId, timestamp, pixels, lines, source, {frame, static_cast<std::size_t>(size)}});
}

PyObject* holdCounts(PyObject*, PyObject* arguments) {
  Counts counts;
  const char* components = nullptr; // each with its end
  Py_ssize_t size = 0;
  if (!PyArg_ParseTuple(arguments, "by#", &counts.type, &components, &size)) return nullptr;
  for (const char* end = components + size; components < end; components += counts.components.back().size() + 1)
    counts.components.emplace_back(components);
  return hold(std::move(counts));
}

PyObject* holdChunk(PyObject*, PyObject* arguments) {
  const char *package = nullptr, *data = nullptr;
  unsigned number = 0;
  Py_ssize_t size = 0;
  if (!PyArg_ParseTuple(arguments, "sIy#", &package, &number, &data, &size)) return nullptr;
  return hold(Chunk{package, number, {data, static_cast<std::size_t>(size)}});
}

PyMethodDef methods[] = {
    {"motors", holdMotors, METH_VARARGS, "motors(device: str, pairs: bytes)"},
    {"commands", holdCommands, METH_O, "commands(ids)"},
    {"capture", holdCapture, METH_VARARGS, "capture(id, source: str, timestamp, pixels, lines, frame: bytes)"},
    {"counts", holdCounts, METH_VARARGS, "counts(type, components: bytes)"},
    {"chunk", holdChunk, METH_VARARGS, "chunk(package: str, number, data: bytes)"},
    {"motors_to_json", call<Motors, &Motors::toJson>, METH_O, "motors_to_json(motors) -> str"},
    {"commands_to_json", call<Commands, &Commands::toJson>, METH_O, "commands_to_json(commands) -> str"},
    {"capture_to_json", call<Capture, &Capture::toJson>, METH_O, "capture_to_json(capture) -> str"},
    {"encode_counts", call<Counts, &Counts::encode>, METH_O, "encode_counts(counts) -> bytes"},
    {"encode_chunk", call<Chunk, &Chunk::encode>, METH_O, "encode_chunk(chunk) -> bytes"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "bench_by_hand", nullptr, -1, methods, nullptr, nullptr, nullptr, nullptr};

} // namespace

PyMODINIT_FUNC PyInit_bench_by_hand() { return PyModule_Create(&definition); }
