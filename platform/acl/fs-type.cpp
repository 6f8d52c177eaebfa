// File-system magics of the ACL-capable types (see fs-type.h).
#include "fs-type.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>

#include <cerrno>

namespace kova_acl {

using kova_internal::Sys;

namespace {

// Magics that <linux/magic.h> lacks (zfs is out of tree) or may lack.
constexpr unsigned long kZfsMagic = 0x2FC12FC1UL;
constexpr unsigned long kXfsMagic = 0x58465342UL;
constexpr unsigned long kOverlayMagic = 0x794C7630UL;
constexpr unsigned long kF2fsMagic = 0xF2F52010UL;

bool Capable(unsigned long magic) {
    switch (magic) {
    case EXT4_SUPER_MAGIC:  // ext2 and ext3 share it
    case BTRFS_SUPER_MAGIC:
    case kXfsMagic:
    case kZfsMagic:
    case TMPFS_MAGIC:
    case kOverlayMagic:
    case kF2fsMagic: return true;
    default: return false;
    }
}

} // namespace

int AclCapableFileSystem(const Target &t) {
    // A folder mounted on is asked about the file system mounted there.
    OwnedFd own;
    int fd = t.parent.get();
    if (!t.name.empty()) {
        own = OwnedFd(Sys().openat(fd, t.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC, 0));
        fd = own.get();
        if (fd < 0) {
            KOVA_FAIL(errno == ENOENT || errno == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_IO);
            return -1;
        }
    }
    struct statfs sfs;
    if (Sys().fstatfs(fd, &sfs) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    return Capable(static_cast<unsigned long>(sfs.f_type) & 0xFFFFFFFFUL) ? 1 : 0;
}

} // namespace kova_acl
