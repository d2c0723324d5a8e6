#include "Library.h"

#include <exception>

#include "InterfaceContract/OutSlot.h"
#include "LocalStorageClient.h"
#include "LogLine.h"
#include "RemoteStorageClient.h"

namespace Quorvendale::StorageClient {

void Library::createRemoteStorageClient(const std::string& address, std::uint32_t port,
                                        IStorage** out) {
    InterfaceContract::handOut(*new RemoteStorageClient(address, port), IID_IStorage, out);
}

// A client that cannot connect is no failure of the call: the caller gets
// S_OK and a null pointer, and the reason goes to standard output.
void Library::createUwpLocalStorageClient(IStorage** out) {
    IStorage* client = nullptr;
    try {
        InterfaceContract::handOut(*newLocalStorageClient(), IID_IStorage, &client);
    } catch (const std::exception& error) {
        logLine("Error: UwpClient connection failed");
        logLine(error.what());
    } catch (...) {
        logLine("Error: UwpClient connection failed (unknown exception)");
    }
    InterfaceContract::assignOutSlot(out, client);
    if (client != nullptr) client->table->release(client);
}

}  // namespace Quorvendale::StorageClient
