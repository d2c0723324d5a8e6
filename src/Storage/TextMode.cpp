#include "Storage/TextMode.h"

#include <algorithm>
#include <bit>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Quorvendale::Storage::TextMode {

namespace {

constexpr char carriageReturn = '\r';
constexpr char lineFeed = '\n';
constexpr char endOfText = '\x1A';

#if defined(__x86_64__)
// Every byte of every value read passes through the scan, and on a value of a
// megabyte two passes of memchr cost as much as the read itself. One pass
// looking for both bytes, 128 at a step, costs little more than one memchr.
[[gnu::target("avx2")]] inline __m256i marksIn(const char* at) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    return _mm256_or_si256(_mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(carriageReturn)),
                           _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(endOfText)));
}

[[gnu::target("avx2")]] const char* findMarkAvx2(const char* from, const char* end) {
    while (end - from >= 128) {
        const __m256i marks = _mm256_or_si256(_mm256_or_si256(marksIn(from), marksIn(from + 32)),
                                              _mm256_or_si256(marksIn(from + 64), marksIn(from + 96)));
        if (!_mm256_testz_si256(marks, marks)) break;
        from += 128;
    }
    for (; end - from >= 32; from += 32) {
        const auto marks = static_cast<unsigned>(_mm256_movemask_epi8(marksIn(from)));
        if (marks != 0) return from + std::countr_zero(marks);
    }
    while (from != end && *from != carriageReturn && *from != endOfText) ++from;
    return from;
}
#endif

using MarkFinder = const char* (*)(const char*, const char*);

MarkFinder chooseMarkFinder() {
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) return findMarkAvx2;
#endif
    return findMarkPortable;
}

}  // namespace

bool changesOnWrite(std::string_view value) {
    return value.find(lineFeed) != std::string_view::npos;
}

std::size_t encode(std::string_view& value, char* out, std::size_t room) {
    std::size_t used = 0;
    while (!value.empty() && used + 2 <= room) {
        const std::size_t take = std::min(room - used - 1, value.size());  // room for a CR
        const void* found = std::memchr(value.data(), lineFeed, take);
        const std::size_t run = found ? static_cast<const char*>(found) - value.data() : take;
        std::memcpy(out + used, value.data(), run);
        used += run;
        if (found) {
            out[used++] = carriageReturn;
            out[used++] = lineFeed;
        }
        value.remove_prefix(found ? run + 1 : run);
    }
    return used;
}

std::size_t decode(char* bytes, std::size_t size) {
    const char* const end = bytes + size;
    char* out = bytes;
    for (const char* from = bytes;;) {
        const char* const mark = findMark(from, end);
        if (out != from) std::memmove(out, from, mark - from);
        out += mark - from;
        if (mark == end || *mark == endOfText) break;
        // A carriage return, dropped only before a line feed.
        if (mark + 1 == end || mark[1] != lineFeed) *out++ = carriageReturn;
        from = mark + 1;
    }
    return static_cast<std::size_t>(out - bytes);
}

const char* findMark(const char* from, const char* end) {
    static const MarkFinder finder = chooseMarkFinder();
    return finder(from, end);
}

const char* findMarkPortable(const char* from, const char* end) {
    const auto* carriage = static_cast<const char*>(std::memchr(from, carriageReturn, end - from));
    const char* const limit = carriage ? carriage : end;
    const auto* stop = static_cast<const char*>(std::memchr(from, endOfText, limit - from));
    return stop ? stop : limit;
}

}  // namespace Quorvendale::Storage::TextMode
