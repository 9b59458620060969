// The one way asio enters the library: the switches that the two compilers need, then the header.
#pragma once

// clang with libc++ is not on asio's list of compilers that have coroutines.
#ifndef ASIO_HAS_CO_AWAIT
#define ASIO_HAS_CO_AWAIT 1
#endif
#ifndef ASIO_HAS_STD_COROUTINE
#define ASIO_HAS_STD_COROUTINE 1
#endif
// Compiled once, in Asio.cpp.
#ifndef ASIO_SEPARATE_COMPILATION
#define ASIO_SEPARATE_COMPILATION 1
#endif
#ifndef ASIO_NO_DEPRECATED
#define ASIO_NO_DEPRECATED 1
#endif

// asio uses std::exception_ptr and std::exchange without including them.
#include <exception>
#include <utility>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#include <asio.hpp>
#pragma GCC diagnostic pop
