// The built qvstore as its users run it. Qvstore's runs name a bus where
// nothing listens; QvstoreSession's reach the real service on a private bus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "Support/LoopbackSocket.h"
#include "Support/StorageServiceBus.h"
#include "Support/ChildProcess.h"
#include "Quorvendale/Limits.h"

namespace {

using Quorvendale::Testing::ProgramRun;

const std::string refusal =
    "hostname is invalid or requires DNS lookup, which is not supported yet";

std::string unreachable(const std::string& subject) {
    return "qvstore: " + subject + ": the storage server cannot be reached: " + refusal + "\n";
}

void expectRun(const ProgramRun& run, int exitStatus, const std::string& output) {
    EXPECT_EQ(run.exitStatus, exitStatus) << run.errors;
    EXPECT_EQ(run.output, output);
}

// A failure: its exit status, nothing on standard output, and one line
// that begins with `line` on standard error.
void expectFailure(const ProgramRun& run, int exitStatus, const std::string& line) {
    expectRun(run, exitStatus, "");
    EXPECT_EQ(run.errors.rfind("qvstore: " + line, 0), 0u) << run.errors;
    EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1) << run.errors;
}

class Qvstore : public testing::Test, protected Quorvendale::Testing::StorageServiceBus {
protected:
    ProgramRun qvstore(std::vector<std::string> arguments, const std::string& input = {},
                       const std::string& program = QVSTORE_PATH) const {
        arguments.insert(arguments.begin(), program);
        std::vector<std::string> environment;
        if (!bus_) environment = {"DBUS_SESSION_BUS_ADDRESS=unix:path=" + (folder_ / "no-bus").string()};
        return Quorvendale::Testing::runProgram(arguments, folder_.path(), input, environment);
    }

    const Quorvendale::Testing::TemporaryFolder folder_;
};

TEST_F(Qvstore, HelpAndVersionPrintAndSucceed) {
    const ProgramRun help = qvstore({"--help"});
    EXPECT_EQ(help.output.rfind("Usage: qvstore [OPTIONS] COMMAND [ARGUMENTS]\n", 0), 0u);
    // Without an installed library beside it, the loader finds the build's by
    // SONAME, through a RUNPATH that installing removes.
    EXPECT_NE(help.output.find(" libQuorvendaleStorageClient.so.1\n"), std::string::npos)
        << help.output;
    for (const auto& [arguments, output] :
         {std::pair{std::vector<std::string>{"--help"}, help.output},
          {{"read", "g", "-h"}, help.output},
          {{"--version"}, "qvstore " QV_PROJECT_VERSION "\n"}}) {
        const ProgramRun run = qvstore(arguments);
        expectRun(run, 0, output);
        EXPECT_EQ(run.errors, "");
    }
}

