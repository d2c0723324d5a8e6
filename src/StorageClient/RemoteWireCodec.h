// The wire format of the remote storage protocol.
//
// Frame, both directions: an 8-byte little-endian length counting the body
// that follows, then the body. Inside a body, integers are unsigned LEB128
// varints and a string is its byte length as a varint followed by the bytes.
//
//   request body:  version 0 (varint), command (1 byte), group, key, data
//   response body: version (varint, only 0 is understood), status (1 byte,
//                  1 = success), payload (on failure the server's text)
//
// Bytes after the response payload are ignored.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvendale::StorageClient {

enum class RemoteCommand : std::uint8_t {
    Read = 0,
    Write = 1,
    Remove = 2,
    Next = 3,
    Exists = 4,
};

// A command and always all three strings, empty where the command has no use
// for them. Strings are raw bytes: no conversion, no terminator.
struct RemoteRequest {
    RemoteCommand command;
    std::string group;
    std::string key;
    std::string data;
};

struct RemoteResponse {
    static constexpr std::uint8_t successStatus = 1;

    std::uint8_t status = 0;
    std::string payload;
};

inline constexpr std::size_t frameLengthSize = 8;

std::array<char, frameLengthSize> encodeFrameLength(std::uint64_t length) noexcept;
std::uint64_t decodeFrameLength(const std::array<char, frameLengthSize>& bytes) noexcept;

void appendVarint(std::string& out, std::uint64_t value);

// Reads the varint at `position` and moves `position` past it. Throws
// std::runtime_error when the bytes end inside it or it does not fit 64 bits;
// never reads outside `bytes`.
std::uint64_t readVarint(std::string_view bytes, std::size_t& position);

std::string encodeRequest(const RemoteRequest& request);

// A version other than 0 throws std::runtime_error "need VersionConverter
// implementation". A body too short for its own lengths throws
// std::runtime_error; nothing outside `body` is ever read.
RemoteResponse decodeResponse(std::string_view body);

}  // namespace Quorvendale::StorageClient
