#include "PrivateRoot.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Posix/FileDescriptor.h"

namespace Quorvendale::AppHost {
namespace {

// Where the new root is put together before it becomes the root: any folder
// will do, since the folders it receives are reached through descriptors
// opened beforehand, not by their paths (which may lie under this one).
constexpr const char* staging = "/tmp";

// What a mount that holds nothing to run needs no more.
constexpr unsigned long inert = MS_NOSUID | MS_NODEV | MS_NOEXEC;

[[noreturn]] void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
}

void check(int result, const std::string& step) {
    if (result != 0) fail(step);
}

void writeFile(const char* path, const std::string& text) {
    const Posix::FileDescriptor file(::open(path, O_WRONLY | O_CLOEXEC));
    if (!file.valid() || ::write(file.get(), text.data(), text.size()) != ssize_t(text.size())) {
        fail(std::string("writing ") + path);
    }
}

// The folder, opened before anything is hidden.
struct Shown {
    std::string path;
    Posix::FileDescriptor folder;
    bool writable;
};

Shown reach(const std::string& path, bool writable) {
    if (!path.starts_with('/')) {
        throw std::system_error(EINVAL, std::generic_category(), path + " is no absolute path");
    }
    Posix::FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) fail("open of " + path);
    return {path, std::move(folder), writable};
}

// Puts the folder at its own path in the new root. The source is named by
// its descriptor: its own path may be hidden under the staging folder.
void show(const Shown& shown) {
    const std::string target = staging + shown.path;
    std::filesystem::create_directories(target);
    const std::string source = "/proc/self/fd/" + std::to_string(shown.folder.get());
    check(::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
          "bind mount of " + shown.path);
    if (!shown.writable) {
        check(::mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | inert,
                      nullptr),
              "read-only remount of " + shown.path);
    }
}

// The capabilities that a new user namespace gives would let the process
// mount again, there; it needs none of them.
void dropCapabilities() {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    check(static_cast<int>(::syscall(SYS_capset, &header, none)), "capset");
}

}  // namespace

void enterPrivateRoot(const std::string& folder, const std::vector<std::string>& readable) {
    // The same ids inside as outside, so that the files the store makes
    // belong to whom they belonged before. Without setgroups denied, an
    // unprivileged process may not map its group.
    const std::string user = std::to_string(::getuid());
    const std::string group = std::to_string(::getgid());
    check(::unshare(CLONE_NEWUSER | CLONE_NEWNS), "unshare");
    bool staged = false;
    try {
        writeFile("/proc/self/uid_map", user + " " + user + " 1");
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/gid_map", group + " " + group + " 1");

        // Nothing done here reaches the namespace the host came from.
        check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr),
              "making mounts private");
        // Opened in the new namespace: only its own mounts can be bound into it.
        std::vector<Shown> shown;
        shown.push_back(reach(folder, true));
        for (const std::string& path : readable) shown.push_back(reach(path, false));

        check(::mount("tmpfs", staging, "tmpfs", inert, "mode=0755"), "tmpfs mount");
        staged = true;
        for (const Shown& each : shown) show(each);
        // Empty folders leading to those; nothing can be made beside them.
        check(::mount(nullptr, staging, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | inert, nullptr),
              "read-only remount of the new root");
        // pivot_root(".", ".") stacks the old root on the new one, at the
        // same place; detaching it leaves the new root alone.
        check(::chdir(staging), "chdir");
        check(static_cast<int>(::syscall(SYS_pivot_root, ".", ".")), "pivot_root");
    } catch (...) {
        // The whole file system as it was, with Landlock to confine it, and
        // no more rights than before.
        if (staged) {
            [[maybe_unused]] const int ignored = ::chdir("/") + ::umount2(staging, MNT_DETACH);
        }
        dropCapabilities();
        throw;
    }
    check(::umount2(".", MNT_DETACH), "detaching the old root");
    check(::chdir("/"), "chdir");
    dropCapabilities();
}

}  // namespace Quorvendale::AppHost
