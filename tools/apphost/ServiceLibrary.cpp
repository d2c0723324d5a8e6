#include "ServiceLibrary.h"

#include <dlfcn.h>

#include <stdexcept>

namespace Quorvendale::AppHost {

using namespace Platform;

namespace {

void* exported(void* library, const std::string& path, const char* name) {
    void* address = ::dlsym(library, name);
    if (address == nullptr) throw std::runtime_error(path + " does not export " + name);
    return address;
}

}  // namespace

ServiceLibrary::ServiceLibrary(const std::string& path) {
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) throw std::runtime_error("cannot load " + path + ": " + ::dlerror());
    getActivationFactory_ = reinterpret_cast<decltype(getActivationFactory_)>(
        exported(library, path, "DllGetActivationFactory"));
    canUnloadNow_ =
        reinterpret_cast<decltype(canUnloadNow_)>(exported(library, path, "DllCanUnloadNow"));
}

com_ptr<IActivationFactory> ServiceLibrary::factory(const hstring& classId) const {
    IActivationFactory* factory = nullptr;
    const HRESULT result = getActivationFactory_(get_abi(classId), &factory);
    if (result != S_OK) throw HResultError(result);
    return com_ptr<IActivationFactory>::attach(factory);
}

com_ptr<IBackgroundTask> ServiceLibrary::activate(const hstring& classId) const {
    return as<IBackgroundTask>(factory(classId)->ActivateInstance());
}

bool ServiceLibrary::activates(const hstring& classId) const {
    try {
        factory(classId);
        return true;
    } catch (const HResultError&) {
        return false;
    }
}

bool ServiceLibrary::canUnloadNow() const { return canUnloadNow_() == S_OK; }

}  // namespace Quorvendale::AppHost
