#include "Platform/Activation/Module.h"

namespace Quorvendale::Platform {

const hstring& hstringOf(HSTRING text) noexcept {
    static const hstring empty;
    return text == nullptr ? empty : *reinterpret_cast<const hstring*>(text);
}

HRESULT Module::GetActivationFactory(HSTRING activatableClassId,
                                     IActivationFactory** factory) const noexcept {
    if (factory == nullptr) return E_POINTER;
    *factory = nullptr;
    const hstring& name = hstringOf(activatableClassId);
    for (const Class& candidate : classes_) {
        if (std::u16string_view(name) != candidate.runtimeClassName) continue;
        try {
            *factory = candidate.makeFactory().detach();
            return S_OK;
        } catch (...) {
            return E_OUTOFMEMORY;
        }
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

}  // namespace Quorvendale::Platform
