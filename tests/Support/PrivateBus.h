// A private session bus for tests and benchmarks: a dbus-daemon of its own,
// whose only service folder is the one given, so that what it activates is
// exactly what the test installed there.
//
// The daemon runs in a process group of its own, which also holds every host
// it activates; the bus kills that whole group when it goes, whatever
// happened in the test, and dies with the thread that made it if the test
// process dies first. It passes the test's environment (XDG_DATA_HOME among
// it) to what it activates, and points this process's
// DBUS_SESSION_BUS_ADDRESS at itself while it lives.
//
// This process becomes the subreaper of what the bus starts: an activated
// host, orphaned by the daemon once it owns its name, becomes our child, so
// a test can see it end and how (exitStatusOf).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

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
        // Listen on 127.0.0.1 instead of a Unix socket: a bus that cannot
        // pass file descriptors, entered anonymously.
        bool overTcp = false;
        // How long the bus waits for an activated service to take its name.
        // Keep it under the client's 30 s call time-out.
        std::chrono::milliseconds serviceStartTimeout{10'000};
    };

    explicit PrivateBus(const std::filesystem::path& serviceFolder)
        : PrivateBus(serviceFolder, {}) {}

    PrivateBus(const std::filesystem::path& serviceFolder, Options options) {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        std::filesystem::create_directories(serviceFolder);
        const std::filesystem::path config = folder_.path() / "bus.conf";
        std::ofstream(config) << configuration(folder_.path(), serviceFolder, options);
        start(config);
        address_.emplace("DBUS_SESSION_BUS_ADDRESS", addressText_.c_str());
    }

    ~PrivateBus() {
        address_.reset();
        ::kill(-daemon_, SIGKILL);
        // The daemon, and the hosts that are our children by now.
        while (::waitpid(-daemon_, nullptr, 0) > 0 || errno == EINTR) {
        }
    }

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return addressText_; }
    // What the daemon wrote to its standard error.
    std::string log() const { return contentOf(folder_.path() / "daemon.log"); }

    // The process that owns the name now, if any.
    std::optional<pid_t> ownerOf(const std::string& name) const {
        std::optional<pid_t> owner;
        askTheBus("GetConnectionUnixProcessID", name.c_str(), [&](sd_bus_message* reply) {
            std::uint32_t pid = 0;
            if (sd_bus_message_read(reply, "u", &pid) >= 0) owner = static_cast<pid_t>(pid);
        });
        return owner;
    }

    // Makes the daemon read its service folder again now, rather than when
    // it notices the change.
    void reloadServices() const {
        askTheBus("ReloadConfig", nullptr, [](sd_bus_message*) {});
    }

    // The exit status of a process this bus started, once it has ended (as
    // waitpid gives it); nothing if it has not ended within the limit.
    static std::optional<int> exitStatusOf(
        pid_t process, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        do {
            int status = 0;
            if (::waitpid(process, &status, WNOHANG) == process) return status;
            // Not our child yet: the daemon's helper has not let it go.
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        } while (std::chrono::steady_clock::now() < deadline);
        return std::nullopt;
    }

private:
    // Calls a method of the daemon itself with one string argument (or
    // none), and hands a successful reply to `read`.
    template <class Read>
    void askTheBus(const char* method, const char* argument, Read read) const {
        sd_bus* bus = nullptr;
        if (sd_bus_new(&bus) < 0) return;
        sd_bus_message* reply = nullptr;
        if (sd_bus_set_address(bus, addressText_.c_str()) >= 0 &&
            sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
            sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", method, nullptr, &reply, argument ? "s" : "",
                               argument) >= 0) {
            read(reply);
        }
        sd_bus_message_unref(reply);
        sd_bus_flush_close_unref(bus);
    }

    static std::string configuration(const std::filesystem::path& socketFolder,
                                     const std::filesystem::path& serviceFolder,
                                     const Options& options) {
        const std::string listen =
            options.overTcp ? "tcp:host=127.0.0.1,port=0" : "unix:dir=" + socketFolder.string();
        std::string text =
            "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
            "<busconfig>\n"
            "  <type>session</type>\n"
            "  <listen>" +
            listen + "</listen>\n";
        text += options.overTcp ? "  <auth>ANONYMOUS</auth>\n  <allow_anonymous/>\n"
                                : "  <auth>EXTERNAL</auth>\n";
        text += "  <servicedir>" + serviceFolder.string() + "</servicedir>\n" +
                "  <limit name=\"service_start_timeout\">" +
                std::to_string(options.serviceStartTimeout.count()) + "</limit>\n" +
                "  <policy context=\"default\">\n"
                "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                "    <allow eavesdrop=\"true\"/>\n"
                "    <allow own=\"*\"/>\n"
                "  </policy>\n"
                "</busconfig>\n";
        return text;
    }

    void start(const std::filesystem::path& config) {
        int addressPipe[2];
        if (::pipe2(addressPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        const std::string configArgument = "--config-file=" + config.string();
        const std::string printArgument = "--print-address=3";
        const std::string logPath = (folder_.path() / "daemon.log").string();
        daemon_ = ::fork();
        if (daemon_ < 0) throw std::runtime_error("fork failed");
        if (daemon_ == 0) {
            // Only async-signal-safe calls from here to exec.
            ::setpgid(0, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(addressPipe[1], 3);
            const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(log, STDERR_FILENO);
            const int none = ::open("/dev/null", O_RDWR);
            ::dup2(none, STDIN_FILENO);
            ::dup2(none, STDOUT_FILENO);
            ::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile",
                     configArgument.c_str(), printArgument.c_str(), nullptr);
            ::_exit(127);
        }
        ::setpgid(daemon_, daemon_);
        ::close(addressPipe[1]);
        addressText_ = readLine(addressPipe[0]);
        ::close(addressPipe[0]);
        if (addressText_.empty()) {
            ::kill(-daemon_, SIGKILL);
            ::waitpid(daemon_, nullptr, 0);
            throw std::runtime_error("dbus-daemon did not start: " + log());
        }
    }

    // The daemon's address line, within 10 s.
    static std::string readLine(int descriptor) {
        std::string line;
        pollfd watched{descriptor, POLLIN, 0};
        while (line.find('\n') == std::string::npos && ::poll(&watched, 1, 10'000) > 0) {
            char bytes[256];
            const ssize_t got = ::read(descriptor, bytes, sizeof bytes);
            if (got <= 0) break;
            line.append(bytes, static_cast<std::size_t>(got));
        }
        return line.substr(0, line.find('\n'));
    }

    TemporaryFolder folder_;
    pid_t daemon_ = -1;
    std::string addressText_;
    std::optional<ScopedEnvironment> address_;
};

}  // namespace Quorvendale::Testing
