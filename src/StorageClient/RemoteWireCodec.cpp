#include "RemoteWireCodec.h"

#include <stdexcept>

namespace Quorvendale::StorageClient {
namespace {

constexpr std::uint64_t formatVersion = 0;

void appendString(std::string& out, const std::string& text) {
    appendVarint(out, text.size());
    out += text;
}

[[noreturn]] void throwTruncated() {
    throw std::runtime_error("response body is shorter than its own lengths");
}

}  // namespace

std::array<char, frameLengthSize> encodeFrameLength(std::uint64_t length) noexcept {
    std::array<char, frameLengthSize> bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(length >> (8 * i));
    }
    return bytes;
}

std::uint64_t decodeFrameLength(const std::array<char, frameLengthSize>& bytes) noexcept {
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        length |= std::uint64_t{static_cast<std::uint8_t>(bytes[i])} << (8 * i);
    }
    return length;
}

void appendVarint(std::string& out, std::uint64_t value) {
    while (value >= 0x80) {
        out += static_cast<char>((value & 0x7F) | 0x80);
        value >>= 7;
    }
    out += static_cast<char>(value);
}

std::uint64_t readVarint(std::string_view bytes, std::size_t& position) {
    std::uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
        if (position >= bytes.size()) throwTruncated();
        const auto byte = static_cast<std::uint8_t>(bytes[position++]);
        const std::uint64_t bits = byte & 0x7F;
        // The tenth byte has room for the 64th bit only.
        if (shift > 63 || (shift == 63 && bits > 1)) {
            throw std::runtime_error("varint does not fit 64 bits");
        }
        value |= bits << shift;
        if ((byte & 0x80) == 0) return value;
    }
}

std::string encodeRequest(const RemoteRequest& request) {
    std::string body;
    body.reserve(8 + request.group.size() + request.key.size() + request.data.size() + 3 * 10);
    appendVarint(body, formatVersion);
    body += static_cast<char>(request.command);
    appendString(body, request.group);
    appendString(body, request.key);
    appendString(body, request.data);
    return body;
}

RemoteResponse decodeResponse(std::string_view body) {
    std::size_t position = 0;
    if (readVarint(body, position) != formatVersion) {
        throw std::runtime_error("need VersionConverter implementation");
    }
    if (position >= body.size()) throwTruncated();
    RemoteResponse response;
    response.status = static_cast<std::uint8_t>(body[position++]);
    const std::uint64_t length = readVarint(body, position);
    if (length > body.size() - position) throwTruncated();
    response.payload.assign(body.substr(position, length));
    return response;
}

}  // namespace Quorvendale::StorageClient
