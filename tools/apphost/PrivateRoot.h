// The host's own view of the file system. Landlock denies every access
// outside the store's folder but cannot deny taking a file's status, so a
// path that climbs out would still tell whether something exists there. In
// a root of its own, holding nothing but that folder, such a path finds
// nothing at all.
#pragma once

#include <string>
#include <vector>

namespace Quorvendale::AppHost {

// Moves the calling process, for good, into a user namespace of its own
// (the same user and group ids inside) and a mount namespace whose root is
// an empty, read-only file system holding only `folder` (writable) and the
// folders in `readable` (read-only), each at its own absolute path. Whatever
// the process has loaded or opened before stays usable; nothing else can be
// reached by path.
//
// Call it before the process starts any thread: the kernel makes no user
// namespace for a process that has several. Throws std::system_error naming
// the step the kernel refused (namespaces not allowed, a container that
// forbids mounts); refused before the new root is entered, which is where
// such refusals come, it leaves the process seeing the whole file system.
void enterPrivateRoot(const std::string& folder, const std::vector<std::string>& readable = {});

}  // namespace Quorvendale::AppHost
