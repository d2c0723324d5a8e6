#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/Foundation/HoldCount.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform::Details {

// A request received from the peer, open while its handlers run and while a
// deferral on it is outstanding. The handlers hold it, and each deferral. The memory its frame
// took stays taken from its client's share until the request goes.
struct IncomingRequest {
    IncomingRequest(std::shared_ptr<AppServiceChannel> from, std::uint64_t id, ValueSet received,
                    std::size_t heldBytes)
        : channel(std::move(from)),
          client(channel->client()),
          requestId(id),
          message(std::move(received)),
          held(heldBytes) {}
    ~IncomingRequest() { channel->giveBack(held + admitted); }
    IncomingRequest(const IncomingRequest&) = delete;
    IncomingRequest& operator=(const IncomingRequest&) = delete;

    AppServiceResponseStatus respond(const ValueSet& response);
    void takeHold();
    // Drops one hold; the last one refuses the request if it was never answered.
    void dropHold();

    const std::shared_ptr<AppServiceChannel> channel;
    const ClientId client;
    const std::uint64_t requestId;
    const ValueSet message;
    const std::size_t held;
    // What its service was let hold for it besides (ChannelLoop::admit).
    std::atomic<std::size_t> admitted{0};

private:
    HoldCount holds_;  // the handlers' own, dropped when they return
    // Held while the answer or the refusal is written, so that only one of
    // them leaves: taken before the channel's write lock, never after it.
    Mutex mutex_;
    bool answered_ QV_GUARDED_BY(mutex_) = false;
};

}  // namespace Quorvendale::Platform::Details
