// The app-service host on a private bus, beside the bare cost of the same
// distances measured in the same run:
//
//   first OpenAsync, with the host's activation   vs the same activation of a minimal C
//                                                    sd-bus service (MinimalAppService.c)
//   OpenAsync to a running host                   vs a bare D-Bus method call to a running peer
//   a storage request through the host: a read    vs a bare 100-byte round trip over a
//   of a 100-byte value                              socketpair to another process
//
// The bare peers are forked before any thread starts. Prints the ratios at
// the end; run it as is and under taskset -c 0.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <semaphore>
#include <string>

#include "ServiceIdentity.h"
#include "Platform/AppService/AppServiceBus.h"
#include "Platform/AppService/AppServiceConnection.h"
#include "Support/PrivateBus.h"
#include "Support/StorageMessages.h"

#include "BareTransfer.h"
#include "BenchmarkRatio.h"
#include "MedianReporter.h"

namespace {

using Bench::transfer;

using namespace Quorvendale;
using namespace Quorvendale::Platform;

constexpr const char* storagePackage = Quorvendale::ServiceIdentity::packageFamilyName.data();
constexpr const char* storageAppService = Quorvendale::ServiceIdentity::appServiceName.data();
constexpr const char* peerName = "Bench.Peer_1";
constexpr const char* minimalName = "Bench.Minimal_1";
constexpr std::size_t payloadBytes = 100;

Testing::PrivateBus* bus;
int echoSocket = -1;

template <class T>
T wait(const IAsyncOperation<T>& operation) {
    std::binary_semaphore done(0);
    operation.Completed([&](auto&, auto) { done.release(); });
    done.acquire();
    return operation.GetResults();
}

AppServiceConnection openStorage(const char* package = storagePackage) {
    AppServiceConnection connection;
    connection.PackageFamilyName(hstring(utf8ToUtf16(package)));
    connection.AppServiceName(hstring(utf8ToUtf16(storageAppService)));
    if (wait(connection.OpenAsync()) != AppServiceConnectionStatus::Success) {
        throw std::runtime_error("the storage service did not open");
    }
    return connection;
}

// Kills the running owner of the name, if any, and waits until the bus has
// seen it go.
void stopHost(const char* package) {
    const auto host = bus->ownerOf(package);
    if (!host) return;
    ::kill(*host, SIGKILL);
    Testing::PrivateBus::exitStatusOf(*host);
    while (bus->ownerOf(package)) {
    }
}

void firstOpen(benchmark::State& state, const char* package) {
    for (auto _ : state) {
        state.PauseTiming();
        stopHost(package);
        state.ResumeTiming();
        openStorage(package).Close();
    }
    stopHost(package);
}

void openToRunningHost(benchmark::State& state) {
    openStorage().Close();
    for (auto _ : state) openStorage().Close();
}

// A D-Bus peer that answers Ping with nothing, in a process of its own.
void servePeer(const std::string& address) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    sd_bus* peer = AppServiceBus::connect(address);
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD(
            "Ping", "", "",
            [](sd_bus_message* call, void*, sd_bus_error*) {
                return sd_bus_reply_method_return(call, "");
            },
            0),
        SD_BUS_VTABLE_END,
    };
    if (peer == nullptr ||
        sd_bus_add_object_vtable(peer, nullptr, "/", "bench.Peer", vtable, nullptr) < 0 ||
        sd_bus_request_name(peer, peerName, 0) < 0) {
        ::_exit(1);
    }
    for (;;) {
        const int processed = sd_bus_process(peer, nullptr);
        if (processed < 0) ::_exit(0);
        if (processed == 0 && sd_bus_wait(peer, UINT64_MAX) < 0) ::_exit(0);
    }
}

void bareDbusCall(benchmark::State& state) {
    sd_bus* client = AppServiceBus::connect(bus->address());
    for (auto _ : state) {
        if (sd_bus_call_method(client, peerName, "/", "bench.Peer", "Ping", nullptr, nullptr, "") <
            0) {
            state.SkipWithError("the peer did not answer");
            break;
        }
    }
    sd_bus_flush_close_unref(client);
}

