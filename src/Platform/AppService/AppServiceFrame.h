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
//
// A large string is never held twice on its way: an encoded frame shares it
// with the message instead of copying it, and the decoder tells its caller
// how far it has read, so that a received frame's bytes can go while the
// string is copied out of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/ValueSet.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API MalformedFrame : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A frame ready to leave: its bytes in order, in pieces. Small fields are
// copied into pieces of its own; a large string is a piece shared with the
// message it came from.
class QV_PLATFORM_API EncodedFrame {
public:
    std::size_t size() const noexcept { return size_; }
    // The bytes from `at` (below size()) to the end of the piece holding it.
    std::string_view piece(std::size_t at) const noexcept;
    // All the bytes in one string.
    std::string joined() const;

private:
    friend class FrameWriter;
    struct Piece {
        std::string bytes;  // when text is empty
        hstring text;
        std::size_t end = 0;  // the offset after it in the frame

        std::string_view view() const noexcept;
    };
    std::vector<Piece> pieces_;
    std::size_t size_ = 0;
};

struct QV_PLATFORM_API AppServiceFrame {
    enum class Kind : std::uint8_t { Request = 1, Response = 2, Refusal = 3 };

    static constexpr std::size_t lengthSize = 4;
    static constexpr std::size_t maximumBodySize = 64u << 20;

    Kind kind = Kind::Request;
    std::uint64_t requestId = 0;
    ValueSet message;

    // Strings of this many bytes or more are shared by an encoded frame, and
    // copied out of a body in steps of this size.
    static constexpr std::size_t largeTextSize = 64u << 10;

    // The whole frame, length first; nothing when the body would exceed
    // maximumBodySize.
    std::optional<EncodedFrame> encode() const;

    // The body length announced by the first lengthSize bytes of a frame;
    // MalformedFrame above maximumBodySize.
    static std::size_t bodyLength(std::string_view lengthBytes);
    // A frame from its body (the bytes after the length). While it copies a
    // large string out, it tells `read` the offset below which it will not
    // look at the body again.
    static AppServiceFrame decode(std::string_view body,
                                  const std::function<void(std::size_t)>& read = nullptr);
};

}  // namespace Quorvendale::Platform
