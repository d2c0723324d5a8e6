// AppServiceFrame: one message on an app-service connection's stream.
//
//   u32 body length (little-endian, at most maximumBodySize), then the body:
//   u8  kind            1 request, 2 response, 3 refusal (a request that got no answer)
//   u64 request id      chosen by the requesting side, echoed by the answer
//   u32 entry count
//   per entry: u32 key length, key as UTF-16LE code units,
//              u8 type tag (PropertyType), then the value:
//              Empty: nothing; Int64: 8 bytes; String: u32 length, UTF-16LE code units
//
// Strings travel as code units, so embedded NULs and unpaired surrogates
// arrive unchanged. The decoder trusts nothing: any inconsistency is a
// MalformedFrame, and the connection that received it is closed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Platform/Foundation/ValueSet.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API MalformedFrame : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct QV_PLATFORM_API AppServiceFrame {
    enum class Kind : std::uint8_t { Request = 1, Response = 2, Refusal = 3 };

    static constexpr std::size_t lengthSize = 4;
    static constexpr std::size_t maximumBodySize = 64u << 20;

    Kind kind = Kind::Request;
    std::uint64_t requestId = 0;
    ValueSet message;

    // The whole frame, length first; nothing when the body would exceed
    // maximumBodySize.
    std::optional<std::string> encode() const;

    // The body length announced by the first lengthSize bytes of a frame;
    // MalformedFrame above maximumBodySize.
    static std::size_t bodyLength(std::string_view lengthBytes);
    // A frame from its body (the bytes after the length).
    static AppServiceFrame decode(std::string_view body);
};

}  // namespace Quorvendale::Platform