// Usage errors (a hint on a second line) and refused input (one line) exit 2
// before the library is even loaded.
TEST_F(Qvstore, UsageErrorsAndRefusedInputExitTwo) {
    const std::string hint = "\nTry 'qvstore --help' for more information.\n";
    std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
        {{}, "", hint},
        {{"frobnicate"}, "", hint},
        {{"exists", "-x"}, "", hint},
        {{"read", "g"}, "", hint},
        {{"write", "g", "k", "data", "extra"}, "", hint},
        {{"next"}, "", hint},
        {{"list", "g", "k"}, "", hint},
        {{"exists", "--remote"}, "", hint},
        {{"--remote", "127.0.0.1", "exists"}, "", hint},
        {{"--remote", ":7000", "exists"}, "", hint},
        {{"--remote=127.0.0.1:65536", "exists"}, "", hint},
        {{"--library=", "exists"}, "", hint},
        {{"list", "--default", "x", "g"}, "", hint},
        {{"read", "--json", "g", "k"}, "", hint},
        {{"--remote", "127.0.0.1:1", "status"}, "", hint},
        {{"write", "g", "k"}, "a\xC3(", "the value is not valid UTF-8 at byte 0xC3 at offset 1"},
        {{"write", "g", "k"}, "\xED\xA0\x80", "the value is not valid UTF-8 at byte 0xED"},
        {{"write", "g", "k"}, "a\x1A", "write g k: refused: the value holds byte 0x1A at offset 1"},
        {{"write", "g", "a/b", "v"}, "", "write g a/b: refused: the key holds '/' at offset 1"},
        {{"read", "..", "k"}, "", "read .. k: refused: the group is '..'"},
        {{"write", "g", "", "v"}, "", "write g: refused: the key is empty"},
        {{"read", "g", std::string(256, 'k')}, "", "The key is too long: 256 bytes, the longest"},
        {{"write", "g", ".default"}, "theme\n", "the value ends in a line feed, so the alias"},
        {{"import", "g"}, R"({".default":"k\n"})", "entry \".default\": the value ends in a line"},
        {{"import", "g"}, R"({"k":1})", "the JSON input at byte 5: the value of \"k\" is not a"},
        {{"import", "g"}, R"({"k":"\ud800"})", "the JSON input at byte 12: a lone surrogate"},
    };
    // The limits are refused before the library is even loaded.
    cases.push_back({{"--library=/none", "write", "g", "k"},
                     std::string(QV_LOCAL_MAX_VALUE_BYTES + 1, 'v'),
                     "write g k: refused: The value is too large: 32505857 bytes, the largest the "
                     "local client carries is 32505856 bytes"});
    cases.push_back({{"--library=/none", "write", std::string(256, 'g'), "k"}, "",
                     "The group is too long: 256 bytes, the longest the local client carries is "
                     "255 bytes"});
    for (const auto& [arguments, input, message] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const ProgramRun run = qvstore(arguments, input);
        EXPECT_TRUE(run.exitStatus == 2 && run.output.empty()) << run.exitStatus;
        const auto lines = std::count(run.errors.begin(), run.errors.end(), '\n');
        EXPECT_TRUE(run.errors.rfind("qvstore: ", 0) == 0 &&
                    run.errors.find(message) != std::string::npos &&
                    lines == (message == hint ? 2 : 1))
            << run.errors;
    }
}

// The remote client refuses every address before it connects: exit 3 with
// its text. Options may follow the command, "--" ends them; only write
// without DATA reads standard input, all of it, before it calls the client.
TEST_F(Qvstore, RemoteFailuresExitThreeWithTheClientsText) {
    const auto listener = Quorvendale::Testing::listenOnLoopback(8);
    const std::string address = "127.0.0.1:" + std::to_string(listener.port);
    std::string input(1 << 20, '\0');
    for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>(i * 7);
    const std::vector<std::tuple<std::string, std::vector<std::string>, bool>> commandLines = {
        {"write g k", {"--remote", address, "write", "g", "k", "data"}, false},
        {"write g k", {"--remote", address, "write", "g", "k"}, true},
        {"read g k", {"--remote=" + address, "read", "g", "k"}, false},
        {"remove g k", {"remove", "g", "k", "--remote", address}, false},
        {"next g --key", {"--remote", address, "--", "next", "g", "--key"}, false},
        {"list g", {"--remote", address, "list", "g"}, false},
        {"exists", {"--remote", address, "exists"}, false},
    };
    for (const auto& [subject, arguments, takesInput] : commandLines) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const ProgramRun run = qvstore(arguments, input);
        expectRun(run, 3, "");
        EXPECT_EQ(run.errors, unreachable(subject));
        EXPECT_EQ(run.inputTaken, takesInput ? input.size() : 0u);
    }
    EXPECT_FALSE(Quorvendale::Testing::readable(listener.handle, 0))
        << "a connection reached the server";
    Quorvendale::Testing::closeSocket(listener.handle);
}

// A library that does not load exits 4 and names the file.
TEST_F(Qvstore, ALibraryThatDoesNotLoadExitsFour) {
    const std::string library = (folder_ / "libnone.so").string();
    expectFailure(qvstore({"--library", library, "exists"}), 4,
                  "exists: cannot load " + library + ": ");
}

