#include "Storage/TextMode.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Quorvendale::Storage::TextMode {

namespace {

constexpr char carriageReturn = '\r';
constexpr char lineFeed = '\n';
constexpr char endOfText = '\x1A';

// The first CR or 0x1A at or after `from`, or `end`: the only bytes that
// reading changes.
const char* findMark(const char* from, const char* end) {
    const auto* carriage = static_cast<const char*>(std::memchr(from, carriageReturn, end - from));
    const char* const limit = carriage ? carriage : end;
    const auto* stop = static_cast<const char*>(std::memchr(from, endOfText, limit - from));
    return stop ? stop : limit;
}

// Takes the mark that ends a run (a CR or 0x1A) after the value's bytes so
// far, which end at `out`: false when it ends the content; a CR is kept
// unless a LF follows.
bool takeMark(const char* mark, const char* end, char*& out) {
    if (*mark == endOfText) return false;
    if (mark + 1 == end || mark[1] != lineFeed) *out++ = carriageReturn;
    return true;
}

// Decodes [from, end) to `out`, which is at or below `from`; gives the end of
// the value. Runs between marks move down with one memmove each.
char* decodeRuns(char* out, const char* from, const char* end) {
    for (;;) {
        const char* const mark = findMark(from, end);
        if (out != from) std::memmove(out, from, mark - from);
        out += mark - from;
        if (mark == end || !takeMark(mark, end, out)) return out;
        from = mark + 1;
    }
}

#if defined(__x86_64__)
// Every byte of every value read passes through here, and on a value of a
// megabyte two passes of memchr cost as much as the read itself. One pass
// looking for both marks costs little more than one memchr. A block of 32
// bytes is one AVX2 register.
constexpr std::ptrdiff_t block = 32;

[[gnu::target("avx2")]] inline __m256i loadBlock(const char* at) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

[[gnu::target("avx2")]] inline void storeBlock(char* at, __m256i bytes) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), bytes);
}

[[gnu::target("avx2")]] inline __m256i bytesEqual(__m256i bytes, char byte) {
    return _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(byte));
}

// One bit for each place of the block, set where it holds a mark.
[[gnu::target("avx2")]] inline unsigned marksIn(__m256i bytes) {
    return static_cast<unsigned>(_mm256_movemask_epi8(
        _mm256_or_si256(bytesEqual(bytes, carriageReturn), bytesEqual(bytes, endOfText))));
}

// Both marks are below 0x1B: whether any byte of `lowest` (the unsigned
// minimum over blocks) is, which tells at one compare whether the blocks can
// hold a mark. A tab or a line feed also passes; the blocks are then looked at.
[[gnu::target("avx2")]] inline bool mayHoldMark(__m256i lowest) {
    const __m256i low =
        _mm256_cmpeq_epi8(_mm256_min_epu8(lowest, _mm256_set1_epi8(endOfText)), lowest);
    return !_mm256_testz_si256(low, low);
}

// The first mark at or after `from`, or `end`, looked for four blocks at a
// step.
[[gnu::target("avx2")]] const char* findMarkAvx2(const char* from, const char* end) {
    for (; end - from >= 4 * block; from += 4 * block) {
        const __m256i lowest = _mm256_min_epu8(
            _mm256_min_epu8(loadBlock(from), loadBlock(from + block)),
            _mm256_min_epu8(loadBlock(from + 2 * block), loadBlock(from + 3 * block)));
        if (mayHoldMark(lowest) &&
            (marksIn(loadBlock(from)) | marksIn(loadBlock(from + block)) |
             marksIn(loadBlock(from + 2 * block)) | marksIn(loadBlock(from + 3 * block))) != 0) {
            break;
        }
    }
    for (; end - from >= block; from += block) {
        const unsigned marks = marksIn(loadBlock(from));
        if (marks != 0) return from + std::countr_zero(marks);
    }
    return findMark(from, end);
}

// Going from mark to mark costs a mispredicted branch at nearly every line
// end, which on text with short lines is most of the time. Once the value
// has moved down by a chunk, chunks of 64 bytes are taken whole instead. A
// chunk with one line end, as most are in text, is stored as the bytes before
// its CR and then those one place further up, picked without a branch; any
// other is stored as it is, then for each CR that a LF follows the bytes
// after it are stored again one place further down. Every store then ends
// below the bytes still to be read.
constexpr std::ptrdiff_t chunk = 2 * block;

// One bit for each place of the block at `from`, set where a CR is followed
// by a LF, the byte after the block included.
[[gnu::target("avx2")]] inline std::uint32_t lineEndsIn(const char* from) {
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_and_si256(
        bytesEqual(loadBlock(from), carriageReturn), bytesEqual(loadBlock(from + 1), lineFeed))));
}

