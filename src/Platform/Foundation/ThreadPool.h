// The runtime's thread pool: events are raised and asynchronous work runs on
// it. It starts threads as work arrives and keeps them; a job that blocks
// stalls the others only once every thread is busy, because a job that finds
// no idle thread starts a new one (up to a ceiling that follows the number of
// cores, after which jobs wait their turn).
#pragma once

#include <functional>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API ThreadPool {
public:
    // Queues a job. Jobs must not throw; an escaping exception is written to
    // the runtime's log, and the thread goes on.
    static void submit(std::function<void()> job);
    // Gives the job to a thread that is idle now, ahead of queued jobs; false,
    // and the job not taken, when every thread is busy.
    static bool handOff(std::function<void()>& job);
};

}  // namespace Quorvendale::Platform
