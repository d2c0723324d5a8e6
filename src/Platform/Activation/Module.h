// Activation: the HSTRING handle, and Module, the object
// each library keeps to count its live objects and to find its class
// factories by runtime class name (what DllGetActivationFactory and
// DllCanUnloadNow are built on).
#pragma once

#include <atomic>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "Platform/Activation/IActivationFactory.h"

namespace Quorvendale::Platform {

// A string handle as it crosses a plain function boundary: the address of
// an hstring that the caller keeps alive for the call. Null is the empty text.
struct HSTRING__;
using HSTRING = HSTRING__*;

inline HSTRING get_abi(const hstring& text) noexcept {
    return reinterpret_cast<HSTRING>(const_cast<hstring*>(&text));
}

QV_PLATFORM_API const hstring& hstringOf(HSTRING text) noexcept;

class QV_PLATFORM_API Module {
public:
    struct Class {
        std::u16string_view runtimeClassName;
        com_ptr<IActivationFactory> (*makeFactory)();
    };

    Module(std::initializer_list<Class> classes) : classes_(classes) {}

    // A new factory of the named class in *factory, with one reference for
    // the caller; CLASS_E_CLASSNOTAVAILABLE (and null) for another name.
    HRESULT GetActivationFactory(HSTRING activatableClassId,
                                 IActivationFactory** factory) const noexcept;
    // True when no object of the module is alive.
    bool Terminate() const noexcept { return objects_.load() == 0; }

    // A member of every object the module counts: alive as long as its object.
    class LiveObject {
    public:
        explicit LiveObject(Module& module) noexcept : module_(module) { ++module_.objects_; }
        LiveObject(const LiveObject&) = delete;
        LiveObject& operator=(const LiveObject&) = delete;
        ~LiveObject() { --module_.objects_; }

    private:
        Module& module_;
    };

private:
    std::vector<Class> classes_;
    std::atomic<long> objects_{0};
};

}  // namespace Quorvendale::Platform
