#pragma once

#include "SocketPrivateNativeBase.h"

namespace Quorvendale::Networking {

// The platform's socket; one backend file per platform defines it
// (SocketPrivatePosix.cpp, SocketPrivateWin32.cpp). Owns its handle: destruction shuts the
// connection down and closes the handle, and never throws.
class SocketPrivate final : public SocketPrivateNativeBase {
public:
    // A new socket. If the system gives no handle, throws std::runtime_error
    // "Failed to create socket".
    SocketPrivate(std::int32_t family, std::int32_t type, std::int32_t protocol);
    // Takes over an existing handle (see SocketPrivateNativeBase).
    explicit SocketPrivate(SocketHandle handle);
    ~SocketPrivate() override;

    bool setBlocking(bool blocking) noexcept override;
    std::unique_ptr<SocketPrivateCommon> createFromHandle(SocketHandle handle) const override;
    bool connectNative(const SocketAddress& address,
                       std::uint32_t timeoutMilliseconds) noexcept override;
    void closeHandle(SocketHandle handle) noexcept override;
    std::int32_t lastError() const noexcept override;

private:
    // Whatever the platform's socket library needs once per process before
    // its first socket.
    static void startUp() noexcept;
};

}  // namespace Quorvendale::Networking
