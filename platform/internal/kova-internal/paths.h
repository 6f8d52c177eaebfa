// The path helpers the platform libraries, the server and kova-admin share:
// where a path lies against a root, one spelling of a folder without
// trailing slashes, creating a folder with the folders above it, and
// replacing one of the caller's own files whole. Pure string work except
// MakeDirs and WriteAtomically; resolving a path is real-path.h's job.
#ifndef KOVA_INTERNAL_PATHS_H
#define KOVA_INTERNAL_PATHS_H

#include <sys/types.h>

#include <string>

namespace kova_internal {

// True when `path` is `root` or lies below it on a component boundary
// ("/a/bc" is not under "/a/b"). Both are compared as written, so callers
// pass real paths; root "/" holds every absolute path.
bool UnderRoot(const std::string &path, const std::string &root);

// `path` without trailing slashes; a path of slashes only stays "/".
std::string StripTrailingSlashes(std::string path);

// Creates the absolute folder `dir` and every missing folder above it with
// `mode` (less the umask); folders that exist are left as they are. false
// with errno of the refused mkdir.
bool MakeDirs(const std::string &dir, mode_t mode = 0755);

// Writes `text` to `path` through `path`.tmp (created afresh with `mode`,
// never through a link, synced) renamed into place, so a reader sees the
// old file or the new one, never a part. For the process's own files, not
// for entries reachable by users. false with *why set.
bool WriteAtomically(const std::string &path, const std::string &text, mode_t mode, std::string *why);

} // namespace kova_internal

#endif
