// AppServiceStatistics: what this process's app-service connections have
// done since it started, for its administrator: bytes moved, peers cut off,
// requests by command and how many failed. The channels count bytes and
// cut-offs; a service counts its own requests, as only it knows their
// commands and outcomes. Counting is a relaxed atomic add (a lock for
// requests); reading gives a snapshot, not one instant.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API AppServiceStatistics {
public:
    struct Snapshot {
        std::uint64_t bytesReceived = 0;
        std::uint64_t bytesSent = 0;
        std::uint64_t peersCutOff = 0;
        std::map<std::string, std::uint64_t> requests;  // by command
        std::uint64_t requestsFailed = 0;
        std::uint64_t frameMemoryInUse = 0;
        std::uint64_t frameMemoryCeiling = 0;
    };

    static void received(std::size_t bytes);
    static void sent(std::size_t bytes);
    static void peerCutOff();
    // What the process holds for its peers now (frames, requests, answers).
    static void memoryHeld(std::size_t bytes);
    // The service names its commands from a set of its own, so that a peer
    // cannot make the table grow.
    static void request(std::string_view command, bool failed);
    static Snapshot snapshot();
};

}  // namespace Quorvendale::Platform
