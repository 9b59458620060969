#pragma once

#include <pybind11/pybind11.h>

#include <string_view>

namespace vorlinkit::python {

/// A text of the core (error message, reason, log record, file name) as str: decoded with the codec
/// "mbcs" where the interpreter has it and as UTF-8 elsewhere. Undecodable bytes become replacement
/// characters; it never raises for them. Interpreter lock held.
pybind11::str decodeCoreText(std::string_view text);

} // namespace vorlinkit::python
