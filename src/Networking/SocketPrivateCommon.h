#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "IPEndPoint.h"
#include "SocketAddress.h"
#include "SocketTypes.h"

namespace Quorvendale::Networking {

// The socket implementation behind the Socket facade, as far as it is the
// same on every platform: the handle and what was asked for at creation, the
// `connected` flag, the connect bookkeeping and the error policy of single
// transfers. The platform's system calls sit in one backend file
// (SocketPrivatePosix.cpp, SocketPrivateWin32.cpp); members marked (backend)
// are defined there.
//
// Errors are Windows socket numbers (SocketError.h) on every platform. A
// socket is meant for one user at a time; only `connected` is atomic, so that
// a transfer on one thread sees a failure recorded by another.
class SocketPrivateCommon {
public:
    SocketPrivateCommon(const SocketPrivateCommon&) = delete;
    SocketPrivateCommon& operator=(const SocketPrivateCommon&) = delete;
    // Member clean-up only: closing the handle is the concrete socket's job.
    virtual ~SocketPrivateCommon() = default;

    // Time-outs of blocking receives and sends, in milliseconds (0: none).
    // A failed option call throws SocketErrorException "Failed to set socket
    // option" / "Failed to get socket option" with the error number.
    enum class Timeout { Receive, Send };
    virtual void setReceiveTimeout(std::uint32_t milliseconds) {
        setTimeout(Timeout::Receive, milliseconds);
    }
    virtual std::uint32_t getReceiveTimeout() { return getTimeout(Timeout::Receive); }
    virtual void setSendTimeout(std::uint32_t milliseconds) {
        setTimeout(Timeout::Send, milliseconds);
    }
    virtual std::uint32_t getSendTimeout() { return getTimeout(Timeout::Send); }

    // Switches blocking mode; true on success. Never throws.
    virtual bool setBlocking(bool blocking) noexcept = 0;
    // Wraps an existing handle, which the new object then owns.
    virtual std::unique_ptr<SocketPrivateCommon> createFromHandle(SocketHandle handle) const = 0;
    // Connects within `timeoutMilliseconds`; true only for a real connection.
    // A socket connected at the first attempt stays non-blocking.
    virtual bool connectNative(const SocketAddress& address,
                               std::uint32_t timeoutMilliseconds) noexcept = 0;
    virtual void closeHandle(SocketHandle handle) noexcept = 0;
    // The calling thread's last socket error number.
    virtual std::int32_t lastError() const noexcept = 0;

    // connectNative; on success sets `connected` and records the peer.
    bool connect(const IPEndPoint& endPoint, const SocketAddress& address,
                 std::uint32_t timeoutMilliseconds);

    // One send / receive system call. `error` becomes 0 or the failure's
    // number; the result is the byte count, 0 on failure. A receive of 0
    // bytes when some were asked for means the peer closed: WSAENOTCONN. A
    // failure other than a transient one (would block, pending, no buffers)
    // clears `connected`. A null send buffer throws NetworkException.
    std::int32_t sendSome(const char* buffer, std::int32_t length, std::int32_t flags,
                          std::int32_t& error);
    std::int32_t receiveSome(char* buffer, std::int32_t length, std::int32_t flags,
                             std::int32_t& error);

    bool connected() const noexcept { return connected_.load(); }
    const IPEndPoint& remoteEndPoint() const noexcept { return remoteEndPoint_; }
    std::int32_t family() const noexcept { return family_; }

protected:
    SocketPrivateCommon(std::int32_t family, std::int32_t type, std::int32_t protocol) noexcept
        : family_(family), type_(type), protocol_(protocol) {}

    SocketHandle handle_ = INVALID_SOCKET;
    std::int32_t family_;
    std::int32_t type_;
    IPEndPoint remoteEndPoint_;
    std::atomic<bool> connected_{false};
    std::int32_t protocol_;

private:
    // The option call of one time-out. (backend)
    void setTimeout(Timeout which, std::uint32_t milliseconds);
    std::uint32_t getTimeout(Timeout which);
    // The bare system calls: the count, or -1 with the thread's last error
    // set. (backend)
    std::int32_t sendNative(const char* buffer, std::int32_t length, std::int32_t flags) noexcept;
    std::int32_t receiveNative(char* buffer, std::int32_t length, std::int32_t flags) noexcept;
    bool failureEndsConnection(std::int32_t error) const noexcept;
};

}  // namespace Quorvendale::Networking
