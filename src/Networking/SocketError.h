// The socket error numbers of the networking layer: the Windows socket
// numbers, on every platform. Each backend translates its own system errors
// into these at the system call, so callers compare against one numbering.
#pragma once

#include <cstdint>

namespace Quorvendale::Networking {

// Written once; generates the constants.
#define QV_SOCKET_ERROR_TABLE(X) \
    X(WSA_IO_PENDING, 997)       \
    X(WSAEINTR, 10004)           \
    X(WSAEACCES, 10013)          \
    X(WSAEFAULT, 10014)          \
    X(WSAEINVAL, 10022)          \
    X(WSAEMFILE, 10024)          \
    X(WSAEWOULDBLOCK, 10035)     \
    X(WSAEALREADY, 10037)        \
    X(WSAENOTSOCK, 10038)        \
    X(WSAEMSGSIZE, 10040)        \
    X(WSAEPROTOTYPE, 10041)      \
    X(WSAENOPROTOOPT, 10042)     \
    X(WSAEPROTONOSUPPORT, 10043) \
    X(WSAEOPNOTSUPP, 10045)      \
    X(WSAEAFNOSUPPORT, 10047)    \
    X(WSAEADDRINUSE, 10048)      \
    X(WSAEADDRNOTAVAIL, 10049)   \
    X(WSAENETDOWN, 10050)        \
    X(WSAENETUNREACH, 10051)     \
    X(WSAENETRESET, 10052)       \
    X(WSAECONNABORTED, 10053)    \
    X(WSAECONNRESET, 10054)      \
    X(WSAENOBUFS, 10055)         \
    X(WSAEISCONN, 10056)         \
    X(WSAENOTCONN, 10057)        \
    X(WSAESHUTDOWN, 10058)       \
    X(WSAETIMEDOUT, 10060)       \
    X(WSAECONNREFUSED, 10061)    \
    X(WSAEHOSTDOWN, 10064)       \
    X(WSAEHOSTUNREACH, 10065)    \
    X(WSASYSCALLFAILURE, 10107)

#define QV_SOCKET_ERROR_CONSTANT(name, value) inline constexpr std::int32_t name = value;
QV_SOCKET_ERROR_TABLE(QV_SOCKET_ERROR_CONSTANT)
#undef QV_SOCKET_ERROR_CONSTANT

}  // namespace Quorvendale::Networking
