// Runs a program to its end for a test, as a shell would: standard input fed
// from a string, standard output and standard error collected apart. The
// program runs in a process group of its own, which is killed if it outlives
// the time limit; every path waits for it, so nothing is left running.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace Quorvendale::Testing {

struct ProgramRun {
    int exitStatus = -1;         // the exit code, or -1 if a signal ended the program
    std::string output;          // standard output
    std::string errors;          // standard error
    std::size_t inputTaken = 0;  // bytes of the input that went into its standard input
    bool timedOut = false;       // it was killed at the time limit
};

namespace Details {

// The test's environment with `overrides` ("NAME=value") put in place.
inline std::vector<std::string> environmentWith(const std::vector<std::string>& overrides) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        const std::string name = variable.substr(0, variable.find('=') + 1);
        bool replaced = false;
        for (const std::string& given : overrides) replaced |= given.rfind(name, 0) == 0;
        if (!replaced) result.push_back(variable);
    }
    result.insert(result.end(), overrides.begin(), overrides.end());
    return result;
}

inline std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        read = ends[0];
        write = ends[1];
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    void closeRead() {
        if (read >= 0) ::close(read);
        read = -1;
    }
    void closeWrite() {
        if (write >= 0) ::close(write);
        write = -1;
    }
};

// Owns a started child: waits for it, and kills its process group first if
// it is still running when the wait must end.
class Child {
public:
    explicit Child(pid_t id) : id_(id) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (id_ > 0) kill();
    }

    // The wait status; kills the process group at the deadline.
    int wait(std::chrono::steady_clock::time_point deadline) {
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            const pid_t ended = ::waitpid(id_, &status, WNOHANG);
            if (ended == id_) {
                id_ = -1;
                return status;
            }
            if (ended < 0 && errno != EINTR) throw std::runtime_error("waitpid failed");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return kill();
    }

    int kill() {
        ::kill(-id_, SIGKILL);
        int status = 0;
        while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
        }
        id_ = -1;
        return status;
    }

private:
    pid_t id_;
};

}  // namespace Details

inline ProgramRun runProgram(std::vector<std::string> arguments, const std::string& input = {},
                             const std::vector<std::string>& environment = {},
                             std::chrono::seconds limit = std::chrono::seconds(30)) {
    // A program that stops reading must show as a short write here, not end the test.
    static const bool sigpipeIgnored = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
    (void)sigpipeIgnored;

    Details::Pipe in, out, err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.read, 0);
    posix_spawn_file_actions_adddup2(&actions, out.write, 1);
    posix_spawn_file_actions_adddup2(&actions, err.write, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> variables = Details::environmentWith(environment);
    std::vector<char*> argv = Details::pointersTo(arguments);
    std::vector<char*> envp = Details::pointersTo(variables);
    pid_t child = -1;
    const int spawned =
        ::posix_spawn(&child, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) throw std::runtime_error("cannot start " + arguments.front());
    Details::Child running(child);

    in.closeRead();
    out.closeWrite();
    err.closeWrite();
    ::fcntl(in.write, F_SETFL, O_NONBLOCK);
    if (input.empty()) in.closeWrite();

    ProgramRun run;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (out.read >= 0 || err.read >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd watched[] = {{in.write, POLLOUT, 0}, {out.read, POLLIN, 0}, {err.read, POLLIN, 0}};
        if (::poll(watched, 3, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
        if (watched[0].revents != 0) {
            const ssize_t written =
                ::write(in.write, input.data() + run.inputTaken, input.size() - run.inputTaken);
            if (written > 0) run.inputTaken += static_cast<std::size_t>(written);
            if ((written < 0 && errno != EAGAIN) || run.inputTaken == input.size()) {
                in.closeWrite();
            }
        }
        std::pair<Details::Pipe*, std::string*> readers[] = {{&out, &run.output},
                                                             {&err, &run.errors}};
        for (int i = 0; i < 2; ++i) {
            if (watched[i + 1].revents == 0) continue;
            char buffer[64 * 1024];
            const ssize_t count = ::read(readers[i].first->read, buffer, sizeof buffer);
            if (count > 0) {
                readers[i].second->append(buffer, static_cast<std::size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                readers[i].first->closeRead();
            }
        }
    }
    run.timedOut = std::chrono::steady_clock::now() >= deadline;
    const int status = running.wait(deadline);
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

}  // namespace Quorvendale::Testing
