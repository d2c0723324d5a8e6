// qvstore: the key-value store from the shell. It loads the client library by
// path, as any program of its users would, and uses it through Client.hpp
// alone. Exit status: 0 success, 1 failure of the store, 2 usage error.
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "LibraryLocation.h"
#include "Quorvendale/Client.hpp"

namespace {

using namespace Quorvendale;
using Qvstore::Invocation;

constexpr int succeeded = 0;
constexpr int storeFailed = 1;
constexpr int usageFailed = 2;

int runInvocation(const Invocation& invocation) {
    const Client::Library library(
        invocation.library ? *invocation.library
                           : Qvstore::chooseDefaultLibrary(Qvstore::defaultLibraryCandidates()));
    std::optional<Client::Storage> storage =
        invocation.remote ? library.remote(invocation.remote->host, invocation.remote->port)
                          : library.local();
    if (!storage) {
        // The library has said why on standard output already.
        std::fputs("qvstore: no local storage client: the storage service cannot be reached\n",
                   stderr);
        return storeFailed;
    }
    return Qvstore::runCommand(*storage, invocation.command, invocation.operands);
}

// Whatever the command printed must reach its reader; a full disk or a closed
// pipe is a failure too.
int flushStandardOutput(int status) {
    if (std::fflush(stdout) != 0) {
        std::perror("qvstore: cannot write standard output");
        return storeFailed;
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
    if (invocation.action == Invocation::Action::help) {
        std::fputs(Qvstore::usage(Qvstore::defaultLibraryCandidates()).c_str(), stdout);
        return flushStandardOutput(succeeded);
    }
    if (invocation.action == Invocation::Action::version) {
        std::fputs("qvstore " QVSTORE_VERSION "\n", stdout);
        return flushStandardOutput(succeeded);
    }

    try {
        return flushStandardOutput(runInvocation(invocation));
    } catch (const Client::Error& e) {
        std::fprintf(stderr, "qvstore: %s failed (0x%08X): %s\n", invocation.command.c_str(),
                     static_cast<unsigned>(e.code()), e.what());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvstore: %s\n", e.what());
    }
    flushStandardOutput(storeFailed);
    return storeFailed;
}
