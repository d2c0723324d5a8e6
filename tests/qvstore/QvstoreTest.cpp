// qvstore as its users run it: the built program in a process of its own,
// loading the built library, with its exit status, standard output and
// standard error checked for each kind of outcome. No run reaches a session
// bus of the machine: each names a bus address where nothing listens.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Support/LoopbackSocket.h"
#include "Support/ProgramRun.h"
#include "Support/TemporaryFolder.h"

namespace {

using Quorvendale::Testing::ProgramRun;

const std::string refusal =
    "hostname is invalid or requires DNS lookup, which is not supported yet";

std::string failed(const std::string& command, const std::string& text) {
    return "qvstore: " + command + " failed (0x80004005): " + text + "\n";
}

class Qvstore : public testing::Test {
protected:
    ProgramRun qvstore(std::vector<std::string> arguments, const std::string& input = {},
                       const std::string& program = QVSTORE_PATH) const {
        arguments.insert(arguments.begin(), program);
        // A sanitizer build's leak checker lists the suppressions it used on
        // standard error as the program ends; the tests read standard error whole.
        const char* leakOptions = std::getenv("LSAN_OPTIONS");
        return Quorvendale::Testing::runProgram(
            arguments, folder_.path(), input,
            {"DBUS_SESSION_BUS_ADDRESS=unix:path=" + (folder_ / "no-bus").string(),
             "LSAN_OPTIONS=" + std::string(leakOptions ? leakOptions : "") +
                 ":print_suppressions=0"});
    }

    const Quorvendale::Testing::TemporaryFolder folder_;
};

TEST_F(Qvstore, HelpAndVersionPrintAndSucceed) {
    const ProgramRun help = qvstore({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_EQ(help.errors, "");
    EXPECT_EQ(help.output.rfind("Usage: qvstore [OPTIONS] COMMAND [ARGUMENTS]\n", 0), 0u);
    EXPECT_NE(help.output.find(QV_LIBRARY_PATH), std::string::npos) << help.output;
    EXPECT_EQ(qvstore({"read", "g", "-h"}).output, help.output);

    const ProgramRun version = qvstore({"--version"});
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_EQ(version.output, "qvstore " QV_PROJECT_VERSION "\n");
}

TEST_F(Qvstore, UsageErrorsExitTwoWithAHint) {
    const std::vector<std::vector<std::string>> commandLines = {
        {},
        {"frobnicate"},
        {"exists", "-x"},
        {"read", "g"},
        {"write", "g", "k", "data", "extra"},
        {"next"},
        {"list", "g", "k"},
        {"exists", "--remote"},
        {"--remote", "127.0.0.1", "exists"},
        {"--remote", ":7000", "exists"},
        {"--remote=127.0.0.1:65536", "exists"},
        {"--library=", "exists"},
    };
    for (const auto& arguments : commandLines) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const ProgramRun run = qvstore(arguments);
        EXPECT_EQ(run.exitStatus, 2);
        EXPECT_EQ(run.output, "");
        const std::size_t hint = run.errors.find("\nTry 'qvstore --help' for more information.\n");
        EXPECT_TRUE(run.errors.rfind("qvstore: ", 0) == 0 && hint != std::string::npos &&
                    std::count(run.errors.begin(), run.errors.end(), '\n') == 2)
            << run.errors;
    }
}

// The remote client refuses every address before it connects: each command
// ends with exit status 1 and the client's text, and the server is never
// called. Options may come after the command, and "--" ends them.
TEST_F(Qvstore, RemoteFailuresExitOneWithTheStoresText) {
    const auto listener = Quorvendale::Testing::listenOnLoopback(8);
    const std::string address = "127.0.0.1:" + std::to_string(listener.port);
    const std::vector<std::pair<std::string, std::vector<std::string>>> commandLines = {
        {"write", {"--remote", address, "write", "g", "k", "data"}},
        {"read", {"--remote=" + address, "read", "g", "k"}},
        {"remove", {"remove", "g", "k", "--remote", address}},
        {"next", {"--remote", address, "--", "next", "g", "--key"}},
        {"list", {"--remote", address, "list", "g"}},
        {"exists", {"--remote", address, "exists"}},
    };
    for (const auto& [command, arguments] : commandLines) {
        SCOPED_TRACE(command);
        const ProgramRun run = qvstore(arguments);
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(run.errors, failed(command, refusal));
    }
    EXPECT_FALSE(Quorvendale::Testing::readable(listener.handle, 0))
        << "a connection reached the server";
    Quorvendale::Testing::closeSocket(listener.handle);
}

// Without DATA, write takes all of standard input, any bytes, before it calls
// the store; with DATA it leaves standard input alone.
TEST_F(Qvstore, WriteTakesStandardInputOnlyWithoutData) {
    std::string input(1 << 20, '\0');
    for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>(i * 7);
    const ProgramRun fromInput = qvstore({"--remote=127.0.0.1:1", "write", "g", "k"}, input);
    EXPECT_EQ(fromInput.inputTaken, input.size());
    EXPECT_EQ(fromInput.errors, failed("write", refusal));
    const ProgramRun fromData = qvstore({"--remote=127.0.0.1:1", "write", "g", "k", "d"}, input);
    EXPECT_EQ(fromData.inputTaken, 0u);
    EXPECT_EQ(fromData.errors, failed("write", refusal));
}

// An installed qvstore loads the library installed with it, found from its
// own place, before the library of the build tree.
TEST_F(Qvstore, InstalledCopyPrefersTheLibraryInstalledWithIt) {
    const std::filesystem::path program = folder_ / "bin" / "qvstore";
    std::filesystem::create_directories(program.parent_path());
    std::filesystem::copy_file(QVSTORE_PATH, program);
    const std::vector<std::string> exists = {"--remote", "127.0.0.1:1", "exists"};
    EXPECT_EQ(qvstore(exists, {}, program).errors, failed("exists", refusal));

    const std::filesystem::path installed =
        (program.parent_path() / QVSTORE_LIBRARY_FROM_PROGRAM_FOLDER / QV_LIBRARY_FILE_NAME)
            .lexically_normal();
    std::filesystem::create_directories(installed.parent_path());
    std::ofstream(installed) << "not a library: loading it fails, and says which file it was\n";
    const ProgramRun run = qvstore(exists, {}, program);
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.errors.rfind("qvstore: cannot load " + installed.string() + ": ", 0), 0u)
        << run.errors;
}

// With no bus to reach, the local client cannot connect: the library's two
// lines on standard output, one line of qvstore's on standard error.
TEST_F(Qvstore, LocalStoreOutOfReachExitsOne) {
    const ProgramRun run = qvstore({"exists"});
    EXPECT_EQ(run.exitStatus, 1);
    // The second line is the connection's error report, which spans lines.
    EXPECT_EQ(run.output.rfind("Error: UwpClient connection failed\nException:\n", 0), 0u)
        << run.output;
    EXPECT_TRUE(run.output.ends_with("\tmessage: AppUnavailable\n")) << run.output;
    EXPECT_EQ(run.errors,
              "qvstore: no local storage client: the storage service cannot be reached\n");
}

}  // namespace
