// The runtime's object model. IInspectable: the root of every runtime object, and com_ptr, the
// owning pointer that holds one. Objects are reference counted in the object itself, as the
// platform's are, so a reference can cross a plain function boundary (DllGetActivationFactory hands
// one out through a raw out-pointer).
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "HResultError.h"
#include "PlatformExport.h"
#include "hstring.h"

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

template <class T>
class com_ptr {
public:
    com_ptr() noexcept = default;
    com_ptr(std::nullptr_t) noexcept {}
    explicit com_ptr(T* object) noexcept : object_(object) {
        if (object_ != nullptr) object_->AddRef();
    }
    template <class U>
    com_ptr(const com_ptr<U>& other) noexcept : com_ptr(other.get()) {}
    com_ptr(const com_ptr& other) noexcept : com_ptr(other.object_) {}
    com_ptr(com_ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    com_ptr& operator=(com_ptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~com_ptr() {
        if (object_ != nullptr) object_->Release();
    }

    // Takes over a reference that the caller already owns (an out-pointer's).
    static com_ptr attach(T* object) noexcept {
        com_ptr result;
        result.object_ = object;
        return result;
    }
    // Gives up the reference without releasing it, for an out-pointer.
    T* detach() noexcept { return std::exchange(object_, nullptr); }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    T* object_ = nullptr;
};

template <class T, class... Args>
com_ptr<T> make(Args&&... args) {
    return com_ptr<T>(new T(std::forward<Args>(args)...));
}

// The object's other interface, or E_NOINTERFACE: the runtime's QueryInterface.
template <class To, class From>
com_ptr<To> as(const com_ptr<From>& object) {
    auto* result = dynamic_cast<To*>(object.get());
    if (result == nullptr) throw HResultError(E_NOINTERFACE);
    return com_ptr<To>(result);
}

}  // namespace Quorvendale::Platform
