#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "Platform/AppService/AppServiceChannel.h"

namespace Quorvendale::Platform::Details {

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
    std::mutex mutex_;    // guards holds_ and answered_, and orders the answer's write
    unsigned holds_ = 1;  // the handlers' own, dropped when they return
    bool answered_ = false;
};

}  // namespace Quorvendale::Platform::Details