// With no bus to reach, the local client cannot connect: the line says so, and
// --verbose adds the library's report after it, on standard error too.
TEST_F(Qvstore, LocalStoreWithoutBusExitsThree) {
    const ProgramRun run = qvstore({"--verbose", "read", "g", "k"});
    EXPECT_TRUE(run.exitStatus == 3 && run.output.empty()) << run.exitStatus;
    EXPECT_EQ(run.errors.rfind(
                  "qvstore: read g k: the storage service cannot be reached: no session bus at " +
                      (folder_ / "no-bus").string() +
                      ": No such file or directory (AppUnavailable)\nError: UwpClient "
                      "connection failed\nException:\n",
                  0),
              0u)
        << run.errors;
}

class QvstoreSession : public Qvstore {
protected:
    QvstoreSession() { startBus(); }
    const std::string group = "qvstore-session-" + std::to_string(::getpid());
};

TEST_F(QvstoreSession, EveryCommandAgainstTheLocalService) {
    expectRun(qvstore({"exists"}), 0, "");
    expectRun(qvstore({"write", group, "greeting"}, "hello\nworld"), 0, "");
    expectRun(qvstore({"read", group, "greeting"}), 0, "hello\nworld");
    EXPECT_EQ(Quorvendale::Testing::contentOf(localState() / group / "greeting"), "hello\r\nworld");
    expectRun(qvstore({"write", group, "second", "2"}), 0, "");
    expectRun(qvstore({"write", group, "Zeta", "3"}), 0, "");
    expectRun(qvstore({"write", group, "two\nlines", "4"}), 0, "");

    // list sorts by bytes and keeps a key on one line; --json carries it exactly.
    expectRun(qvstore({"list", group}), 0, "Zeta\ngreeting\nsecond\ntwo\\nlines\n");
    expectRun(qvstore({"list", "--json", group}), 0,
              "[\"Zeta\",\"greeting\",\"second\",\"two\\nlines\"]\n");
    // next follows the store's own order: a walk from the empty key meets each once.
    std::vector<std::string> walked;
    for (std::string key = qvstore({"next", group}).output; !key.empty() && walked.size() < 5;
         key = qvstore({"next", group, "--", walked.back()}).output) {
        walked.push_back(key.substr(0, key.size() - 1));
    }
    std::sort(walked.begin(), walked.end());
    EXPECT_EQ(walked, (std::vector<std::string>{"Zeta", "greeting", "second", "two\nlines"}));

    for (const char* key : {"greeting", "second", "Zeta", "two\nlines"})
        expectRun(qvstore({"remove", group, key}), 0, "");
    expectRun(qvstore({"list", group}), 0, "");
    expectFailure(qvstore({"next", group, "greeting"}), 1,
                  "next " + group + " greeting: no such key\n");
}

// Each exit status from the situation that causes it; a refusal stores nothing;
// export and import carry a group whole.
TEST_F(QvstoreSession, FailuresRefusalsExportAndImport) {
    expectFailure(qvstore({"read", group, "missing"}), 1,
                  "read " + group + " missing: no such key\n");
    const ProgramRun verbose = qvstore({"-v", "read", group, "missing"});
    EXPECT_EQ(verbose.exitStatus, 1);
    EXPECT_NE(verbose.errors.find("message: Read file error: file "), std::string::npos);
    expectRun(qvstore({"read", "--default", "-", group, "missing"}), 0, "-");
    const ProgramRun quiet = qvstore({"-q", "read", group, "missing"});
    EXPECT_EQ(quiet.exitStatus + quiet.output.size() + quiet.errors.size(), 1u) << quiet.errors;
    expectRun(qvstore({"remove", group, "missing"}), 0, "");
    expectFailure(qvstore({"write", group, "default", "v"}), 4,  // the alias names no key
                  "write " + group + " default: Read file error: file ");

    expectFailure(qvstore({"write", group, "k"}, std::string("a\0b", 3)), 2,
                  "write " + group + " k: refused: the value holds byte 0x00");
    expectFailure(qvstore({"import", group}, R"({"a":"1","b":"\u001a"})"), 2,
                  "import " + group + ": refused: entry \"b\": the value holds byte 0x1A");
    expectRun(qvstore({"list", group}), 0, "");

    std::filesystem::create_directories(localState() / group / "folder");
    expectFailure(qvstore({"write", group, "folder", "v"}), 4,
                  "write " + group + " folder: Write file error");

    const std::vector<std::pair<std::string, std::string>> entries = {
        {"utf-8", "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x8E\xB5"},
        {"lines", "one\ntwo\n"},
        {"crlf", "one\r\ntwo\r\n"},
        {"-quote", "\"\\\t"},
    };
    for (const auto& [key, value] : entries)
        expectRun(qvstore({"write", group, "--", key}, value), 0, "");
    expectRun(qvstore({"import", group + "-copy"}, qvstore({"export", group}).output), 0, "");
    for (const auto& [key, value] : entries)
        expectRun(qvstore({"read", group + "-copy", "--", key}), 0, value);
    const ProgramRun listed = qvstore({"list", "--json", group + "-copy"});  // "folder" as well
    EXPECT_EQ(std::count(listed.output.begin(), listed.output.end(), ','), 4) << listed.output;
}

