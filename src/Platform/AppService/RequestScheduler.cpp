#include "Platform/AppService/RequestScheduler.h"

#include <deque>
#include <utility>

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/Foundation/Mutex.h"
#include "Platform/Foundation/ThreadPool.h"

namespace Quorvendale::Platform::Details {
namespace {

// Taken before a channel's lock, never after it.
struct Line {
    Mutex mutex;
    std::deque<std::shared_ptr<AppServiceChannel>> channels QV_GUARDED_BY(mutex);
};

// Never destroyed: pool threads may still serve while the process exits.
Line& line() {
    static Line* instance = new Line;
    return *instance;
}

// Set on the channel loop's thread during a turn: the jobs it gives.
thread_local bool holding = false;
thread_local std::size_t held = 0;

}  // namespace

// A job is added for each request received and each request that ends
// while others of its connection wait; each job serves the first request in
// the line that may run now. A job that finds only connections at their
// limit leaves them out of the line: the end of one of their requests
// brings them back with a job. So whatever may run has a job; extra jobs
// (those of a closed connection's dropped requests) find nothing.
void RequestScheduler::serveNext() {
    Line& waiting = line();
    std::shared_ptr<AppServiceChannel> channel;
    std::shared_ptr<IncomingRequest> request;
    {
        MutexLock lock(waiting.mutex);
        while (!request && !waiting.channels.empty()) {
            channel = std::move(waiting.channels.front());
            waiting.channels.pop_front();
            bool more = false;
            request = channel->takeRequest(more);
            if (more) waiting.channels.push_back(channel);
        }
    }
    if (!request) return;
    channel->serve(request);
    bool joinsTheLine = false;
    if (channel->finishedServing(joinsTheLine)) RequestScheduler::add(channel, joinsTheLine);
}

void RequestScheduler::add(const std::shared_ptr<AppServiceChannel>& channel, bool joinsTheLine) {
    if (joinsTheLine) {
        Line& waiting = line();
        MutexLock lock(waiting.mutex);
        waiting.channels.push_back(channel);
    }
    if (holding) {
        ++held;
    } else {
        ThreadPool::submit(&serveNext);
    }
}

void RequestScheduler::holdJobs() { holding = true; }

std::size_t RequestScheduler::takeHeldJobs() {
    holding = false;
    return std::exchange(held, 0);
}

}  // namespace Quorvendale::Platform::Details
