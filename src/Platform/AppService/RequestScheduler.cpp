#include "Platform/AppService/RequestScheduler.h"

#include <deque>

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

// One job per request added; each serves the first request in the line that
// may run now, and a connection that stops being at its limit of running
// requests rejoins the line with a job of its own. So every request that may
// run has a job, and a closed connection leaves at most jobs that find
// nothing.
void serveNext() {
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
    if (channel->finishedServing()) RequestScheduler::add(channel, true);
}

}  // namespace

void RequestScheduler::add(const std::shared_ptr<AppServiceChannel>& channel, bool joinsTheLine) {
    if (joinsTheLine) {
        Line& waiting = line();
        MutexLock lock(waiting.mutex);
        waiting.channels.push_back(channel);
    }
    ThreadPool::submit(&serveNext);
}

}  // namespace Quorvendale::Platform::Details
