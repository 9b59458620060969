// src/Platform.cpp compiled with the macros that an Apple system has and without those that only others have, in a
// namespace of its own, so that the tests can run that branch here. The numbers are those of options of this system
// that do the same or can at least be read back.
#include "Platform.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <limits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr int keepIdle = TCP_KEEPIDLE;
} // namespace

#undef __unix__
#undef __linux__
#undef MSG_NOSIGNAL
#undef SIOCOUTQ
#undef SOCK_CLOEXEC
#undef TCP_KEEPIDLE
#undef TCP_USER_TIMEOUT
// NOLINTBEGIN(readability-identifier-naming): names of systems
#define __APPLE__ 1
#define SO_NOSIGPIPE SO_PRIORITY
#define SO_NWRITE SO_ERROR // 0 while nothing is wrong
#define TCP_KEEPALIVE keepIdle
#define TCP_RXT_CONNDROPTIME TCP_LINGER2

#define platform apple_platform
// NOLINTEND(readability-identifier-naming)
#include "../../src/Platform.cpp"
