#include "StorageServiceActivationFactory.h"

#include "ServiceIdentity.h"
#include "StorageService.h"

namespace Quorvendale::Storage {

Platform::Module& libraryModule() {
    static Platform::Module module{
        {ServiceIdentity::serviceClassName,
         [] {
             return Platform::com_ptr<Platform::IActivationFactory>(
                 Platform::make<__StorageServiceActivationFactory>());
         }},
    };
    return module;
}

Platform::hstring __StorageServiceActivationFactory::GetRuntimeClassName() const {
    return u"Quorvendale.Storage.__StorageServiceActivationFactory";
}

Platform::com_ptr<Platform::IInspectable> __StorageServiceActivationFactory::ActivateInstance() {
    return Platform::make<StorageService>();
}

}  // namespace Quorvendale::Storage
