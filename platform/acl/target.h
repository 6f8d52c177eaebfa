// A path as the ACL calls see it: canonical (links and ".." of its parent
// resolved, a final symbolic link kept as itself), its lstat, and the share
// that holds it.
#ifndef KOVA_ACL_TARGET_H
#define KOVA_ACL_TARGET_H

#include "kova-internal/owned-fd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace kova_acl {

using kova_internal::OwnedFd;

struct Target {
    std::string path;       // canonical path
    struct stat st;         // lstat of it
    bool inShare = false;
    std::string shareRoot;  // real root of the holding share when inShare
    // The entry itself, as judged: the folder holding it, open for the call
    // (O_PATH), and its name in that folder; or, for "/" and paths ending
    // in "." or "..", the resolved folder itself and an empty name. Every
    // later look at the entry (stat, attributes, owner) is made through
    // these with AtFlags(), never through `path` again, so what was judged
    // is what is touched whatever is renamed or swapped for a link meanwhile.
    OwnedFd parent;
    std::string name;
    bool hasStat = false;   // st is filled (StatTarget)

    bool IsDir() const { return S_ISDIR(st.st_mode); }
    bool AtShareRoot() const { return inShare && path == shareRoot; }
    bool BelowShareRoot() const { return inShare && path != shareRoot; }
    // For the *at calls on (parent, name): a final link is never followed.
    int AtFlags() const { return AT_SYMLINK_NOFOLLOW | (name.empty() ? AT_EMPTY_PATH : 0); }
};

// Fills t; false with the last error set (KOVA_ERR_BADARG, KOVA_ERR_NOENT,
// KOVA_ERR_BADPATH, or a share lookup failure other than "no share"). The
// path is a C string: it cannot hold a NUL byte, and callers holding a
// counted string refuse one before calling.
bool ResolveTarget(const char *szPath, Target &t);

// ResolveTarget in two steps, for a caller that may not need the lstat.
// LocateTarget fills path, parent, name and the share of the path, but not
// st: the path itself may be missing. StatTarget then fills st (a missing
// path fails it) and, for a link standing at a share root's path, takes the
// share of the folder holding it. The share LocateTarget finds is already
// final when the path lies strictly below that share's root, link or not.
bool LocateTarget(const char *szPath, Target &t);
bool StatTarget(Target &t);

// LocateTarget for a thread that names many paths of one folder in a row,
// as a task walking a tree does: the folder resolved last is kept open
// (one per thread) and used again while the calls name it the same way
// under the same effective uid (`uid`, the caller's), so the folder is walked once rather than
// once per entry. What was resolved is still the folder written in: a
// name is never resolved again through a link put in its place later, and
// a folder removed meanwhile fails the write. The share is looked up on
// every call.
bool LocateTargetInKeptFolder(const char *szPath, uid_t uid, Target &t);
// Closes the kept folder, for a caller whose write in it failed (the
// folder may be gone, with another now at its name).
void ForgetKeptFolder();
// Whether fd is the thread's kept folder now, and in any case the
// generation of the kept folder (a new one each time a folder is kept or
// forgotten), so that a caller can tell the same kept folder from a later
// one that happens to get the same descriptor number.
bool IsKeptFolder(int fd, uint64_t &generation);

// The share root of an existing canonical directory path; empty when no
// share holds it. False when the lookup itself failed.
bool ShareRootOf(const std::string &canonicalDir, bool &inShare, std::string &root);

std::string ParentOf(const std::string &canonical);

} // namespace kova_acl

#endif
