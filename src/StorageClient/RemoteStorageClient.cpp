#include "RemoteStorageClient.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <vector>

#include "InterfaceContract/ErrorReport.h"
#include "Networking/Socket.h"
#include "Networking/TcpClient.h"

namespace Quorvendale::StorageClient {
namespace {

constexpr std::uint32_t connectTimeoutMilliseconds = 3000;
constexpr std::uint32_t receiveTimeoutMilliseconds = 10000;
constexpr std::uint32_t sendTimeoutMilliseconds = 10000;

// The body is received at most this far ahead of what has arrived, so a
// length the server does not honour cannot make us allocate what it never
// sends.
constexpr std::size_t receiveChunk = 64 * 1024;

// Receives exactly `length` bytes into a zero-filled buffer; false on any
// receive error.
bool receiveBody(Networking::Socket& socket, std::uint64_t length, std::vector<char>& body) {
    while (body.size() < length) {
        const std::size_t received = body.size();
        const std::size_t chunk = std::min<std::uint64_t>(length - received, receiveChunk);
        body.resize(received + chunk);
        if (socket.receiveAll(body.data() + received, static_cast<std::int32_t>(chunk)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

RemoteStorageClient::RemoteStorageClient(std::string host, std::uint32_t port)
    : host_(std::move(host)), port_(port) {
    link(storageContainer_, this);
}

std::string RemoteStorageClient::read(const std::string& group, const std::string& key) {
    // The existence probe is a full exchange of its own, through the virtual
    // slot; a server that is not serving gets no read request.
    if (!exists()) return {};
    RemoteResponse response = sendMessage({RemoteCommand::Read, group, key, {}});
    if (response.status != RemoteResponse::successStatus) QV_THROW_ERROR_REPORT(response.payload);
    return std::move(response.payload);
}

void RemoteStorageClient::write(const std::string& group, const std::string& key,
                                const std::string& data) {
    const RemoteResponse response = sendMessage({RemoteCommand::Write, group, key, data});
    if (response.status != RemoteResponse::successStatus) QV_THROW_ERROR_REPORT(response.payload);
}

void RemoteStorageClient::remove(const std::string& group, const std::string& key) {
    const RemoteResponse response = sendMessage({RemoteCommand::Remove, group, key, {}});
    if (response.status != RemoteResponse::successStatus) QV_THROW_ERROR_REPORT(response.payload);
}

std::string RemoteStorageClient::next(const std::string& group, const std::string& key) {
    RemoteResponse response = sendMessage({RemoteCommand::Next, group, key, {}});
    if (response.status != RemoteResponse::successStatus) QV_THROW_ERROR_REPORT(response.payload);
    return std::move(response.payload);
}

bool RemoteStorageClient::exists() {
    return sendMessage({RemoteCommand::Exists, {}, {}, {}}).status == RemoteResponse::successStatus;
}

RemoteResponse RemoteStorageClient::sendMessage(const RemoteRequest& request) {
    // Destroyed on every path, which closes the connection: none outlives
    // the exchange.
    Networking::TcpClient client;
    if (!client.connect(host_.c_str(), port_, connectTimeoutMilliseconds)) {
        QV_THROW_ERROR_REPORT("Failed to connect to tcp server");
    }
    return sendMessage(*client.socket(), request);
}

RemoteResponse RemoteStorageClient::sendMessage(Networking::Socket& socket,
                                                const RemoteRequest& request) {
    const std::string body = encodeRequest(request);
    // The socket layer counts bytes in signed 32 bits.
    if (body.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        throw std::length_error("request too long");
    }
    socket.setReceiveTimeout(receiveTimeoutMilliseconds);
    socket.setSendTimeout(sendTimeoutMilliseconds);
    socket.setBlocking(true);

    const auto requestLength = encodeFrameLength(body.size());
    if (socket.sendAll(requestLength.data(), frameLengthSize) != 0) {
        QV_THROW_ERROR_REPORT("Failed to send message size");
    }
    if (socket.sendAll(body.data(), static_cast<std::int32_t>(body.size())) != 0) {
        QV_THROW_ERROR_REPORT("Failed to send message");
    }

    std::array<char, frameLengthSize> responseLength{};
    if (socket.receiveAll(responseLength.data(), frameLengthSize) != 0) {
        QV_THROW_ERROR_REPORT("Failed to get response");
    }
    const std::uint64_t length = decodeFrameLength(responseLength);
    std::vector<char> response;
    if (length > response.max_size()) throw std::length_error("vector too long");
    if (!receiveBody(socket, length, response)) QV_THROW_ERROR_REPORT("Failed to get response");
    return decodeResponse({response.data(), response.size()});
}

}  // namespace Quorvendale::StorageClient
