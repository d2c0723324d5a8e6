// The one way the tests start a program: in a process group of its own,
// killed at the end unless the program has ended by then. runProgram runs one
// to its end as a shell would, with files for its standard streams.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Support/TemporaryFolder.h"

extern char** environ;

namespace Quorvendale::Testing {

// The waitpid status of a child once it has ended within the limit.
inline std::optional<int> exitStatusWithin(pid_t process, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    do {
        int status = 0;
        if (::waitpid(process, &status, WNOHANG) == process) return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

class ChildProcess {
public:
    // `actions` set up the program's descriptors. A cross build's programs
    // run under its tests' emulator; `native` ones (a script) do not.
    explicit ChildProcess(const std::vector<std::string>& arguments,
                          const posix_spawn_file_actions_t* actions = nullptr,
                          char* const* environment = environ,
                          [[maybe_unused]] bool native = false) {
        std::vector<char*> argv;
#ifdef QV_TEST_EMULATOR
        if (!native) argv.push_back(const_cast<char*>(QV_TEST_EMULATOR));
#endif
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attributes, 0);
        const int failed =
            ::posix_spawn(&pid_, argv[0], actions, &attributes, argv.data(), environment);
        posix_spawnattr_destroy(&attributes);
        if (failed != 0) throw std::runtime_error("cannot start " + arguments[0]);
    }

    // A fork of this process that runs `body` and ends, then or with this one.
    explicit ChildProcess(const std::function<void()>& body) : pid_(::fork()) {
        if (pid_ < 0) throw std::runtime_error("cannot fork");
        ::setpgid(pid_, 0);  // on both sides, so that it holds before either goes on
        if (pid_ > 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        ::_exit(0);
    }

    ~ChildProcess() {
        if (status_) return;
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(60)) {
        if (!status_) status_ = exitStatusWithin(pid_, limit);
        return status_;
    }

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

struct ProgramRun {
    int exitStatus = -1;         // the exit code, or -1 if a signal ended the program
    std::string output;          // standard output
    std::string errors;          // standard error
    std::size_t inputTaken = 0;  // how far it read into its standard input
};

// `environment` entries ("NAME=value") replace the test's own. The files are
// `folder`/stdin, stdout and stderr. The leak checker of a sanitized build is
// told not to list its suppressions on standard error, which tests read whole.
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
