// Runs a program to its end for a test, as a shell would, with files in a
// folder of the test's for its standard input, output and error. It runs in a
// process group of its own, killed if it outlives the limit; every path waits
// for it, so nothing is left running.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "Support/ChildProcess.h"
#include "Support/TemporaryFolder.h"

namespace Quorvendale::Testing {

struct ProgramRun {
    int exitStatus = -1;         // the exit code, or -1 if a signal ended the program
    std::string output;          // standard output
    std::string errors;          // standard error
    std::size_t inputTaken = 0;  // how far it read into its standard input
};

// `environment` entries ("NAME=value") replace the test's own variables of
// those names. The files are `folder`/stdin, stdout and stderr.
inline ProgramRun runProgram(const std::vector<std::string>& arguments,
                             const std::filesystem::path& folder, const std::string& input = {},
                             const std::vector<std::string>& environment = {}) {
    std::ofstream(folder / "stdin", std::ios::binary) << input;
    // The program's standard input shares this descriptor's offset, which
    // tells afterwards how far it read.
    const int in = ::open((folder / "stdin").c_str(), O_RDONLY | O_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 1, (folder / "stdout").c_str(), flags, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, (folder / "stderr").c_str(), flags, 0600);

    std::vector<std::string> variables = environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        const std::string name = variable.substr(0, variable.find('=') + 1);
        bool replaced = false;
        for (const std::string& given : environment) replaced |= given.rfind(name, 0) == 0;
        if (!replaced) variables.push_back(variable);
    }
    std::vector<char*> envp;
    for (std::string& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);

    std::optional<int> status;
    try {
        ChildProcess child(arguments, &actions, envp.data());
        status = child.wait(std::chrono::seconds(30));
    } catch (...) {
        posix_spawn_file_actions_destroy(&actions);
        ::close(in);
        throw;
    }
    posix_spawn_file_actions_destroy(&actions);
    ProgramRun run;
    run.exitStatus = status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    run.inputTaken = static_cast<std::size_t>(::lseek(in, 0, SEEK_CUR));
    ::close(in);
    run.output = contentOf(folder / "stdout");
    run.errors = contentOf(folder / "stderr");
    return run;
}

}  // namespace Quorvendale::Testing
