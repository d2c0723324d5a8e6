// FrameReceiver: the frame a connection is receiving, its length and then
// its body, read a slice at a time on the loop's turn (it has no lock: only
// the turn touches it). The body's size is taken from the client's memory
// share before its first byte is read; a client past its share is read no
// further until memory comes back. The peer must keep a floor rate while a frame arrives: the
// frame is cut off once the time the loop spent wanting its bytes passes
// its deadline (a grace plus its size at the floor rate), so a peer that
// trickles cannot hold its bytes for ever.
#pragma once

#include <chrono>
#include <cstddef>

#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/AppService/FrameBuffer.h"
#include "Platform/AppService/MemoryBudget.h"

namespace Quorvendale::Platform::Details {

// The slowest a peer may move a frame, and the time it is given on top:
// a peer on a loaded machine moves megabytes a second; one byte a second
// is an attack on the memory the frame holds.
inline constexpr std::size_t floorBytesPerSecond = 1u << 20;
inline constexpr std::chrono::seconds rateGrace{2};

// The time a frame of this size may take to move.
std::chrono::steady_clock::duration frameDeadline(std::size_t size);

class FrameReceiver {
public:
    enum class Result { Frame, Waiting, WaitingForMemory, Ended, Broken };

    // What one receive reads at most: a small frame whole, a large one in
    // slices, so that a peer sending 64 MiB takes turns with the others.
    static constexpr std::size_t sliceSize = 256 * 1024;

    FrameReceiver(MemoryBudget& memory, ClientId client) : memory_(memory), client_(client) {}
    FrameReceiver(const FrameReceiver&) = delete;
    FrameReceiver& operator=(const FrameReceiver&) = delete;
    ~FrameReceiver() { forget(); }

    // Reads what has come, up to one slice.
    Result receive(int socket);
    // After Frame: the frame, decoded. The memory it took stays taken, now
    // `held` bytes the caller gives back when it is done with the message.
    // MalformedFrame or std::bad_alloc when it cannot be decoded.
    AppServiceFrame take(std::size_t& held);
    // Drops a frame partly received and gives its memory back; true when
    // another waits for memory.
    bool forget();

    bool waitingForMemory() const { return waitingForMemory_; }
    // The loop wanted this frame's bytes for so long more; true when the
    // frame has now outlived its deadline.
    bool late(std::chrono::steady_clock::duration wanted);
    std::size_t held() const { return held_; }

private:
    Result receiveLength(int socket);
    // Ready for the next frame; what it held is the caller's business.
    void reset();
    bool grow(std::size_t step);

    MemoryBudget& memory_;
    const ClientId client_;
    char length_[AppServiceFrame::lengthSize] = {};
    std::size_t lengthReceived_ = 0;
    // The body holds a slice at first and its whole size once more has come
    // (a paged one has its whole size from the start, and takes memory as
    // pages fill), so a peer that announces a large frame and sends little
    // holds little, and a large frame is copied once at most.
    FrameBuffer body_;
    std::size_t bodySize_ = 0;
    std::size_t capacity_ = 0;
    std::size_t received_ = 0;
    std::size_t held_ = 0;
    bool waitingForMemory_ = false;
    std::chrono::steady_clock::duration wanted_{};
};

}  // namespace Quorvendale::Platform::Details
