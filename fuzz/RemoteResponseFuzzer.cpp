// Feeds arbitrary bytes to the remote response decoder and the varint
// reader: whatever a server sends must end in a value or a clean
// std::runtime_error, never in a read outside the input.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "StorageClient/RemoteWireCodec.h"

using namespace Quorvendale::StorageClient;

namespace {

void decodeWhole(std::string_view bytes) {
    try {
        const RemoteResponse response = decodeResponse(bytes);
        if (response.payload.size() + 2 > bytes.size()) __builtin_trap();
    } catch (const std::runtime_error&) {
    }
}

// Reads the input as a run of varints. Each one read lies inside the input,
// and its canonical encoding reads back as the same value in no more bytes.
void readVarints(std::string_view bytes) {
    std::size_t position = 0;
    while (position < bytes.size()) {
        const std::size_t start = position;
        std::uint64_t value = 0;
        try {
            value = readVarint(bytes, position);
        } catch (const std::runtime_error&) {
            return;
        }
        if (position <= start || position > bytes.size()) __builtin_trap();
        std::string canonical;
        appendVarint(canonical, value);
        std::size_t again = 0;
        if (readVarint(canonical, again) != value || again != canonical.size() ||
            canonical.size() > position - start) {
            __builtin_trap();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    decodeWhole(bytes);
    readVarints(bytes);
    return 0;
}
