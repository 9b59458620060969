# What the build needs from the system, each with the Debian package that brings it. All of it is checked
# before anything is said, so that one run names everything that is missing.
include(CheckCXXSourceCompiles)

set(vorlinkit_missing "")
macro(vorlinkit_need what package)
  string(APPEND vorlinkit_missing "  - ${what} (Debian package ${package})\n")
endmacro()

# Global, as a project around us links what the libraries link.
find_package(Threads)
if(NOT Threads_FOUND)
  vorlinkit_need("a thread library" libc6-dev)
endif()

find_path(VORLINKIT_ASIO_INCLUDE_DIR asio.hpp)
if(NOT VORLINKIT_ASIO_INCLUDE_DIR)
  vorlinkit_need("asio, standalone" libasio-dev)
endif()

# Formatting: the standard library's where it has it, fmt elsewhere.
set(CMAKE_REQUIRED_FLAGS "-std=c++23")
check_cxx_source_compiles("#include <version>\n#ifndef __cpp_lib_format\n#error none\n#endif\nint main() {}"
                          VORLINKIT_HAVE_STD_FORMAT)
unset(CMAKE_REQUIRED_FLAGS)
if(NOT VORLINKIT_HAVE_STD_FORMAT AND NOT TARGET fmt::fmt-header-only)
  find_package(fmt CONFIG QUIET)
  if(NOT fmt_FOUND)
    vorlinkit_need("fmt, since this standard library has no <format>" libfmt-dev)
  endif()
endif()

# The generator runs with 3.11 or later; the extension module is built for 3.11 itself.
if(VORLINKIT_BUILD_PYTHON)
  find_package(Python 3.11 EXACT COMPONENTS Interpreter Development.Module)
  if(NOT Python_Development.Module_FOUND)
    vorlinkit_need("CPython 3.11 with its headers" python3-dev)
  endif()
  find_path(VORLINKIT_PYBIND11_INCLUDE_DIR pybind11/pybind11.h)
  if(NOT VORLINKIT_PYBIND11_INCLUDE_DIR)
    vorlinkit_need("pybind11" pybind11-dev)
  else()
    # The module uses parts of it that may change: tested from Debian's version to the newest (scripts/test-newest-pybind11).
    file(STRINGS ${VORLINKIT_PYBIND11_INCLUDE_DIR}/pybind11/detail/common.h vorlinkit_pybind11_version
         REGEX "^#define PYBIND11_VERSION_(MAJOR|MINOR) ")
    string(REGEX REPLACE "[^0-9;]*11[^0-9;]*([0-9]+)" "\\1" vorlinkit_pybind11_version "${vorlinkit_pybind11_version}")
    list(JOIN vorlinkit_pybind11_version "." vorlinkit_pybind11_version)
    message(STATUS "Found pybind11 ${vorlinkit_pybind11_version} in ${VORLINKIT_PYBIND11_INCLUDE_DIR}")
    if(vorlinkit_pybind11_version VERSION_LESS 2.10 OR vorlinkit_pybind11_version VERSION_GREATER_EQUAL 4)
      vorlinkit_need("pybind11 2.10 or later and older than 4; what is in ${VORLINKIT_PYBIND11_INCLUDE_DIR} is \
version ${vorlinkit_pybind11_version}" pybind11-dev)
    endif()
  endif()
else()
  find_package(Python 3.11 COMPONENTS Interpreter)
endif()
if(NOT Python_Interpreter_FOUND)
  vorlinkit_need("Python 3.11, which runs the code generator" python3)
endif()

if(VORLINKIT_BUILD_TESTS)
  # Built from source, so that the tests use the compiler and standard library of the build.
  find_path(VORLINKIT_GTEST_SOURCE_DIR googletest/src/gtest-all.cc PATHS /usr/src/googletest NO_CMAKE_FIND_ROOT_PATH)
  if(NOT VORLINKIT_GTEST_SOURCE_DIR)
    vorlinkit_need("GoogleTest, as source" googletest)
  endif()
endif()

if(vorlinkit_missing)
  message(FATAL_ERROR "VorlinKit cannot be built here yet. Missing:\n${vorlinkit_missing}"
                      "On Debian 12, scripts/setup installs all of it.")
endif()
