// One qvstore session as a user types it, against the real local storage
// service that a private bus starts from the build tree's service file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "ServiceIdentity.h"
#include "Support/PrivateBus.h"
#include "Support/ProgramRun.h"

namespace {

using Quorvendale::Testing::ProgramRun;

void expectRun(const ProgramRun& run, int exitStatus, const std::string& output) {
    EXPECT_EQ(run.exitStatus, exitStatus) << run.errors;
    EXPECT_EQ(run.output, output);
}

// The storage service's package, as the build's service file names it.
constexpr const char* storagePackage = Quorvendale::ServiceIdentity::packageFamilyName.data();

class QvstoreSession : public testing::Test {
protected:
    QvstoreSession() { std::filesystem::copy(QV_BUILD_SERVICE_FILE, services.path()); }

    ProgramRun qvstore(std::vector<std::string> arguments, const std::string& input = {}) const {
        arguments.insert(arguments.begin(), QVSTORE_PATH);
        return Quorvendale::Testing::runProgram(arguments, folder.path(), input);
    }

    // A failure: its exit status, nothing on standard output, and one line
    // that begins with `line` on standard error.
    void expectFailure(const ProgramRun& run, int exitStatus, const std::string& line) const {
        EXPECT_EQ(run.exitStatus, exitStatus) << run.errors;
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(run.errors.rfind("qvstore: " + line, 0), 0u) << run.errors;
        EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1) << run.errors;
    }

    const Quorvendale::Testing::PackageFolder data;  // the hosts' data home
    const Quorvendale::Testing::TemporaryFolder services;
    const Quorvendale::Testing::PrivateBus bus{services.path()};
    const Quorvendale::Testing::TemporaryFolder folder;
    const std::string group = "qvstore-session-" + std::to_string(::getpid());
};

TEST_F(QvstoreSession, EveryCommandAgainstTheLocalService) {
    expectRun(qvstore({"exists"}), 0, "");
    expectRun(qvstore({"write", group, "greeting"}, "hello\nworld"), 0, "");
    expectRun(qvstore({"read", group, "greeting"}), 0, "hello\nworld");
    EXPECT_EQ(Quorvendale::Testing::contentOf(data.localState(storagePackage) / group / "greeting"),
              "hello\r\nworld");
    expectRun(qvstore({"write", group, "second", "2"}), 0, "");

    // The store's own order: take it from the walk, then check next against it.
    const ProgramRun listed = qvstore({"list", group});
    ASSERT_EQ(listed.exitStatus, 0) << listed.errors;
    ASSERT_TRUE(listed.output == "greeting\nsecond\n" || listed.output == "second\ngreeting\n")
        << listed.output;
    const std::string first = listed.output.substr(0, listed.output.find('\n'));
    const std::string last = first == "greeting" ? "second" : "greeting";
    expectRun(qvstore({"next", group}), 0, first + "\n");
    expectRun(qvstore({"next", group, first}), 0, last + "\n");
    expectRun(qvstore({"next", group, last}), 0, "");

    expectRun(qvstore({"remove", group, "greeting"}), 0, "");
    expectRun(qvstore({"remove", group, "second"}), 0, "");
    expectRun(qvstore({"list", group}), 0, "");
    expectFailure(qvstore({"next", group, "greeting"}), 1,
                  "next " + group + " greeting: Invalid key");
}

// Each exit status from the situation that causes it; a refusal stores nothing;
// export and import carry a group whole.
TEST_F(QvstoreSession, FailuresRefusalsExportAndImport) {
    expectFailure(qvstore({"read", group, "missing"}), 1,
                  "read " + group + " missing: Read file error: file ");
    expectRun(qvstore({"read", "--default", "-", group, "missing"}), 0, "-");
    const ProgramRun quiet = qvstore({"-q", "read", group, "missing"});
    EXPECT_EQ(quiet.exitStatus + quiet.output.size() + quiet.errors.size(), 1u) << quiet.errors;
    expectRun(qvstore({"remove", group, "missing"}), 0, "");

    expectFailure(qvstore({"write", group, "k"}, std::string("a\0b", 3)), 2,
                  "write " + group + " k: refused: the value holds byte 0x00");
    expectFailure(qvstore({"import", group}, R"({"a":"1","b":"\u001a"})"), 2,
                  "import " + group + ": refused: entry \"b\": the value holds byte 0x1A");
    expectRun(qvstore({"list", group}), 0, "");

    // A key that names a folder cannot be written as a file.
    std::filesystem::create_directories(data.localState(storagePackage) / group / "folder");
    expectFailure(qvstore({"write", group, "folder", "v"}), 4,
                  "write " + group + " folder: Write file error");

    // export then import into another group gives the same entries back, exactly.
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

// Before anything was started, the bus forgets a service file that is gone.
TEST_F(QvstoreSession, WithoutItsServiceFileTheServiceIsNotInstalled) {
    std::filesystem::remove(services.path() /
                            std::filesystem::path(QV_BUILD_SERVICE_FILE).filename());
    expectFailure(qvstore({"read", "g", "k"}), 3,
                  "read g k: the storage service cannot be reached: it is not installed: no D-Bus "
                  "service file provides it (AppNotInstalled)\n");
}

}  // namespace
