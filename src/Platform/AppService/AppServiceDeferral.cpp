#include "Platform/AppService/AppServiceDeferral.h"

#include <atomic>

#include "Platform/AppService/IncomingRequest.h"

namespace Quorvendale::Platform {

struct AppServiceDeferral::State {
    explicit State(std::shared_ptr<Details::IncomingRequest> held) : request(std::move(held)) {
        request->takeHold();
    }
    // A deferral dropped without Complete (its handler failed) still lets the
    // request go, so that the requester is not left waiting.
    ~State() { complete(); }
    void complete() {
        if (!completed.exchange(true)) request->dropHold();
    }
    std::shared_ptr<Details::IncomingRequest> request;
    std::atomic<bool> completed{false};
};

AppServiceDeferral AppServiceDeferral::holding(std::shared_ptr<Details::IncomingRequest> request) {
    return AppServiceDeferral(std::make_shared<State>(std::move(request)));
}

void AppServiceDeferral::Complete() const { state_->complete(); }

}  // namespace Quorvendale::Platform
