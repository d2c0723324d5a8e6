// TextMode: values are kept in the C runtime's text mode of the platform the
// store comes from. A line feed is stored as carriage return plus line feed;
// on reading, a carriage return plus line feed comes back as a line feed and
// a byte 0x1A ends the content. A lone carriage return is kept both ways.
//
// These are the byte rules alone; FileSystem applies them to files.
#pragma once

#include <cstddef>
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
// before the end.
std::size_t decode(char* bytes, std::size_t size);

// The first carriage return or 0x1A at or after `from`, or `end`: the only
// bytes that reading changes. findMark uses the fastest scan the processor
// has; findMarkPortable is the scan for any processor, given here so that
// tests hold the two to the same answers.
const char* findMark(const char* from, const char* end);
const char* findMarkPortable(const char* from, const char* end);

}  // namespace Quorvendale::Storage::TextMode