// 3 only where the service was never reached; a service that answered with a
// failure, or a connection cut mid-request, is 4, with its text.
TEST_F(Qvstore, ExitThreeForAServiceThatFailsToStartFourForOneThatFails) {
    install(" --no-such-option");  // the host refuses to start
    bus_.emplace(services_.path());
    expectFailure(qvstore({"read", "g", "k"}), 3,
                  "read g k: the storage service cannot be reached: it failed to start or to "
                  "answer (AppUnavailable)\n");
    bus_.reset();
    startBus(" --entry-point Test.ScriptedService --library \"" QV_SCRIPTED_SERVICE "\"");
    expectFailure(qvstore({"read", "g", "reject"}), 4,
                  "read g reject: rejected by the scripted service\n");
    // Reached, then cut mid-request, on the first connection and on the retry's.
    expectFailure(qvstore({"read", "g", "end-the-host"}), 4, "read g end-the-host: ");
}

// status reads the running host's counters and never starts one: before the
// first request it says so and exits 3, and the bus starts no host for it.
TEST_F(QvstoreSession, StatusNeverStartsTheServiceAndCountsWhatWasDone) {
    expectFailure(qvstore({"status"}), 3, "status: the storage service is not running");
    expectFailure(qvstore({"status", "--json"}), 3, "status: the storage service is not running");
    EXPECT_FALSE(bus_->ownerOf(Quorvendale::Testing::storagePackage).has_value());

    expectRun(qvstore({"write", group, "k", "v"}), 0, "");
    expectRun(qvstore({"read", group, "k"}), 0, "v");
    const ProgramRun table = qvstore({"status"});
    ASSERT_EQ(table.exitStatus, 0) << table.errors;
    const std::string pid = std::to_string(host());
    for (const std::string& line : std::vector<std::string>{
             "version        " QV_PROJECT_VERSION "\n", "pid            " + pid + "\n",
          "requests       2 (read 1, write 1), 0 failed\n",
          "frame memory   0 of 469762048 bytes\n"}) {
        EXPECT_NE(table.output.find(line), std::string::npos) << table.output;
    }
    const ProgramRun json = qvstore({"status", "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.errors;
    EXPECT_EQ(json.output.rfind("{\"Version\":\"" QV_PROJECT_VERSION "\",\"ProcessId\":" + pid + ",", 0),
              0u)
        << json.output;
    EXPECT_NE(json.output.find(",\"Requests\":{\"read\":1,\"write\":1},\"RequestsFailed\":0,"),
              std::string::npos)
        << json.output;
    EXPECT_EQ(json.output.back(), '\n');
    EXPECT_EQ(std::count(json.output.begin(), json.output.end(), '\n'), 1);
}

// Before anything was started, the bus forgets a service file that is gone.
TEST_F(QvstoreSession, WithoutItsServiceFileTheServiceIsNotInstalled) {
    std::filesystem::remove(serviceFile());
    expectFailure(qvstore({"read", "g", "k"}), 3,
                  "read g k: the storage service cannot be reached: it is not installed: no D-Bus "
                  "service file provides it (AppNotInstalled)\n");
}

}  // namespace