[[gnu::target("avx2")]] inline std::uint64_t lineEndsInChunk(const char* from) {
    return lineEndsIn(from) | std::uint64_t{lineEndsIn(from + block)} << block;
}

[[gnu::target("avx2")]] inline bool holdsEndOfText(const char* from) {
    const __m256i stops = _mm256_or_si256(bytesEqual(loadBlock(from), endOfText),
                                          bytesEqual(loadBlock(from + block), endOfText));
    return !_mm256_testz_si256(stops, stops);
}

[[gnu::target("avx2,bmi,popcnt")]] std::size_t decodeAvx2(char* bytes, std::size_t size) {
    const char* const end = bytes + size;
    const char* from = bytes;
    char* out = bytes;
    // Mark by mark, until 64 dropped CRs have moved the value down by a chunk.
    while (from - out < chunk) {
        const char* const mark = findMarkAvx2(from, end);
        if (out != from) std::memmove(out, from, mark - from);
        out += mark - from;
        if (mark == end || !takeMark(mark, end, out)) return static_cast<std::size_t>(out - bytes);
        from = mark + 1;
    }
    // Reads reach a chunk past the one taken; a 0x1A is left to the end.
    const __m256i placesLow =
        _mm256_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
                         21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31);
    const __m256i placesHigh = _mm256_add_epi8(placesLow, _mm256_set1_epi8(block));
    for (; end - from >= 2 * chunk && !holdsEndOfText(from); from += chunk) {
        std::uint64_t lineEnds = lineEndsInChunk(from);
        if (std::has_single_bit(lineEnds)) {
            // 0xFF in the places before the CR.
            const __m256i carriage =
                _mm256_set1_epi8(static_cast<char>(std::countr_zero(lineEnds)));
            storeBlock(out, _mm256_blendv_epi8(loadBlock(from + 1), loadBlock(from),
                                               _mm256_cmpgt_epi8(carriage, placesLow)));
            storeBlock(out + block,
                       _mm256_blendv_epi8(loadBlock(from + block + 1), loadBlock(from + block),
                                          _mm256_cmpgt_epi8(carriage, placesHigh)));
            out += chunk - 1;
            continue;
        }
        storeBlock(out, loadBlock(from));
        storeBlock(out + block, loadBlock(from + block));
        std::ptrdiff_t dropped = 0;
        for (; lineEnds != 0; lineEnds &= lineEnds - 1, ++dropped) {
            const std::ptrdiff_t after = std::countr_zero(lineEnds) + 1;
            storeBlock(out + after - 1 - dropped, loadBlock(from + after));
            storeBlock(out + after - 1 - dropped + block, loadBlock(from + after + block));
        }
        out += chunk - dropped;
    }
    return static_cast<std::size_t>(decodeRuns(out, from, end) - bytes);
}

// With AVX-512 VBMI2 a block of 64 bytes is one register, and one
// instruction (vpcompressb) packs the bytes it keeps to its low end. Every
// block then costs the same whatever it holds, and no branch depends on how
// many lines end in it. Until the first mark nothing moves, so the bytes
// before it are only looked at.
constexpr std::ptrdiff_t wideBlock = 64;

[[gnu::target("avx512f,avx512bw")]] inline bool holdsMarkAvx512(const char* at) {
    const __m512i here = _mm512_loadu_si512(at);
    return (_mm512_cmpeq_epi8_mask(here, _mm512_set1_epi8(carriageReturn)) |
            _mm512_cmpeq_epi8_mask(here, _mm512_set1_epi8(endOfText))) != 0;
}

