// HResultError: the runtime's error, an HRESULT code with an optional
// restricted message. Like the projection's hresult_error it is not a
// std::exception: code that tells platform errors from standard ones (the
// storage service answers "Unknown exception" for them) depends on that.
#pragma once

#include <cstdint>

#include "Platform/Foundation/PlatformExport.h"
#include "Platform/Foundation/hstring.h"

namespace Quorvendale::Platform {

using HRESULT = std::int32_t;

// The codes the runtime raises or returns, each with the standard Windows
// system text that message() falls back to. Written once; it generates both
// the constants and the text lookup.
#define QV_HRESULT_TABLE(X)                                                                    \
    X(S_OK, 0x00000000, u"The operation completed successfully.")                              \
    X(S_FALSE, 0x00000001, u"Incorrect function.")                                             \
    X(E_NOTIMPL, 0x80004001, u"Not implemented")                                               \
    X(E_NOINTERFACE, 0x80004002, u"No such interface supported")                               \
    X(E_POINTER, 0x80004003, u"Invalid pointer")                                               \
    X(E_FAIL, 0x80004005, u"Unspecified error")                                                \
    X(E_UNEXPECTED, 0x8000FFFF, u"Catastrophic failure")                                       \
    X(E_BOUNDS, 0x8000000B, u"The operation attempted to access data outside the valid range") \
    X(E_CHANGED_STATE, 0x8000000C,                                                             \
      u"A concurrent or interleaved operation changed the state of the object, invalidating "  \
      u"this operation.")                                                                      \
    X(E_ILLEGAL_METHOD_CALL, 0x8000000E, u"A method was called at an unexpected time.")        \
    X(RO_E_CLOSED, 0x80000013, u"The object has been closed.")                                 \
    X(E_INVALIDARG, 0x80070057, u"The parameter is incorrect.")                                \
    X(E_OUTOFMEMORY, 0x8007000E,                                                               \
      u"Not enough memory resources are available to complete this operation.")                \
    X(ERROR_CANCELLED, 0x800704C7, u"The operation was canceled by the user.")                 \
    X(RPC_E_CHANGED_MODE, 0x80010106, u"Cannot change thread mode after it is set.")           \
    X(CLASS_E_CLASSNOTAVAILABLE, 0x80040111, u"ClassFactory cannot supply requested class")    \
    X(APPMODEL_ERROR_NO_PACKAGE, 0x80073D54, u"The process has no package identity.")

#define QV_HRESULT_CONSTANT(name, value, text) \
    inline constexpr HRESULT name = static_cast<HRESULT>(value##u);
QV_HRESULT_TABLE(QV_HRESULT_CONSTANT)
#undef QV_HRESULT_CONSTANT

// The standard system text for a code, or empty text for a code the table
// does not know.
QV_PLATFORM_API hstring systemMessage(HRESULT code);

class QV_PLATFORM_API HResultError {
public:
    explicit HResultError(HRESULT code) noexcept : code_(code) {}
    HResultError(HRESULT code, hstring restrictedMessage)
        : code_(code), restrictedMessage_(std::move(restrictedMessage)) {}

    HRESULT code() const noexcept { return code_; }
    // The restricted message if one was given, else the system text for the
    // code (which may be empty).
    hstring message() const;

private:
    HRESULT code_;
    hstring restrictedMessage_;
};

}  // namespace Quorvendale::Platform
