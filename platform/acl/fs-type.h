// Whether the file system holding a judged entry keeps ACLs, asked of the
// entry's own descriptor (fstatfs) rather than of its path again: ext2/3/4,
// btrfs, xfs, zfs, tmpfs, overlay and f2fs do; every other file system,
// known or not, does not.
#ifndef KOVA_ACL_FS_TYPE_H
#define KOVA_ACL_FS_TYPE_H

#include "target.h"

namespace kova_acl {

// 1 or 0; -1 with the last error set when the entry cannot be asked.
int AclCapableFileSystem(const Target &t);

} // namespace kova_acl

#endif
