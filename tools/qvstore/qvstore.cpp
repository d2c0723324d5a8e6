// qvstore: the key-value store from the shell. It loads the client library by
// path, as any program of its users would, and uses it through Client.hpp
// alone. Each failure is one line on standard error and an exit status a
// script can act on (Failure.h).
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "Failure.h"
#include "InputChecks.h"
#include "LibraryLocation.h"
#include "Status.h"
#include "Quorvendale/Client.hpp"

namespace {

using namespace Quorvendale;
using namespace Quorvendale::Qvstore;

// The library reports a local client that cannot connect on standard output.
// A script reading qvstore's output must never get those lines, so while the
// library is loaded standard output is a file of qvstore's, which it reads
// for the connection's status and shows only with --verbose; qvstore's own
// results go to the original standard output.
class LibraryOutput {
public:
    LibraryOutput() {
        std::fflush(stdout);
        const int original = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        captured_ = ::memfd_create("qvstore-library-output", MFD_CLOEXEC);
        if (captured_ < 0) captured_ = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (original < 0 || captured_ < 0 || ::dup2(captured_, STDOUT_FILENO) < 0) {
            throw std::runtime_error("cannot set standard output aside for the library");
        }
        results_ = ::fdopen(original, "w");
        if (results_ == nullptr) throw std::runtime_error("cannot open standard output");
    }
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;

    Output results() const { return {results_, ::isatty(::fileno(results_)) == 1}; }

    // Everything the library has written so far.
    std::string text() const {
        std::fflush(stdout);
        std::string text;
        char chunk[4096];
        ssize_t count;
        for (off_t at = 0; (count = ::pread(captured_, chunk, sizeof chunk, at)) > 0; at += count) {
            text.append(chunk, static_cast<std::size_t>(count));
        }
        return text;
    }

private:
    std::FILE* results_ = nullptr;
    int captured_ = -1;
};

// "read settings theme": the command and the operands that name the entry.
std::string subjectOf(const Invocation& invocation) {
    std::string subject = invocation.command;
    const std::size_t named = invocation.command == "write" || invocation.command == "read" ||
                                      invocation.command == "remove" || invocation.command == "next"
                                  ? 2
                                  : 1;
    for (std::size_t i = 0; i < invocation.operands.size() && i < named; ++i) {
        if (!invocation.operands[i].empty()) subject += " " + oneLine(invocation.operands[i]);
    }
    return subject;
}

int runInvocation(const Invocation& invocation, const LibraryOutput& libraryOutput) {
    // The remote client carries bytes; only the local service changes them.
    const Input input = takeInput(invocation, !invocation.remote.has_value());
    const Client::Library library(
        invocation.library ? *invocation.library
                           : Qvstore::chooseDefaultLibrary(Qvstore::defaultLibraryCandidates()));
    const Client::Storage storage =
        invocation.remote ? library.remote(invocation.remote->host, invocation.remote->port)
                          : library.local();
    const int status = runCommand(storage, invocation, input, libraryOutput.results());
    if (std::fflush(libraryOutput.results().file) != 0) {
        throw std::runtime_error("cannot write standard output");
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Invocation invocation;
    try {
        invocation = Qvstore::parseCommandLine(argc, argv);
    } catch (const Qvstore::UsageError& e) {
        std::fprintf(stderr, "qvstore: %s\nTry 'qvstore --help' for more information.\n", e.what());
        return usageFailed;
    }
    if (invocation.action != Invocation::Action::run) {
        std::fputs(invocation.action == Invocation::Action::help
                       ? Qvstore::usage(Qvstore::defaultLibraryCandidates()).c_str()
                       : "qvstore " QVSTORE_VERSION "\n",
                   stdout);
        return std::fflush(stdout) == 0 ? succeeded : storeFailed;
    }

    // The service's own account of itself: no library, no connection.
    if (invocation.command == "status") return runStatus(stdout, invocation.json);

    std::optional<LibraryOutput> libraryOutput;
    Failure failure{storeFailed, ""};
    std::string subject = subjectOf(invocation);
    std::string report;  // the library's own text, for --verbose
    try {
        libraryOutput.emplace();
        return runInvocation(invocation, *libraryOutput);
    } catch (const Refusal& refusal) {
        failure = {usageFailed, "refused: " + oneLine(refusal.what())};
    } catch (const CommandFailure& commandFailure) {
        failure = commandFailure.failure;
        if (!commandFailure.subject.empty()) subject += " " + commandFailure.subject;
    } catch (const Client::Error& error) {
        failure = failureOf(error);
        const auto* unreachable = dynamic_cast<const Client::Unreachable*>(&error);
        report = unreachable != nullptr && !unreachable->report().empty() ? unreachable->report()
                                                                         : error.what();
        if (!report.empty() && report.back() == '\n') report.pop_back();
    } catch (const std::exception& error) {
        failure = {storeFailed, oneLine(error.what())};
    }
    if (failure.status != keyMissing || !invocation.quiet) {
        std::fprintf(stderr, "qvstore: %s: %s\n", subject.c_str(), failure.message.c_str());
    }
    if (invocation.verbose) {
        const std::string libraryText = libraryOutput ? libraryOutput->text() : "";
        std::fputs(libraryText.c_str(), stderr);
        if (!report.empty()) std::fprintf(stderr, "%s\n", report.c_str());
    }
    return failure.status;
}