void storageRequest(benchmark::State& state) {
    const AppServiceConnection connection = openStorage();
    const std::string value(payloadBytes, 'v');
    wait(connection.SendMessageAsync(Testing::request(
        {{u"command", "write"}, {u"group", "bench"}, {u"key", "k"}, {u"data", value}})));
    const ValueSet read =
        Testing::request({{u"command", "read"}, {u"group", "bench"}, {u"key", "k"}});
    for (auto _ : state) {
        if (Testing::replyOf(wait(connection.SendMessageAsync(read))).second != value) {
            state.SkipWithError("the read failed");
            break;
        }
    }
}

void serveEcho(int descriptor) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    char bytes[payloadBytes];
    while (transfer(descriptor, bytes, payloadBytes, true) &&
           transfer(descriptor, bytes, payloadBytes, false)) {
    }
    ::_exit(0);
}

void bareRoundTrip(benchmark::State& state) {
    char bytes[payloadBytes] = {};
    for (auto _ : state) {
        transfer(echoSocket, bytes, payloadBytes, false);
        transfer(echoSocket, bytes, payloadBytes, true);
    }
}

const char* const firstOpenName = "OpenAsync with activation";
const char* const floorName = "OpenAsync with activation of a minimal C service";
const char* const openName = "OpenAsync to a running host";
const char* const bareCallName = "bare D-Bus call to a running peer";
const char* const requestName = "100-byte read through the host";
const char* const roundTripName = "bare 100-byte round trip to another process";

pid_t startPeer(void (*serve)(int), int argument) {
    const pid_t child = ::fork();
    if (child == 0) serve(argument);
    return child;
}

}  // namespace

int main(int argc, char** argv) {
    Bench::initialize(&argc, argv);
    Testing::TemporaryFolder data;
    Testing::ScopedEnvironment dataHome("XDG_DATA_HOME", data.path().c_str());
    Testing::TemporaryFolder services;
    std::ifstream built(QV_BUILD_SERVICE_FILE);
    std::ofstream(services.path() / (std::string(storagePackage) + ".service")) << built.rdbuf();
    Testing::writeServiceFile(services.path(), minimalName,
                              std::string(QV_MINIMAL_APP_SERVICE) + " " + minimalName);
    Testing::PrivateBus privateBus(services.path());
    bus = &privateBus;

    // Both peers start before this process has a thread.
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    const pid_t echo = startPeer(serveEcho, ends[1]);
    ::close(ends[1]);
    echoSocket = ends[0];
    static std::string address = privateBus.address();
    const pid_t peer = startPeer([](int) { servePeer(address); }, 0);

    const int activations = Bench::brief() ? 10 : 40;
    benchmark::RegisterBenchmark(firstOpenName, firstOpen, storagePackage)
        ->Iterations(activations)
        ->UseRealTime();
    benchmark::RegisterBenchmark(floorName, firstOpen, minimalName)
        ->Iterations(activations)
        ->UseRealTime();
    benchmark::RegisterBenchmark(openName, openToRunningHost)->UseRealTime();
    benchmark::RegisterBenchmark(bareCallName, bareDbusCall)->UseRealTime();
    benchmark::RegisterBenchmark(requestName, storageRequest)->UseRealTime();
    benchmark::RegisterBenchmark(roundTripName, bareRoundTrip)->UseRealTime();
    Bench::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\nfirst open with activation / the same of a minimal C service: %.2f / %.2f ms = "
                "%.2fx (target <= 1.15x)\n",
                reporter.time(firstOpenName) / 1e6, reporter.time(floorName) / 1e6,
                reporter.ratio(firstOpenName, floorName));
    std::printf("open to a running host / bare D-Bus call: %.2fx (target <= 1.5x)\n",
                reporter.ratio(openName, bareCallName));
    std::printf("request through the host / bare round trip: %.2fx (target <= 3x, pinned)\n",
                reporter.ratio(requestName, roundTripName));
    Bench::reportRatio("AppServiceHostBench", "first-open",
                       reporter.ratio(firstOpenName, floorName), 1.15);
    Bench::reportRatio("AppServiceHostBench", "open-to-running-host",
                       reporter.ratio(openName, bareCallName), 1.5);
    Bench::reportRatio("AppServiceHostBench", "100-byte-read",
                       reporter.ratio(requestName, roundTripName), 3);

    ::close(echoSocket);
    ::kill(peer, SIGKILL);
    ::kill(echo, SIGKILL);
    ::waitpid(peer, nullptr, 0);
    ::waitpid(echo, nullptr, 0);
    benchmark::Shutdown();
}
