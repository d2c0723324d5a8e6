// The file store against bare system calls doing the same file work, in one
// run: write (overwriting an existing key) and read of a 100-byte value and of
// 1 MiB values, and the create of a new key, which on these machines costs far
// more than an overwrite and varies with the file system's recent history.
// Each "Store" figure is followed at the end by its ratio to the "Raw" one;
// on a disk-backed file system the overwrite's real time includes the
// write-back that replacing a file's content starts, so compare CPU times
// there. Run with --benchmark_repetitions=5
// --benchmark_enable_random_interleaving=true for medians less exposed to
// the load of other processes.
//
// 1 MiB values come in two kinds: "binary" holds no line end, "text" has a
// line feed every 64 bytes, so the text-mode translation works on each line.
// Reads decode with the path QV_TEXT_DECODER names (avx512, avx2, portable),
// else the fastest; the path measured is printed first and in each ratio.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "Storage/TextMode.h"
#include "Storage/UwpStorage.h"
#include "Support/PackageFolder.h"

#include "BenchmarkRatio.h"

namespace {

using Quorvendale::Storage::UwpStorage;
namespace TextMode = Quorvendale::Storage::TextMode;

const std::string group = "bench";

std::string makeValue(std::size_t size, bool withLineFeeds) {
    std::string value(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        value[i] = withLineFeeds && i % 64 == 63 ? '\n' : static_cast<char>('a' + i % 26);
    }
    return value;
}

struct Case {
    const char* name;
    std::string value;
};

const Case cases[] = {
    {"100B", makeValue(100, true)},
    {"1MiB-binary", makeValue(1 << 20, false)},
    {"1MiB-text", makeValue(1 << 20, true)},
};

// The group's folder, as the store lays it out under the package's local folder.
std::filesystem::path groupFolder;

std::string pathOf(const std::string& key) { return (groupFolder / key).string(); }

void rawWrite(const std::string& path, const std::string& value, int flags) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | flags | O_CLOEXEC, 0666);
    if (fd < 0 || ::write(fd, value.data(), value.size()) != static_cast<ssize_t>(value.size()) ||
        ::close(fd) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

std::size_t rawRead(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    ::fstat(fd, &status);
    const auto buffer = std::make_unique_for_overwrite<char[]>(status.st_size);
    const ssize_t got = ::read(fd, buffer.get(), status.st_size);
    ::close(fd);
    benchmark::DoNotOptimize(buffer.get());
    return static_cast<std::size_t>(got);
}

void writeRaw(benchmark::State& state, const Case& c) {
    const std::string path = pathOf(c.name);
    for (auto _ : state) rawWrite(path, c.value, O_TRUNC);
}

void writeStore(benchmark::State& state, const Case& c) {
    for (auto _ : state) UwpStorage::instance().write(group, c.name, c.value);
}

void readRaw(benchmark::State& state, const Case& c) {
    UwpStorage::instance().write(group, c.name, c.value);
    const std::string path = pathOf(c.name);
    for (auto _ : state) benchmark::DoNotOptimize(rawRead(path));
}

void readStore(benchmark::State& state, const Case& c) {
    UwpStorage::instance().write(group, c.name, c.value);
    for (auto _ : state) benchmark::DoNotOptimize(UwpStorage::instance().read(group, c.name));
}

// A create is measured with the removal of the new file, so that every round
// creates afresh without pausing the clock.
void createRaw(benchmark::State& state, const Case& c) {
    const std::string path = pathOf("new");
    for (auto _ : state) {
        rawWrite(path, c.value, O_EXCL);
        ::unlink(path.c_str());
    }
}

void createStore(benchmark::State& state, const Case& c) {
    for (auto _ : state) {
        UwpStorage::instance().write(group, "new", c.value);
        UwpStorage::instance().remove(group, "new");
    }
}

std::string_view decoderName() { return TextMode::decoderInUse().name; }

// A value read is decoded by the path QV_TEXT_DECODER forces, else the
// fastest the processor has; each path has its own targets, and its name
// goes with its ratios.
std::map<std::string, double> readTargets() {
    if (decoderName() == "portable") {
        return {{"Read/Store/1MiB-binary", 1.7}, {"Read/Store/1MiB-text", 6}};
    }
    return {{"Read/Store/1MiB-binary", 1.4}, {"Read/Store/1MiB-text", 2}};
}

// Remembers each benchmark's times per iteration to print the ratios after
// the usual table. With repetitions only the medians count.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            times_[run.benchmark_name()] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
        }
    }

    void printRatios() const {
        const std::map<std::string, double> targets = readTargets();
        std::printf("\n%-34s %10s %10s\n", "store / raw", "real time", "CPU time");
        for (const auto& [name, time] : times_) {
            const std::size_t at = name.find("/Store/");
            if (at == std::string::npos) continue;
            const auto raw = times_.find(name.substr(0, at) + "/Raw/" + name.substr(at + 7));
            if (raw == times_.end()) continue;
            std::printf("%-34s %9.2fx %9.2fx\n", name.c_str(), time.real / raw->second.real,
                        time.cpu / raw->second.cpu);
            // With repetitions, the median's row stands for the benchmark.
            const std::string plain = name.substr(0, name.rfind("_median"));
            if (const auto target = targets.find(plain);
                target != targets.end() && (plain != name || !times_.contains(name + "_median"))) {
                Bench::reportRatio("StorageBench", plain + "/" + std::string(decoderName()),
                                   time.real / raw->second.real, target->second);
            }
        }
    }

private:
    struct Times {
        double real;
        double cpu;
    };
    std::map<std::string, Times> times_;
};

}  // namespace

int main(int argc, char** argv) {
    Quorvendale::Testing::PackageFolder package;
    groupFolder = package.localState() / group;
    UwpStorage::instance().ensureGroupFolder(group);
    for (const Case& c : cases) {
        const std::string name = c.name;
        benchmark::RegisterBenchmark(("Write/Raw/" + name).c_str(), writeRaw, c);
        benchmark::RegisterBenchmark(("Write/Store/" + name).c_str(), writeStore, c);
        benchmark::RegisterBenchmark(("Read/Raw/" + name).c_str(), readRaw, c);
        benchmark::RegisterBenchmark(("Read/Store/" + name).c_str(), readStore, c);
    }
    benchmark::RegisterBenchmark("Create/Raw/100B", createRaw, cases[0]);
    benchmark::RegisterBenchmark("Create/Store/100B", createStore, cases[0]);

    Bench::initialize(&argc, argv);
    std::printf("text decoder: %.*s\n", static_cast<int>(decoderName().size()),
                decoderName().data());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
}
