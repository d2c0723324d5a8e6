// TextMode: values are kept in the C runtime's text mode of the platform the
// store comes from. A line feed is stored as carriage return plus line feed;
// on reading, a carriage return plus line feed comes back as a line feed and
// a byte 0x1A ends the content. A lone carriage return is kept both ways.
//
// These are the byte rules alone; FileSystem applies them to files.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace Quorvendale::Storage::TextMode {

// True when storing the value changes it, that is when it holds a line feed.
bool changesOnWrite(std::string_view value);

// Puts the start of `value` into `out` as it is stored, until the value is
// used up or `out` has no room left for a line end; gives the number of bytes
// put and drops what it took from `value`. `room` must be at least 2.
std::size_t encode(std::string_view& value, char* out, std::size_t room);

// The most bytes that encoding a value of `size` bytes can give.
constexpr std::size_t encodedSizeLimit(std::size_t size) { return 2 * size; }

// Turns stored bytes into the value, in place; gives the value's length.
// The bytes move down at most once, and not at all when nothing is dropped
// before the end. decode uses decoderInUse(); decodePortable is the way for
// any processor, which every other decoder must match byte for byte.
std::size_t decode(char* bytes, std::size_t size);
std::size_t decodePortable(char* bytes, std::size_t size);

// One way of decoding, as decode does, named "avx512", "avx2" or "portable".
struct Decoder {
    std::string_view name;
    std::size_t (*decode)(char* bytes, std::size_t size);
};

// Every decoder this processor runs, the fastest first, the portable one last.
std::span<const Decoder> decoders();

// The decoder decode uses, chosen at the first call: the one the environment
// variable QV_TEXT_DECODER names, else the fastest.
const Decoder& decoderInUse();

}  // namespace Quorvendale::Storage::TextMode
