// Runs a program to its end for a test, as a shell would, with files in a
// folder of the test's for its standard input, output and error. It runs in a
// process group of its own, killed if it outlives the limit.
#pragma once

#include <fcntl.h>

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
// those names. The files are `folder`/stdin, stdout and stderr. A sanitized
// build's leak checker would list the suppressions it used on standard error
// as the program ends; the tests read standard error whole, so it is told not to.
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
    for (const int out : {1, 2}) {
        const auto file = folder / (out == 1 ? "stdout" : "stderr");
        posix_spawn_file_actions_addopen(&actions, out, file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
    }
    const char* leakOptions = std::getenv("LSAN_OPTIONS");
    std::vector<std::string> variables = environment;
    variables.push_back("LSAN_OPTIONS=" + std::string(leakOptions ? leakOptions : "") +
                        ":print_suppressions=0");
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry, name = variable.substr(0, variable.find('=') + 1);
        if (std::none_of(variables.begin(), variables.end(),
                         [&](const std::string& given) { return given.starts_with(name); })) {
            variables.push_back(variable);
        }
    }
    std::vector<char*> envp;
    for (std::string& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);

    ProgramRun run;
    {
        ChildProcess child(arguments, &actions, envp.data());
        const std::optional<int> status = child.wait(std::chrono::seconds(30));
        run.exitStatus = status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    run.inputTaken = static_cast<std::size_t>(::lseek(in, 0, SEEK_CUR));
    ::close(in);
    run.output = contentOf(folder / "stdout");
    run.errors = contentOf(folder / "stderr");
    return run;
}

}  // namespace Quorvendale::Testing
