#pragma once

#include <cstdint>
#include <string>

#include "BasicStorageClient.h"
#include "RemoteWireCodec.h"

namespace Quorvendale::Networking {
class Socket;
}

namespace Quorvendale::StorageClient {

// The storage client of a remote storage server (RemoteWireCodec.h has the
// protocol). Every operation is one exchange on a TCP connection of its own:
// connect within 3 s, send one framed request, read one framed response,
// close; `read` costs two, its existence probe first. No connection state is
// kept, so calls from several threads share nothing but the two read-only
// fields.
//
// The host text goes to an address parser that accepts no text form, so
// every operation ends, before a byte is sent, with the NetworkException
// "hostname is invalid or requires DNS lookup, which is not supported yet".
// Other failures are error reports (std::runtime_error), the server's own
// text among them.
class RemoteStorageClient : public BasicStorageClient {
public:
    // Stores both as they are; opens no connection and checks nothing.
    RemoteStorageClient(std::string host, std::uint32_t port);

    std::string read(const std::string& group, const std::string& key) override;
    void write(const std::string& group, const std::string& key, const std::string& data) override;
    void remove(const std::string& group, const std::string& key) override;
    std::string next(const std::string& group, const std::string& key) override;
    // True when the server answers with success; false on any other status.
    // A failed exchange throws.
    bool exists() override;

    // Everything an exchange does once connected, over `socket`: sets 10 s
    // receive and send time-outs and blocking mode, sends the framed request,
    // receives and decodes the framed response. The connection is left to the
    // caller to close. Failures are the error reports "Failed to send message
    // size", "Failed to send message" and "Failed to get response"; a response
    // length no buffer can hold is std::length_error "vector too long".
    static RemoteResponse sendMessage(Networking::Socket& socket, const RemoteRequest& request);

protected:
    // One exchange on a fresh connection to the stored host and port.
    //
    // Virtual only so that tests can run the operations against a server
    // they connected to themselves; the client itself never overrides it.
    virtual RemoteResponse sendMessage(const RemoteRequest& request);

private:
    InterfaceContract::InterfaceContainer<IStorage, RemoteStorageClient> storageContainer_;

    const std::string host_;
    const std::uint32_t port_;
};

}  // namespace Quorvendale::StorageClient
