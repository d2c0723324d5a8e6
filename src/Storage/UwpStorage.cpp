#include "Storage/UwpStorage.h"

#include "Platform/Activation/ApplicationData.h"

namespace Quorvendale::Storage {

UwpStorage& UwpStorage::instance() {
    static UwpStorage storage;
    return storage;
}

std::u16string UwpStorage::getRootFolder() {
    return Platform::ApplicationData::Current().LocalFolder().Path().str();
}

}  // namespace Quorvendale::Storage
