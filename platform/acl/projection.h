// The kernel's view of a stored ACL: the POSIX access ACL (and, on a folder,
// the default ACL) that lets the kernel enforce what the platform decides,
// never granting a user more than EffectiveRights does.
//
// Each POSIX entry (owner, named user, owning group, named group, other)
// gets the rights the platform gives to EVERY user that entry can apply to,
// whatever that user's group memberships: an entry whose match depends on a
// membership (a group, the group owner, authenticated users and system for
// an unknown uid) counts when it denies and is ignored when it allows. So
// the projection does not depend on who is in which group. Rights map as:
// file r = read data, w = write data and append, x = execute; folder r =
// list, w = add file, add folder and delete child all three, x = traverse.
// Administrators (the group of gid 101) get every bit strictly below a share
// root, as the platform gives them; a named entry of an administrator
// shadows it (less, never more). docs/platform/enforcement.md has the cases.
#ifndef KOVA_ACL_PROJECTION_H
#define KOVA_ACL_PROJECTION_H

#include "ace.h"
#include "evaluate.h"
#include "posix-acl.h"

#include <sys/types.h>

#include <vector>

namespace kova_acl {

struct Projection {
    PosixAcl access;
    PosixAcl coarse;          // access without named entries (mode bits only)
    bool hasDefault = false;  // a folder whose entries pass something down
    PosixAcl deflt;
};

// complete: own entries then inherited ones (levels set); owner: the
// platform's owner; fileUid/fileGid: the entry's kernel owner and group.
// belowShareRoot / inShare: where the entry lies; administrators hold every
// right strictly below a share root, which the administrators' group entry
// says (so the platform's own lookups, made with their ids, pass).
Projection Project(const std::vector<Ace> &complete, const OwnerId &owner, uid_t fileUid, gid_t fileGid, bool isDir,
                   bool belowShareRoot, bool inShare);

// The rwx bits (4 2 1) a rights mask gives on a file or a folder.
unsigned PosixBitsOf(uint32_t rights, bool isDir);

} // namespace kova_acl

#endif
