// com_ptr: the owning pointer to a runtime object, one reference per copy;
// make, which creates an object and takes its first reference; and as, the
// runtime's QueryInterface.
#pragma once

#include <cstddef>
#include <utility>

#include "Platform/Foundation/HResultError.h"
#include "Platform/Foundation/RuntimeObject.h"

namespace Quorvendale::Platform {

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
