// FrameBuffer: the bytes of a frame being received, uninitialised until
// they arrive. A large one has pages of its own, and the part of it already
// decoded goes back to the system while the rest is decoded: a large value
// is held once as a body and once as a string, never both whole at once.
#pragma once

#include <cstddef>
#include <memory>

namespace Quorvendale::Platform::Details {

class FrameBuffer {
public:
    // From this size on, the buffer has pages of its own. Below it the heap
    // hands a body memory it has used before, with no page to fault in:
    // fresh pages for a 2 MiB body cost more than the copy of its value.
    // Above it, holding a value once rather than twice matters more.
    static constexpr std::size_t pagedSize = 16u << 20;

    FrameBuffer() noexcept : bytes_(nullptr, Free()) {}
    // std::bad_alloc when there is no memory for it.
    explicit FrameBuffer(std::size_t size);

    char* data() const noexcept { return bytes_.get(); }
    // Gives back the whole pages below `offset`, which the caller will not
    // read again; a small buffer keeps its memory until it goes.
    void releaseBelow(std::size_t offset) noexcept;

private:
    struct Free {
        explicit Free(std::size_t size = 0) noexcept : mapped(size) {}
        std::size_t mapped;  // 0: from the heap
        void operator()(char* bytes) const noexcept;
    };
    std::unique_ptr<char[], Free> bytes_;
    std::size_t released_ = 0;
};

}  // namespace Quorvendale::Platform::Details
