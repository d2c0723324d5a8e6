#include "Platform/AppService/FrameBuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace Quorvendale::Platform::Details {

FrameBuffer::FrameBuffer(std::size_t size) : FrameBuffer() {
    if (size < pagedSize) {
        bytes_ = {new char[size], Free()};
        return;
    }
    void* const pages =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    bytes_ = {static_cast<char*>(pages), Free(size)};
}

void FrameBuffer::releaseBelow(std::size_t offset) noexcept {
    const std::size_t mapped = bytes_.get_deleter().mapped;
    if (mapped == 0) return;
    static const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t end = std::min(offset, mapped) / pageSize * pageSize;
    if (end <= released_) return;
    // The pages read as zeros from now on, and take no memory until written.
    ::madvise(bytes_.get() + released_, end - released_, MADV_DONTNEED);
    released_ = end;
}

void FrameBuffer::Free::operator()(char* bytes) const noexcept {
    if (mapped == 0) {
        delete[] bytes;
    } else {
        ::munmap(bytes, mapped);
    }
}

}  // namespace Quorvendale::Platform::Details
