// A private session bus for tests and benchmarks, made by scripts/private-bus:
// a dbus-daemon whose only service folder is the one given, in a process group
// with every host it activates, killed by the script when its command ends.
// That command waits on a pipe from this object, so the bus goes with the
// object or with this process. While it lives, DBUS_SESSION_BUS_ADDRESS points
// at it. As subreaper, this process inherits each host the daemon orphans, so
// a test can see how it ended (exitStatusOf).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>

#include "Support/ChildProcess.h"
#include "Support/PackageFolder.h"

namespace Quorvendale::Testing {

// A service file: the bus starts `exec` when `name` is called.
inline void writeServiceFile(const std::filesystem::path& folder, const std::string& name,
                             const std::string& exec) {
    std::filesystem::create_directories(folder);
    std::ofstream(folder / (name + ".service"))
        << "[D-BUS Service]\nName=" << name << "\nExec=" << exec << "\n";
}

class PrivateBus {
public:
    struct Options {
        bool overTcp = false;  // on 127.0.0.1: a bus that cannot pass descriptors
        // For a service to own its name; under the client's 30 s call time-out.
        std::chrono::milliseconds serviceStartTimeout{10'000};
    };

    explicit PrivateBus(const std::filesystem::path& services) : PrivateBus(services, {}) {}

    PrivateBus(const std::filesystem::path& services, Options options) {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        std::filesystem::create_directories(services);
        std::vector<std::string> arguments = {
            QV_PRIVATE_BUS, "--services", services.string(), "--start-timeout",
            std::to_string(options.serviceStartTimeout.count()), "--", "/bin/sh", "-c",
            "echo \"$DBUS_SESSION_BUS_ADDRESS\"; echo \"$PRIVATE_BUS_LOG\"; exec cat >/dev/null"};
        if (options.overTcp) arguments.insert(arguments.begin() + 1, "--tcp");
        script_.emplace(arguments, &actions, environ, true);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        keepAlive_ = in[1];
        address_ = readLine(out[0]);
        logFile_ = readLine(out[0]);
        ::close(out[0]);
        if (address_.empty()) {
            end();
            throw std::runtime_error("the private bus did not start");
        }
        // The daemon leads the group that holds it and every host.
        daemon_ = ownerOf("org.freedesktop.DBus").value_or(0);
        variable_.emplace("DBUS_SESSION_BUS_ADDRESS", address_.c_str());
    }

    ~PrivateBus() {
        variable_.reset();
        end();
        // The hosts the script killed with the daemon are our children by now.
        while (daemon_ > 0 && (::waitpid(-daemon_, nullptr, 0) > 0 || errno == EINTR)) {
        }
    }

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return address_; }
    // The standard error of the daemon and what it started.
    std::string log() const { return contentOf(logFile_); }

    std::optional<pid_t> ownerOf(const std::string& name) const {
        std::optional<pid_t> owner;
        askTheBus("GetConnectionUnixProcessID", name.c_str(), [&](sd_bus_message* reply) {
            std::uint32_t pid = 0;
            if (sd_bus_message_read(reply, "u", &pid) >= 0) owner = static_cast<pid_t>(pid);
        });
        return owner;
    }

    void reloadServices() const {
        askTheBus("ReloadConfig", nullptr, [](sd_bus_message*) {});
    }

    // The waitpid status of a process the bus started, once it has ended.
    static std::optional<int> exitStatusOf(pid_t process) {
        return exitStatusWithin(process, std::chrono::seconds(20));
    }

private:
    template <class Read>
    void askTheBus(const char* method, const char* argument, Read read) const {
        sd_bus* bus = nullptr;
        sd_bus_message* reply = nullptr;
        if (sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address_.c_str()) >= 0 &&
            sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
            sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", method, nullptr, &reply, argument ? "s" : "",
                               argument) >= 0) {
            read(reply);
        }
        sd_bus_message_unref(reply);
        sd_bus_flush_close_unref(bus);
    }

    // The command ends with its standard input, and the script kills the group.
    void end() {
        if (keepAlive_ >= 0) ::close(std::exchange(keepAlive_, -1));
        if (!script_->wait(std::chrono::seconds(10))) ::kill(-script_->pid(), SIGTERM);
        script_->wait(std::chrono::seconds(10));
    }

    static std::string readLine(int descriptor) {
        std::string line;
        pollfd watched{descriptor, POLLIN, 0};
        for (char byte = 0; ::poll(&watched, 1, 10'000) > 0 && ::read(descriptor, &byte, 1) == 1 &&
                            byte != '\n';) {
            line += byte;
        }
        return line;
    }

    std::optional<ChildProcess> script_;
    int keepAlive_ = -1;
    std::string address_;
    std::string logFile_;
    pid_t daemon_ = 0;
    std::optional<ScopedEnvironment> variable_;
};

}  // namespace Quorvendale::Testing
