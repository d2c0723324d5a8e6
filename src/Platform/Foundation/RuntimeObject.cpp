#include "Platform/Foundation/RuntimeObject.h"

namespace Quorvendale::Platform {

IInspectable::~IInspectable() = default;

std::uint32_t IInspectable::AddRef() noexcept {
    return references_.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint32_t IInspectable::Release() noexcept {
    const std::uint32_t left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
}

}  // namespace Quorvendale::Platform