[[gnu::target("avx512f,avx512bw,avx512vbmi2,bmi,bmi2,popcnt")]] std::size_t decodeAvx512(
    char* bytes, std::size_t size) {
    const __m512i carriage = _mm512_set1_epi8(carriageReturn);
    const __m512i feed = _mm512_set1_epi8(lineFeed);
    const __m512i stop = _mm512_set1_epi8(endOfText);
    const char* const end = bytes + size;
    const char* from = bytes;
    // Both marks are below 0x1B, so one unsigned minimum over four blocks
    // tells whether any of them can hold one, at a third less than comparing
    // every block with both; only blocks that may are compared.
    const __m512i belowMarks = _mm512_set1_epi8(endOfText + 1);
    for (; end - from >= 4 * wideBlock; from += 4 * wideBlock) {
        const __m512i lowest = _mm512_min_epu8(
            _mm512_min_epu8(_mm512_loadu_si512(from), _mm512_loadu_si512(from + wideBlock)),
            _mm512_min_epu8(_mm512_loadu_si512(from + 2 * wideBlock),
                            _mm512_loadu_si512(from + 3 * wideBlock)));
        if (_mm512_cmplt_epu8_mask(lowest, belowMarks) != 0 &&
            (holdsMarkAvx512(from) || holdsMarkAvx512(from + wideBlock) ||
             holdsMarkAvx512(from + 2 * wideBlock) || holdsMarkAvx512(from + 3 * wideBlock))) {
            break;
        }
    }
    for (; end - from >= wideBlock && !holdsMarkAvx512(from); from += wideBlock) {
    }
    char* out = bytes + (from - bytes);
    // Each step looks at one block and at the byte after it, up to the block
    // that holds a 0x1A or has no byte after it, which the masked step below
    // takes. A whole block stored at out, which is at or below from, ends
    // before the next load.
    for (; end - from > wideBlock; from += wideBlock) {
        const __m512i here = _mm512_loadu_si512(from);
        const __m512i next = _mm512_loadu_si512(from + 1);
        if (_mm512_cmpeq_epi8_mask(here, stop) != 0) break;
        const __mmask64 keep =
            ~(_mm512_cmpeq_epi8_mask(here, carriage) & _mm512_cmpeq_epi8_mask(next, feed));
        _mm512_storeu_si512(out, _mm512_maskz_compress_epi8(keep, here));
        out += _mm_popcnt_u64(keep);
    }
    // Masked loads and stores touch nothing past the end, and a masked-off
    // place never compares equal to a mark.
    const std::ptrdiff_t left = end - from;
    if (left == 0) return static_cast<std::size_t>(out - bytes);
    const __mmask64 inside = _bzhi_u64(~0ULL, static_cast<unsigned>(std::min(left, wideBlock)));
    const __mmask64 followed = left > wideBlock ? inside : inside >> 1;
    const __m512i here = _mm512_maskz_loadu_epi8(inside, from);
    const __m512i next = _mm512_maskz_loadu_epi8(followed, from + 1);
    __mmask64 keep =
        inside & ~(_mm512_cmpeq_epi8_mask(here, carriage) & _mm512_cmpeq_epi8_mask(next, feed));
    const __mmask64 stops = _mm512_mask_cmpeq_epi8_mask(inside, here, stop);
    if (stops != 0) keep &= _blsmsk_u64(stops) >> 1;  // the places before the first 0x1A
    const auto kept = static_cast<unsigned>(_mm_popcnt_u64(keep));
    _mm512_mask_storeu_epi8(out, _bzhi_u64(~0ULL, kept), _mm512_maskz_compress_epi8(keep, here));
    return static_cast<std::size_t>(out + kept - bytes);
}
#endif

// The decoders this processor can run, the fastest first; the portable one
// runs anywhere and comes last.
std::vector<Decoder> supportedDecoders() {
    std::vector<Decoder> supported;
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi2")) {
        supported.push_back({"avx512", decodeAvx512});
    }
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
        __builtin_cpu_supports("popcnt")) {
        supported.push_back({"avx2", decodeAvx2});
    }
#endif
    supported.push_back({"portable", decodePortable});
    return supported;
}

// QV_TEXT_DECODER, read once, forces any decoder the processor can run, so
// that tests and benchmarks reach a path that a faster one would hide; a name
// it cannot run is reported once and the fastest is used instead.
const Decoder& chooseDecoder() {
    const std::span<const Decoder> supported = decoders();
    const char* const forced = std::getenv("QV_TEXT_DECODER");
    if (forced == nullptr || *forced == '\0') return supported.front();
    for (const Decoder& decoder : supported) {
        if (decoder.name == forced) return decoder;
    }
    std::fprintf(stderr, "QV_TEXT_DECODER=%s: not a text decoder this processor runs; using %.*s\n",
                 forced, static_cast<int>(supported.front().name.size()),
                 supported.front().name.data());
    return supported.front();
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

std::span<const Decoder> decoders() {
    static const std::vector<Decoder> supported = supportedDecoders();
    return supported;
}

const Decoder& decoderInUse() {
    static const Decoder& chosen = chooseDecoder();
    return chosen;
}

std::size_t decode(char* bytes, std::size_t size) {
    static const auto chosen = decoderInUse().decode;
    return chosen(bytes, size);
}

std::size_t decodePortable(char* bytes, std::size_t size) {
    return static_cast<std::size_t>(decodeRuns(bytes, bytes, bytes + size) - bytes);
}

}  // namespace Quorvendale::Storage::TextMode
