// The bare side of the benchmarks' round trips: a whole buffer through a
// descriptor with plain read and write, nothing of the project's own.
#pragma once

#include <unistd.h>

#include <cstddef>

namespace Bench {

inline bool transfer(int descriptor, char* bytes, std::size_t size, bool reading) {
    while (size > 0) {
        const ssize_t count =
            reading ? ::read(descriptor, bytes, size) : ::write(descriptor, bytes, size);
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace Bench
