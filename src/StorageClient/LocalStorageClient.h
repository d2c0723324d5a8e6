// The client of the local storage service, as far as a build has one. Each
// build compiles one file that defines newLocalStorageClient.
#pragma once

#include "BasicStorageClient.h"

namespace Quorvendale::StorageClient {

// A new client of the local storage service, connected, with no reference
// taken yet. Throws a std::exception when it cannot connect, and always in a
// build that carries no local client.
BasicStorageClient* newLocalStorageClient();

}  // namespace Quorvendale::StorageClient
