// Paths to descriptors, asked of the kernel, for the share library, the
// file-share helper and the ACL library. Every call here goes through the
// system-call table (kova-internal/sys-calls.h); none reads a component as
// a possible link the way realpath does, and none follows a "magic" link
// of /proc.
//
// RealPathOf: the real location of a path (every symbolic link and ".."
// resolved, like realpath):
// - a path that is already in canonical form (absolute, no empty, "." or
//   ".." component) is opened with openat2(RESOLVE_NO_SYMLINKS): when that
//   succeeds no component is a link, so the path is its own real path;
// - otherwise the path is opened with O_PATH and the name the kernel keeps
//   for that open file is read back from /proc/self/fd;
// - when /proc cannot answer (not mounted, a deleted or unreachable
//   directory) the lookup fails: nothing is judged by a guessed name.
#ifndef KOVA_SHARE_REAL_PATH_H
#define KOVA_SHARE_REAL_PATH_H

#include "kova-internal/identity.h"

#include <string>

namespace kova_share {

// The platform's own lookups below a share root (which share holds a path,
// a user's path to its descriptor, a share root's folder) run inside this
// scope: with the uid raised through the identity component, so that the
// kernel's traverse check on the folders on the way does not decide them.
// The platform judges each entry by its own evaluation alone, as if every
// user held a bypass-traverse privilege for its API; shells and file
// services stay with the kernel, which needs search on every folder above
// and so never grants more. Only the lookup is raised: what it reaches is
// judged afterwards with the caller's ids. A process that cannot raise (no
// saved uid 0) looks up with its own ids, the kernel's stricter answer.
class TraverseScope {
public:
    TraverseScope() = default;
    TraverseScope(const TraverseScope &) = delete;
    TraverseScope &operator=(const TraverseScope &) = delete;

private:
    kova_internal::UidScope uid_;
};

// 0 with out set, else the errno of the failed resolution (ENOENT, ENOTDIR,
// EACCES, ELOOP, EINVAL for a path holding a NUL byte, ...). The final
// component is followed. With keepFd the O_PATH descriptor of what was
// resolved is handed to the caller, who closes it; it names the same object
// as out, so lookups relative to it need not walk the path again.
int RealPathOf(const std::string &path, std::string &out, int *keepFd = nullptr);

// Opens a canonical absolute path (O_PATH, plus `flags`, e.g. O_DIRECTORY)
// only when no component of it, the last included, is a symbolic link: how
// a share root recorded by its real path is opened, so that a link put in
// its place (or in place of a folder above it) holds nothing. 0 with *fd
// set, else the errno (ELOOP for a link on the way, EINVAL for a path not
// in canonical form).
int OpenWithoutLinks(const std::string &path, int flags, int *fd);

// Opens `rel` (relative; empty names baseFd itself) below the folder
// baseFd, O_PATH plus `flags`, the way openat2(RESOLVE_BENEATH |
// RESOLVE_NO_MAGICLINKS) does: ".." may not climb above baseFd, and a link
// that leads out of it, or that names an absolute path, fails with EXDEV.
// On kernels without openat2 the components are opened one by one and any
// symbolic link on the way is refused (ELOOP). 0 with *fd set, else errno.
int OpenBeneath(int baseFd, const std::string &rel, int flags, int *fd);

// The kernel's absolute name of an open file (via /proc/self/fd). 0 with
// out set, ENOENT for a removed file or folder, EIO when /proc cannot say.
int NameOfFd(int fd, std::string &out);

} // namespace kova_share

#endif
