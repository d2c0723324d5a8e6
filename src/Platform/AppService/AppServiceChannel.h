// AppServiceChannel: one open app-service connection: its socket, the frame
// being received (FrameReceiver, the loop's turn only), the frames leaving
// (FrameSender), this side's requests waiting for answers (PendingAnswers),
// and whether it has ended. The ChannelLoop it is given reads and sends for
// it; the channel reaches its owner only through a weak reference, to raise
// events with it as sender. No thread waits on a peer.
#pragma once

#include <chrono>
#include <memory>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/ChannelLoop.h"
#include "Platform/AppService/FrameReceiver.h"
#include "Platform/AppService/FrameSender.h"
#include "Platform/AppService/PendingAnswers.h"
#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Platform::Details {

class ConnectionObject;
struct IncomingRequest;

class AppServiceChannel : public std::enable_shared_from_this<AppServiceChannel> {
public:
    // Who ended the connection. The owner's ServiceClosed is raised only
    // when it was not this side's own Close().
    enum class EndedBy { Owner, Runtime };

    // What the loop watches the socket for.
    struct Interest {
        bool ended = false;
        bool read = false;
        bool write = false;
    };

    AppServiceChannel(std::shared_ptr<ChannelLoop> loop, Posix::FileDescriptor socket,
                      std::weak_ptr<ConnectionObject> owner, ClientId client) noexcept;
    ~AppServiceChannel();

    // A channel over the socket, watched by the loop from now on.
    static std::shared_ptr<AppServiceChannel> open(std::shared_ptr<ChannelLoop> loop,
                                                   Posix::FileDescriptor socket,
                                                   std::weak_ptr<ConnectionObject> owner,
                                                   ClientId client);

    IAsyncOperation<AppServiceResponse> sendRequest(const ValueSet& message);
    // An answer (a response or a refusal) to one of the peer's requests;
    // false if the connection has ended.
    bool sendAnswer(EncodedFrame frame);
    void whenEnded(std::function<void()> handler);
    void close(EndedBy by);
    bool ended() const;

    ChannelId id() const noexcept { return id_; }
    ClientId client() const noexcept { return client_; }
    int socket() const noexcept { return socket_.get(); }
    ChannelLoop& loop() const noexcept { return *loop_; }

    // For the loop, on its turn (the caller shows it holds it).
    Interest interest(const LoopTurn& turn) const QV_REQUIRES(turn);
    // Receives what has arrived, up to one frame or a slice of a large one.
    void receive(const LoopTurn& turn) QV_REQUIRES(turn);
    // Sends what the socket takes now.
    void flush();
    // Ends the connection if its peer has let a frame pass its deadline;
    // `wanted`: how long since the last look.
    void cutOffIfLate(const LoopTurn& turn, std::chrono::steady_clock::duration wanted)
        QV_REQUIRES(turn);
    // The loop is done with the channel: a frame partly received goes.
    void forgetPartialFrame(const LoopTurn& turn) QV_REQUIRES(turn);
    bool waitingForMemory([[maybe_unused]] const LoopTurn& turn) const QV_REQUIRES(turn) {
        return receiver_.waitingForMemory();
    }

    // For a pool thread: raises RequestReceived for the request.
    void raise(const std::shared_ptr<IncomingRequest>& request);
    // Memory the channel's client held for a request comes back.
    void giveBack(std::size_t bytes);

private:
    bool mayReceive() const;
    void afterSending(const FrameSender::Sent& sent);
    void endOfStream();
    void dispatch(AppServiceFrame&& frame, std::size_t held);
    void raiseEnd(EndedBy by);
    void cutOff(const std::string& why);

    const std::shared_ptr<ChannelLoop> loop_;
    const Posix::FileDescriptor socket_;
    const std::weak_ptr<ConnectionObject> owner_;
    const ChannelId id_;
    const ClientId client_;

    FrameReceiver receiver_;  // the loop's turn's alone
    FrameSender sender_;
    PendingAnswers pending_;

    mutable Mutex mutex_;
    bool closed_ QV_GUARDED_BY(mutex_) = false;
    // The peer's stream has ended: nothing more is read, and the channel
    // closes once the last answer has left.
    bool peerEnded_ QV_GUARDED_BY(mutex_) = false;
    event<> ended_;
};

}  // namespace Quorvendale::Platform::Details
