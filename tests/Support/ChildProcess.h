// A program a test runs beside itself, in a process group of its own that is
// killed at the end unless the program has ended by then.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace Quorvendale::Testing {

class ChildProcess {
public:
    // `actions` set up the program's descriptors; `environment` is its
    // whole environment, this process's own by default. A cross build's
    // programs run under the emulator its tests run under; `native` ones
    // (a script, a system tool) do not.
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

    ~ChildProcess() {
        if (status_) return;
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    // The status waitpid gives once the program has ended; nothing if it
    // has not ended within the limit.
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(60)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (!status_ && std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = status;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
        return status_;
    }

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

}  // namespace Quorvendale::Testing
