#include "Sandbox.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "Posix/FileDescriptor.h"

// Rights of later kernels than the headers may know; their numbers are fixed.
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif
#ifndef LANDLOCK_ACCESS_FS_IOCTL_DEV
#define LANDLOCK_ACCESS_FS_IOCTL_DEV (1ULL << 15)
#endif

namespace Quorvendale::AppHost {
namespace {

// What the store does under its folder: files and folders made, read,
// written, cut short, renamed and removed.
constexpr std::uint64_t storeRights =
    LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR |
    LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_DIR |
    LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_REFER | LANDLOCK_ACCESS_FS_TRUNCATE;

constexpr std::uint64_t readRights = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;

// Everything the kernel of each Landlock version can deny: what is handled
// and not granted is denied everywhere.
constexpr std::uint64_t rightsOfVersion1 = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;

std::uint64_t handledRights(long version) {
    std::uint64_t rights = rightsOfVersion1;
    if (version >= 2) rights |= LANDLOCK_ACCESS_FS_REFER;
    if (version >= 3) rights |= LANDLOCK_ACCESS_FS_TRUNCATE;
    if (version >= 5) rights |= LANDLOCK_ACCESS_FS_IOCTL_DEV;
    return rights;
}

long landlockVersion() {
    return ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

[[noreturn]] void fail(const char* step) {
    throw std::system_error(errno, std::generic_category(), step);
}

// Grants `rights` (those of them the ruleset handles) beneath the folder.
void allow(int rules, std::uint64_t handled, const std::string& folder, std::uint64_t rights) {
    const Posix::FileDescriptor root(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (root.get() < 0) fail("open of a folder to confine to");
    const landlock_path_beneath_attr beneath{.allowed_access = rights & handled,
                                             .parent_fd = root.get()};
    if (::syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0) != 0) {
        fail("landlock_add_rule");
    }
}

}  // namespace

Confinement confineTo(const std::string& folder, const std::vector<std::string>& readable) {
    const long version = landlockVersion();
    if (version < 0 && (errno == ENOSYS || errno == EOPNOTSUPP)) return Confinement::Unsupported;
    if (version < 1) fail("landlock_create_ruleset");

    const std::uint64_t handled = handledRights(version);
    const landlock_ruleset_attr ruleset{.handled_access_fs = handled};
    const Posix::FileDescriptor rules(
        static_cast<int>(::syscall(SYS_landlock_create_ruleset, &ruleset, sizeof ruleset, 0)));
    if (rules.get() < 0) fail("landlock_create_ruleset");
    allow(rules.get(), handled, folder, storeRights);
    for (const std::string& other : readable) allow(rules.get(), handled, other, readRights);

    // Without it an unprivileged process may not restrict itself; it also
    // keeps a program it might start from gaining rights.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) fail("prctl(PR_SET_NO_NEW_PRIVS)");
    if (::syscall(SYS_landlock_restrict_self, rules.get(), 0) != 0) fail("landlock_restrict_self");
    return Confinement::Confined;
}

}  // namespace Quorvendale::AppHost
