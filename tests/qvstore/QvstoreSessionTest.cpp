// One qvstore session as a user types it, against the real local storage
// service. It needs a bus on which the service can be activated; until the
// suite starts one itself, it runs only when QVSTORE_SESSION_BUS gives the
// address of such a bus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Support/ProgramRun.h"
#include "Support/TemporaryFolder.h"

namespace {

using Quorvendale::Testing::ProgramRun;

void expectRun(const ProgramRun& run, int exitStatus, const std::string& output) {
    EXPECT_EQ(run.exitStatus, exitStatus) << run.errors;
    EXPECT_EQ(run.output, output);
}

TEST(QvstoreSession, EveryCommandAgainstTheLocalService) {
    const char* bus = std::getenv("QVSTORE_SESSION_BUS");
    if (bus == nullptr) GTEST_SKIP() << "needs a bus with the storage service: QVSTORE_SESSION_BUS";
    const Quorvendale::Testing::TemporaryFolder folder;
    const auto qvstore = [&](std::vector<std::string> arguments, const std::string& input = {}) {
        arguments.insert(arguments.begin(), QVSTORE_PATH);
        return Quorvendale::Testing::runProgram(arguments, folder.path(), input,
                                                {std::string("DBUS_SESSION_BUS_ADDRESS=") + bus});
    };
    const std::string group = "qvstore-session-" + std::to_string(::getpid());

    expectRun(qvstore({"exists"}), 0, "");
    expectRun(qvstore({"write", group, "greeting"}, "hello\nworld"), 0, "");
    expectRun(qvstore({"read", group, "greeting"}), 0, "hello\nworld");
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
    const ProgramRun gone = qvstore({"next", group, "greeting"});
    EXPECT_EQ(gone.exitStatus, 1);
    EXPECT_NE(gone.errors.find("Invalid key"), std::string::npos) << gone.errors;
}

}  // namespace
