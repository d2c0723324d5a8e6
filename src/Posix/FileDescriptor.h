// FileDescriptor: owns one open descriptor and closes it when it goes.
// Move-only; -1 is "none".
#pragma once

#include <unistd.h>

#include <utility>

namespace Quorvendale::Posix {

class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return descriptor_; }
    bool valid() const noexcept { return descriptor_ >= 0; }

    // Gives the descriptor up without closing it.
    int release() noexcept { return std::exchange(descriptor_, -1); }
    void reset(int descriptor = -1) noexcept {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = descriptor;
    }
    // Closes now and tells whether the close succeeded: a write to a file may
    // fail only at its close.
    bool close() noexcept { return ::close(release()) == 0; }

private:
    int descriptor_ = -1;
};

}  // namespace Quorvendale::Posix
