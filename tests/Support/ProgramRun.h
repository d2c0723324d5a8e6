// Runs a program to its end for a test, as a shell would, with files in a
// folder of the test's for its standard input, output and error. It runs in a
// process group of its own, killed if it outlives the limit; every path waits
// for it, so nothing is left running.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace Quorvendale::Testing {

struct ProgramRun {
    int exitStatus = -1;         // the exit code, or -1 if a signal ended the program
    std::string output;          // standard output
    std::string errors;          // standard error
    std::size_t inputTaken = 0;  // how far it read into its standard input
};

inline std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// `environment` entries ("NAME=value") replace the test's own variables of
// those names. The files are `folder`/stdin, stdout and stderr.
inline ProgramRun runProgram(std::vector<std::string> arguments,
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
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);

    std::vector<std::string> variables = environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        const std::string name = variable.substr(0, variable.find('=') + 1);
        bool replaced = false;
        for (const std::string& given : environment) replaced |= given.rfind(name, 0) == 0;
        if (!replaced) variables.push_back(variable);
    }
    std::vector<char*> argv, envp;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    for (std::string& variable : variables) envp.push_back(variable.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    pid_t child = -1;
    const int spawned =
        ::posix_spawn(&child, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        ::close(in);
        throw std::runtime_error("cannot start " + arguments.front());
    }

    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(-child, SIGKILL);
            ::waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ProgramRun run;
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.inputTaken = static_cast<std::size_t>(::lseek(in, 0, SEEK_CUR));
    ::close(in);
    run.output = contentOf(folder / "stdout");
    run.errors = contentOf(folder / "stderr");
    return run;
}

}  // namespace Quorvendale::Testing
