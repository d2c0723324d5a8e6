// RequestScheduler: decides which received request a pool thread serves
// next, with turns per client (a peer process), not per connection. Clients
// with requests waiting stand in one line; the job at the front serves the
// oldest request of that client's next connection, and the client goes to
// the back of the line if more wait. A client with many connections thus
// gets one client's turns, split among them; one with many requests adds
// at most one request's time per turn to another's wait. A client runs at
// most runningPerClient requests at once, and none while it is past its
// memory share.
//
// It owns what it counts per connection (requests waiting, requests in
// flight: received and not yet answered on the socket) and per client. It
// starts no thread and calls no channel: its callers learn how many jobs
// to give the pool.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>

#include "Platform/AppService/MemoryBudget.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform::Details {

struct IncomingRequest;
using ChannelId = std::uint64_t;

class RequestScheduler {
public:
    // Past this many requests in flight, a connection is read no further
    // until answers have left; the socket's buffers then push back on the
    // sender, and one connection's work stays bounded.
    static constexpr std::size_t maximumInFlight = 32;

    RequestScheduler(std::size_t runningPerClient, const MemoryBudget& memory)
        : runningPerClient_(runningPerClient), memory_(memory) {}

    // Every client in the line has a job given for it: a client joining
    // the line gives one, and a job that serves a client and puts it back
    // gives one more.

    // A request received: the jobs it needs (0 or 1).
    std::size_t add(std::shared_ptr<IncomingRequest> request);
    // One job's pick: the next request that may run now, or null; `jobs`,
    // the jobs now due besides.
    std::shared_ptr<IncomingRequest> next(std::size_t& jobs);
    // The request's handlers have returned: the jobs now due.
    std::size_t finished(const IncomingRequest& request);
    // Clients that waited for memory may start again: the jobs now due.
    std::size_t resume();

    // The answer to one of the connection's requests has left (or will
    // never leave): true when the connection was at its limit and may be
    // read again.
    bool answered(ChannelId channel);
    bool mayReceive(ChannelId channel) const;
    std::size_t inFlight(ChannelId channel) const;
    // The connection has ended: its requests not yet started are dropped
    // unheard, and it is forgotten once its running ones end.
    void drop(ChannelId channel);

private:
    struct Connection {
        std::deque<std::shared_ptr<IncomingRequest>> queued;  // received, not started
        std::size_t inFlight = 0;
    };
    struct Client {
        std::deque<ChannelId> connections;  // those with requests waiting, in turn
        std::size_t running = 0;
        bool inLine = false;
        bool waitsForMemory = false;
    };

    std::size_t joinLine(ClientId id, Client& client) QV_REQUIRES(mutex_);
    bool mayRun(ClientId id, const Client& client) const QV_REQUIRES(mutex_);
    void forgetIfIdle(ClientId id) QV_REQUIRES(mutex_);

    const std::size_t runningPerClient_;
    const MemoryBudget& memory_;

    mutable Mutex mutex_;
    std::deque<ClientId> line_ QV_GUARDED_BY(mutex_);
    std::unordered_map<ChannelId, Connection> connections_ QV_GUARDED_BY(mutex_);
    std::unordered_map<ClientId, Client> clients_ QV_GUARDED_BY(mutex_);
};

}  // namespace Quorvendale::Platform::Details
