// Bounded waits for tests: a test that fails must fail, never hang ctest.
#pragma once

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "Platform/Foundation/IAsyncOperation.h"

namespace Quorvendale::Testing {

inline constexpr std::chrono::seconds patience{20};

// The operation's result once it has ended; a std::runtime_error if it has
// not ended within the limit.
template <class T>
T await(const Platform::IAsyncOperation<T>& operation, std::chrono::milliseconds limit = patience) {
    auto ended = std::make_shared<std::promise<void>>();
    auto future = ended->get_future();
    operation.Completed([ended](auto&&, auto&&) { ended->set_value(); });
    if (future.wait_for(limit) != std::future_status::ready) {
        throw std::runtime_error("operation did not end in time");
    }
    return operation.GetResults();
}

// Polls until the condition holds; false if it never did within the limit.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = patience) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace Quorvendale::Testing
