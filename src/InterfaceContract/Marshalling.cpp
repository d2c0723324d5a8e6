#include "Marshalling.h"

#include <cstring>
#include <limits>
#include <stdexcept>

namespace Quorvendale::InterfaceContract {

std::string copyIn(const char* bytes, std::uint32_t length) {
    if (length == 0) return {};
    if (bytes == nullptr) throw std::invalid_argument("null array with a non-zero length");
    return std::string(bytes, length);
}

void copyOut(void* context, ArrayOutAllocate allocate, std::string_view bytes) {
    requireOut(allocate, "array-out allocation callback");
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("result longer than an array-out can carry");
    }
    const auto length = static_cast<std::uint32_t>(bytes.size());
    void* buffer = allocate(context, length);
    if (buffer != nullptr && length != 0) std::memcpy(buffer, bytes.data(), length);
}

}  // namespace Quorvendale::InterfaceContract
