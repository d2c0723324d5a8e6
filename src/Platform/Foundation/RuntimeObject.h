// IInspectable: the root of every runtime object. Objects are reference
// counted in the object itself, as the platform's are, so a reference can
// cross a plain function boundary (DllGetActivationFactory hands one out
// through a raw out-pointer).
#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Foundation/PlatformExport.h"
#include "Platform/Foundation/hstring.h"

namespace Quorvendale::Platform {

// Interfaces derive from it virtually, so an object that implements several
// has one count. An object is born with no reference; the first com_ptr takes
// it, and the Release that brings the count to zero deletes the object.
class QV_PLATFORM_API IInspectable {
public:
    IInspectable(const IInspectable&) = delete;
    IInspectable& operator=(const IInspectable&) = delete;

    std::uint32_t AddRef() noexcept;
    std::uint32_t Release() noexcept;

    virtual hstring GetRuntimeClassName() const = 0;

protected:
    IInspectable() = default;
    virtual ~IInspectable();

private:
    std::atomic<std::uint32_t> references_{0};
};

}  // namespace Quorvendale::Platform
