#pragma once

#include <memory>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

namespace Details {
struct IncomingRequest;
}  // namespace Details

// Keeps a received request open after its handler returned, so the answer
// may be sent later. Complete it once the answer has been sent. A request
// whose handlers have returned and whose deferrals are all complete (or
// dropped), with no answer sent, is answered with a refusal: the requester
// sees Failure.
class QV_PLATFORM_API AppServiceDeferral {
public:
    void Complete() const;

private:
    friend class AppServiceRequestReceivedEventArgs;
    struct State;
    // A deferral that holds the request until it is completed or dropped.
    static AppServiceDeferral holding(std::shared_ptr<Details::IncomingRequest> request);
    explicit AppServiceDeferral(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

}  // namespace Quorvendale::Platform
