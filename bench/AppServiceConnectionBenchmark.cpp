// A request and its answer over an app-service connection pair, beside the
// raw cost of the same distance: 100 bytes written to a socketpair and read
// back by an echo thread. Prints the ratio of the two.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <semaphore>
#include <string>
#include <thread>

#include "Platform/AppService/AppServiceConnection.h"

#include "BareTransfer.h"
#include "BenchmarkRatio.h"
#include "MedianReporter.h"

namespace {

using Bench::transfer;

using namespace Quorvendale::Platform;

constexpr std::size_t payloadBytes = 100;

void bareRoundTrip(benchmark::State& state) {
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    std::thread echo([descriptor = ends[1]] {
        char bytes[payloadBytes];
        while (transfer(descriptor, bytes, payloadBytes, true) &&
               transfer(descriptor, bytes, payloadBytes, false)) {
        }
    });
    char bytes[payloadBytes] = {};
    for (auto _ : state) {
        transfer(ends[0], bytes, payloadBytes, false);
        transfer(ends[0], bytes, payloadBytes, true);
    }
    ::shutdown(ends[0], SHUT_RDWR);
    echo.join();
    ::close(ends[0]);
    ::close(ends[1]);
}

void valueSetRoundTrip(benchmark::State& state) {
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    const auto client = AppServiceConnection::fromSocket(ends[0]);
    const auto service = AppServiceConnection::fromSocket(ends[1]);
    service.RequestReceived([](auto&, const AppServiceRequestReceivedEventArgs& args) {
        args.Request().SendResponseAsync(args.Request().Message());
    });
    ValueSet message;  // 50 UTF-16 code units: 100 bytes of text
    message.Insert(u"data",
                   PropertyValue::CreateString(hstring(std::u16string(payloadBytes / 2, u'v'))));
    std::binary_semaphore answered(0);
    for (auto _ : state) {
        const auto operation = client.SendMessageAsync(message);
        operation.Completed([&](auto&, auto) { answered.release(); });
        answered.acquire();
        if (operation.GetResults().Status() != AppServiceResponseStatus::Success) {
            state.SkipWithError("request failed");
            break;
        }
    }
}

BENCHMARK(bareRoundTrip)->Name("socketpair 100-byte round trip (raw)")->UseRealTime();
BENCHMARK(valueSetRoundTrip)->Name("AppServiceConnection 100-byte ValueSet request")->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    Bench::initialize(&argc, argv);
    Bench::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double raw = reporter.time("socketpair 100-byte round trip (raw)");
    const double request = reporter.time("AppServiceConnection 100-byte ValueSet request");
    if (raw > 0 && request > 0) {
        std::printf("ValueSet request / raw round trip: %.2fx (target <= 3x)\n", request / raw);
    }
    Bench::reportRatio("AppServiceConnectionBenchmark", "request", raw > 0 ? request / raw : 0, 3);
    benchmark::Shutdown();
}
