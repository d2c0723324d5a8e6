// The activation side of the library: the factory of StorageService and the
// module object behind DllGetActivationFactory and DllCanUnloadNow.
#pragma once

#include "Platform/Activation/Module.h"

namespace Quorvendale::Storage {

// The library's module: its one activatable class,
// "Quorvendale.Storage.StorageService", and the count of its live objects
// (services and factories).
Platform::Module& libraryModule();

class __StorageServiceActivationFactory final : public Platform::IActivationFactory {
public:
    Platform::hstring GetRuntimeClassName() const override;
    // A new StorageService on every call.
    Platform::com_ptr<Platform::IInspectable> ActivateInstance() override;

private:
    Platform::Module::LiveObject live_{libraryModule()};
};

}  // namespace Quorvendale::Storage
