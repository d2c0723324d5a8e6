// The library's one plain exported entry.
#include "InterfaceContract/OutSlot.h"
#include "Library.h"

namespace Quorvendale::StorageClient {

// No boundary guard: nothing here fails but the allocation of the Library,
// and that is answered with a code rather than let out.
QV_EXTERN_C QV_EXPORT ResultCode QV_CALL getLibraryInterface(IInterface* loaderHandle,
                                                             ILibrary** out) {
    if (loaderHandle != nullptr) loaderHandle->table->release(loaderHandle);
    if (out == nullptr) return QV_E_POINTER;
    auto* library = new (std::nothrow) Library();
    if (library == nullptr) return QV_E_OUTOFMEMORY;
    InterfaceContract::handOut(*library, IID_ILibrary, out);
    return QV_S_OK;
}

}  // namespace Quorvendale::StorageClient
