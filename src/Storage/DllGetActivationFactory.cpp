// The library's activation exports, through which the app-service host
// reaches the storage service class.
#include "Quorvendale/Export.h"
#include "StorageServiceActivationFactory.h"

namespace Quorvendale::Storage {

using Platform::HRESULT;

// A new factory for "Quorvendale.Storage.StorageService" in *factory, with
// one reference for the caller; CLASS_E_CLASSNOTAVAILABLE and null for any
// other class id.
QV_EXTERN_C QV_EXPORT HRESULT DllGetActivationFactory(Platform::HSTRING activatableClassId,
                                                      Platform::IActivationFactory** factory) {
    return libraryModule().GetActivationFactory(activatableClassId, factory);
}

// S_OK once no service or factory of this library is alive, else S_FALSE.
QV_EXTERN_C QV_EXPORT HRESULT DllCanUnloadNow() {
    return libraryModule().Terminate() ? Platform::S_OK : Platform::S_FALSE;
}

}  // namespace Quorvendale::Storage
