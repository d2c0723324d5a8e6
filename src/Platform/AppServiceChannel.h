// The machinery behind AppServiceConnection: the socket, the reader thread,
// the requests waiting for answers and the requests being answered.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "AppServiceConnection.h"
#include "AppServiceFrame.h"

namespace Quorvendale::Platform::Details {

class AppServiceChannel : public std::enable_shared_from_this<AppServiceChannel> {
public:
    explicit AppServiceChannel(int descriptor) noexcept : descriptor_(descriptor) {}
    ~AppServiceChannel();

    // The handle that AppServiceConnection copies share: when its last copy
    // goes, the channel closes. Starts the reader thread.
    static std::shared_ptr<AppServiceChannel> open(int descriptor);

    IAsyncOperation<AppServiceResponse> sendRequest(const ValueSet& message);
    // Writes a whole frame; false if the connection has ended.
    bool write(const std::string& frame);
    void whenEnded(std::function<void()> handler);
    void close(bool byPeer);

    event<const AppServiceConnection&, const AppServiceRequestReceivedEventArgs&> requestReceived;
    event<const AppServiceConnection&, const AppServiceClosedEventArgs&> serviceClosed;

private:
    void readFrames();
    std::optional<AppServiceFrame> readFrame();
    bool readExactly(char* into, std::size_t size);
    void dispatch(AppServiceFrame&& frame);
    void raiseRequest(std::uint64_t requestId, ValueSet message);
    void answer(std::uint64_t requestId, AppServiceResponse response);

    const int descriptor_;
    std::weak_ptr<AppServiceChannel> handle_;
    std::mutex writeMutex_;
    std::mutex mutex_;
    bool closed_ = false;
    std::uint64_t lastRequestId_ = 0;
    std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting_;
    event<> ended_;
};

// A request received from the peer, open while its handlers run and while a
// deferral on it is outstanding. Holds counts both.
struct IncomingRequest {
    IncomingRequest(std::shared_ptr<AppServiceChannel> from, std::uint64_t id, ValueSet received)
        : channel(std::move(from)), requestId(id), message(std::move(received)) {}

    AppServiceResponseStatus respond(const ValueSet& response);
    void hold();
    // Drops one hold; the last one refuses the request if it was never answered.
    void release();

    const std::shared_ptr<AppServiceChannel> channel;
    const std::uint64_t requestId;
    const ValueSet message;

private:
    std::mutex mutex_;
    unsigned holds_ = 1;  // the handlers' own, dropped when they return
    bool answered_ = false;
};

}  // namespace Quorvendale::Platform::Details
