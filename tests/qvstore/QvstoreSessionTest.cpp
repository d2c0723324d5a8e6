// One qvstore session as a user types it, against the real local storage
// service that a private bus starts from the build tree's service file.
#include <gtest/gtest.h>
#include <unistd.h>

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

TEST(QvstoreSession, EveryCommandAgainstTheLocalService) {
    const Quorvendale::Testing::PackageFolder data;  // the hosts' data home
    const Quorvendale::Testing::TemporaryFolder services;
    std::filesystem::copy(QV_BUILD_SERVICE_FILE, services.path());
    const Quorvendale::Testing::PrivateBus bus(services.path());
    const Quorvendale::Testing::TemporaryFolder folder;
    const auto qvstore = [&](std::vector<std::string> arguments, const std::string& input = {}) {
        arguments.insert(arguments.begin(), QVSTORE_PATH);
        return Quorvendale::Testing::runProgram(arguments, folder.path(), input);
    };
    const std::string group = "qvstore-session-" + std::to_string(::getpid());

    expectRun(qvstore({"exists"}), 0, "");
    expectRun(qvstore({"write", group, "greeting"}, "hello\nworld"), 0, "");
    expectRun(qvstore({"read", group, "greeting"}), 0, "hello\nworld");
    EXPECT_EQ(Quorvendale::Testing::contentOf(
                  data.localState(Quorvendale::ServiceIdentity::packageFamilyName.data()) / group / "greeting"),
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
    const ProgramRun gone = qvstore({"next", group, "greeting"});
    EXPECT_EQ(gone.exitStatus, 1);
    EXPECT_NE(gone.errors.find("Invalid key"), std::string::npos) << gone.errors;
}

}  // namespace
