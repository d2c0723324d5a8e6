// AppServiceConnection: a message channel between two processes over a
// connected stream socket, one end per side. Either side may send requests
// (SendMessageAsync) and receive them (RequestReceived); several requests may
// be in flight at once, each answer matched to its request by id.
//
// A client makes a new connection, names the app service and the package
// that provides it, and opens it (OpenAsync): the session bus starts the
// package's host if it is not running, and the host answers with its end of
// a socket. The host wraps its own end with fromSocket.
//
// Copies share one connection. The connection ends when its last copy goes,
// on Close(), when the peer ends the stream, or when the peer sends a frame
// that cannot be decoded. Then every request still waiting for its answer
// completes with AppServiceResponseStatus::Failure; if the peer ended it,
// ServiceClosed is raised. While open, a connection keeps the handlers
// registered on it (and whatever they hold) alive; its end releases them.
//
// Events are raised on the runtime's thread pool, requests concurrently.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/AppService/AppServiceClosedEventArgs.h"
#include "Platform/AppService/AppServiceConnectionStatus.h"
#include "Platform/AppService/AppServiceRequestReceivedEventArgs.h"
#include "Platform/AppService/AppServiceResponse.h"
#include "Platform/Foundation/IAsyncOperation.h"
#include "Platform/Foundation/ValueSet.h"
#include "Platform/Foundation/event.h"

namespace Quorvendale::Platform {

namespace Details {
class AppServiceChannel;
class ChannelLoop;
class ConnectionObject;
}  // namespace Details

class QV_PLATFORM_API AppServiceConnection {
public:
    using RequestReceivedHandler =
        std::function<void(const AppServiceConnection&, const AppServiceRequestReceivedEventArgs&)>;
    using ServiceClosedHandler =
        std::function<void(const AppServiceConnection&, const AppServiceClosedEventArgs&)>;

    // A new connection, not open yet.
    AppServiceConnection();
    // No connection at all: the empty value of a field that has not been set
    // yet. Every member but operator bool raises E_POINTER on it.
    AppServiceConnection(std::nullptr_t) noexcept {}
    explicit operator bool() const noexcept { return object_ != nullptr; }

    // An open connection over a connected stream socket (one end of a
    // socketpair, say), which it starts reading from and closes at its end.
    // `client` names the peer process, whose connections share one budget
    // of memory and turns; 0: the peer is this connection alone. `loop`:
    // the loop that serves it; none: the process's own.
    static AppServiceConnection fromSocket(int descriptor, std::uint64_t client = 0,
                                           std::shared_ptr<Details::ChannelLoop> loop = nullptr);

    // What OpenAsync opens: the app service's name, as its package declares
    // it, and the package's family name. Set them before opening.
    void AppServiceName(const hstring& name) const;
    void PackageFamilyName(const hstring& name) const;

    // Asks the session bus for the app service; the connection is open once
    // this completes with Success. Never throws and never waits for good:
    // every failure to reach the bus or the service, a bus that cannot pass
    // the socket among them, completes with a status within the bus call's
    // time-out (30 s). Fails with E_ILLEGAL_METHOD_CALL on a connection that
    // is open, opening or closed.
    IAsyncOperation<AppServiceConnectionStatus> OpenAsync() const;

    // Completes with the peer's answer; with MessageSizeTooLarge, sending
    // nothing, if the message does not fit in a frame; with Failure if the
    // connection ends first or the peer refuses the request. Raises
    // E_ILLEGAL_METHOD_CALL on a connection that was never opened.
    IAsyncOperation<AppServiceResponse> SendMessageAsync(const ValueSet& message) const;

    // Handlers may be registered before the connection is open.
    event_token RequestReceived(RequestReceivedHandler handler) const;
    event_token ServiceClosed(ServiceClosedHandler handler) const;

    // Ends the connection now, for both sides; the peer sees the stream end.
    // A connection closed before it was opened can no longer be opened.
    void Close() const;

    // For the runtime's own use: runs the handler once when the open
    // connection ends, whatever ended it (at once, on the pool, if it already
    // has).
    void whenEnded(std::function<void()> handler) const;

private:
    friend class Details::AppServiceChannel;
    explicit AppServiceConnection(std::shared_ptr<Details::ConnectionObject> object)
        : object_(std::move(object)) {}
    Details::ConnectionObject& object() const;

    std::shared_ptr<Details::ConnectionObject> object_;
};

}  // namespace Quorvendale::Platform
