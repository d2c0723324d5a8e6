#include "BoundaryGuard.h"

#include <new>
#include <stdexcept>

#include "Exception.h"

namespace Quorvendale::InterfaceContract {

std::string& threadMessage() noexcept {
    thread_local std::string message;
    return message;
}

namespace {

ResultCode fail(ResultCode code, const char* message) noexcept {
    // Storing the text may itself run out of memory; the code still gets
    // back to the caller, and the slot keeps whatever it held.
    try {
        threadMessage() = message;
    } catch (...) {
    }
    return code;
}

}  // namespace

ResultCode translateCurrentException() noexcept {
    try {
        throw;
    } catch (const Exception& e) {
        return fail(e.code(), e.message());
    } catch (const std::invalid_argument& e) {
        return fail(QV_E_INVALIDARG, e.what());
    } catch (const std::bad_alloc& e) {
        return fail(QV_E_OUTOFMEMORY, e.what());
    } catch (const std::exception& e) {
        return fail(QV_E_FAIL, e.what());
    } catch (...) {
        return fail(QV_E_FAIL, "");
    }
}

}  // namespace Quorvendale::InterfaceContract
