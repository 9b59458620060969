# For wheels: programs for any Linux with glibc 2.17 or later, compiled with zig, which brings a clang, the C++ library
# (linked in) and the symbols of every glibc. The including file says for which processor.
set(CMAKE_SYSTEM_NAME Linux)
find_program(VORLINKIT_ZIG zig REQUIRED)
set(CMAKE_CXX_COMPILER ${VORLINKIT_ZIG} c++)
set(CMAKE_CXX_COMPILER_TARGET ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu.2.17)
set(CMAKE_CXX_ARCHIVE_CREATE "${VORLINKIT_ZIG} ar qcs <TARGET> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "")
# zig keeps what it has compiled by itself; another cache in front of it, or headers parsed ahead, only get in its way.
set(CMAKE_CXX_COMPILER_LAUNCHER "")
set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
# Nothing of it names a folder of the computer that built it.
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH vorlinkit_sources)
cmake_path(GET vorlinkit_sources PARENT_PATH vorlinkit_sources)
set(CMAKE_CXX_FLAGS_INIT -fmacro-prefix-map=${vorlinkit_sources}/=)

# Debian packages for that processor, unpacked (scripts/wheel): headers of asio, pybind11 and CPython. Nothing of this
# system is found by itself.
set(VORLINKIT_WHEEL_ROOT "" CACHE PATH "Where the Debian packages are unpacked")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VORLINKIT_WHEEL_ROOT)
set(CMAKE_FIND_ROOT_PATH ${VORLINKIT_WHEEL_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# A finalising interpreter ends threads with the unwinder of libgcc_s. What it meets in our frames has to speak to that
# one, and not to one of our own: the process would crash (docs/decisions/wheels.md).
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${VORLINKIT_WHEEL_ROOT}/lib/${CMAKE_SYSTEM_PROCESSOR}-linux-gnu/libgcc_s.so.1)
