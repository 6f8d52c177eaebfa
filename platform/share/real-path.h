// The real location of a path (every symbolic link and ".." resolved, like
// realpath), asked of the kernel instead of reading every component as a
// possible link the way realpath does:
// - a path that is already in canonical form (absolute, no empty, "." or
//   ".." component) is opened with openat2(RESOLVE_NO_SYMLINKS): when that
//   succeeds no component is a link, so the path is its own real path;
// - otherwise the path is opened with O_PATH and the name the kernel keeps
//   for that open file is read back from /proc/self/fd;
// - when /proc cannot answer (not mounted, a deleted or unreachable
//   directory) realpath decides.
#ifndef KOVA_SHARE_REAL_PATH_H
#define KOVA_SHARE_REAL_PATH_H

#include <string>

namespace kova_share {

// 0 with out set, else the errno of the failed resolution (ENOENT, ENOTDIR,
// EACCES, ELOOP, ...). The final component is followed. With keepFd the
// O_PATH descriptor of what was resolved is handed to the caller, who closes
// it (-1 when realpath had to decide); it names the same object as out, so
// lookups relative to it need not walk the path again.
int RealPathOf(const std::string &path, std::string &out, int *keepFd = nullptr);

} // namespace kova_share

#endif
