// The one place that decides where formatting comes from: the standard library where it has <format>,
// the fmt library elsewhere. The build pins its choice in VORLINKIT_FORMAT_FMT and hands it on to
// consumers, so that a program and the library it links never disagree about the type of format_args.
#pragma once

#include <version>

#ifndef VORLINKIT_FORMAT_FMT
#ifdef __cpp_lib_format
#define VORLINKIT_FORMAT_FMT 0
#else
#define VORLINKIT_FORMAT_FMT 1
#endif
#endif

#if VORLINKIT_FORMAT_FMT
#include <fmt/core.h>
#include <fmt/format.h>
#else
#include <format>
#endif

namespace vorlinkit {

#if VORLINKIT_FORMAT_FMT
namespace formatting = ::fmt;
using format_args = ::fmt::format_args;
using format_error = ::fmt::format_error;
#else
namespace formatting = ::std;
using format_args = ::std::format_args;
using format_error = ::std::format_error;
#endif

} // namespace vorlinkit
