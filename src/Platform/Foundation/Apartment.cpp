#include "Platform/Foundation/Apartment.h"

namespace Quorvendale::Platform {
namespace {

struct ApartmentRecord {
    DWORD model = 0;
    unsigned initialisations = 0;
};

thread_local ApartmentRecord apartment;

}  // namespace

HRESULT CoInitializeEx(void* reserved, DWORD coInit) noexcept {
    if (reserved != nullptr) return E_INVALIDARG;
    if (coInit != COINIT_MULTITHREADED && coInit != COINIT_APARTMENTTHREADED) return E_INVALIDARG;
    if (apartment.initialisations == 0) {
        apartment = {coInit, 1};
        return S_OK;
    }
    if (apartment.model != coInit) return RPC_E_CHANGED_MODE;
    ++apartment.initialisations;
    return S_FALSE;
}

void CoUninitialize() noexcept {
    if (apartment.initialisations > 0) --apartment.initialisations;
}

}  // namespace Quorvendale::Platform
