// RequestScheduler: serves the requests of all connections in turn. Each
// connection with requests waiting has one place in a line; the pool thread
// at the front serves that connection's oldest request and sends it to the
// back of the line if more wait. One connection with many requests in
// flight thus adds at most one request's time per turn to another's wait,
// however many it has queued.
#pragma once

#include <cstddef>
#include <memory>

namespace Quorvendale::Platform::Details {

class AppServiceChannel;

class RequestScheduler {
public:
    // The channel has one request more to serve; joinsTheLine when it had
    // none waiting before, so that it has no place in the line yet.
    static void add(const std::shared_ptr<AppServiceChannel>& channel, bool joinsTheLine);

    // For the channel loop: from holdJobs() to takeHeldJobs() on one thread,
    // the jobs that add() would give the pool are counted instead, for that
    // thread to serve or give away; so the thread that read a request may
    // serve it.
    static void holdJobs();
    static std::size_t takeHeldJobs();
    // One job: serves the first request in the line that may run now.
    static void serveNext();
};

}  // namespace Quorvendale::Platform::Details
