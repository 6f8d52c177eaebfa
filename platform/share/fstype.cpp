// File-system types by statfs magic. ext2, ext3 and ext4 share one magic and
// are all reported as FSTYPE_EXT4.
#include "kova/share.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Magics that <linux/magic.h> may lack on older headers.
constexpr unsigned long kExfatMagic = 0x2011BAB0UL;
constexpr unsigned long kNtfsMagic = 0x5346544EUL;
constexpr unsigned long kNtfs3Magic = 0x7366746EUL;
constexpr unsigned long kXfsMagic = 0x58465342UL;
constexpr unsigned long kZfsMagic = 0x2FC12FC1UL;
constexpr unsigned long kFuseMagic = 0x65735546UL;
constexpr unsigned long kF2fsMagic = 0xF2F52010UL;
constexpr unsigned long kCifsMagic = 0xFF534D42UL;
constexpr unsigned long kSmb2Magic = 0xFE534D42UL;
constexpr unsigned long kUdfMagic = 0x15013346UL;
constexpr unsigned long kOverlayMagic = 0x794C7630UL;
constexpr unsigned long kHfsPlusMagic = 0x482BUL;
constexpr unsigned long kIsoMagic = 0x9660UL;
constexpr unsigned long kSquashMagic = 0x73717368UL;
constexpr unsigned long kBtrfsMagic = 0x9123683EUL;
constexpr unsigned long kNfsMagic = 0x6969UL;
constexpr unsigned long kSmbMagic = 0x517BUL;
constexpr unsigned long kTmpfsMagic = 0x01021994UL;
constexpr unsigned long kMsdosMagic = 0x4D44UL;
constexpr unsigned long kExtMagic = 0xEF53UL;

// Kernel-internal file systems: never storage a share may live on.
constexpr unsigned long kPseudo[] = {
    0x9FA0UL,      /* proc */      0x62656572UL, /* sysfs */    0x1CD1UL,     /* devpts */
    0x27E0EBUL,    /* cgroup */    0x63677270UL, /* cgroup2 */  0x64626720UL, /* debugfs */
    0x73636673UL,  /* securityfs */ 0xF97CFF8CUL, /* selinuxfs */ 0x74726163UL, /* tracefs */
    0xCAFE4A11UL,  /* bpf */       0x6165676CUL, /* pstore */   0x19800202UL, /* mqueue */
    0x6E736673UL,  /* nsfs */      0x42494E4DUL, /* binfmt_misc */ 0x62656570UL, /* configfs */
    0x958458F6UL,  /* hugetlbfs */ 0xDE5E81E4UL, /* efivarfs */ 0x534F434BUL, /* sockfs */
    0x50495045UL,  /* pipefs */    0x09041934UL, /* anon inodes */
};
constexpr unsigned long kAutofsMagic = 0x0187UL;

int FromMagic(unsigned long magic) {
    switch (magic) {
    case kExtMagic: return FSTYPE_EXT4;
    case kBtrfsMagic: return FSTYPE_BTRFS;
    case kXfsMagic: return FSTYPE_XFS;
    case kMsdosMagic: return FSTYPE_VFAT;
    case kTmpfsMagic: return FSTYPE_TMPFS;
    case kExfatMagic: return FSTYPE_EXFAT;
    case kNtfsMagic:
    case kNtfs3Magic: return FSTYPE_NTFS;
    case kNfsMagic: return FSTYPE_NFS;
    case kCifsMagic:
    case kSmb2Magic:
    case kSmbMagic: return FSTYPE_CIFS;
    case kIsoMagic: return FSTYPE_ISO9660;
    case kUdfMagic: return FSTYPE_UDF;
    case kHfsPlusMagic: return FSTYPE_HFSPLUS;
    case kSquashMagic: return FSTYPE_SQUASHFS;
    case kZfsMagic: return FSTYPE_ZFS;
    case kOverlayMagic: return FSTYPE_OVERLAY;
    case kFuseMagic: return FSTYPE_FUSE;
    case kF2fsMagic: return FSTYPE_F2FS;
    case kAutofsMagic: return FSTYPE_PSEUDO;
    default: break;
    }
    for (unsigned long m : kPseudo)
        if (m == magic) return FSTYPE_PSEUDO;
    return FSTYPE_UNKNOWN;
}

} // namespace

extern "C" int KOVAGetFSType(const char *szPath, int flags) {
    KOVA_FAULT_POINT("KOVAGetFSType", int);
    if (!szPath || !*szPath) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    using kova_internal::Sys;
    const int fd = Sys().openat(AT_FDCWD, szPath, O_PATH | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) {
        KOVA_FAIL(errno == ENOENT ? KOVA_ERR_NOENT : errno == EACCES ? KOVA_ERR_PERM : KOVA_ERR_BADPATH);
        return -1;
    }
    struct statfs sfs;
    const int rc = Sys().fstatfs(fd, &sfs);
    (void)Sys().close(fd);
    if (rc != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    return FromMagic(static_cast<unsigned long>(sfs.f_type) & 0xFFFFFFFFUL);
}

extern "C" int KOVAFSIsRemoteFS(int fsType) {
    KOVA_FAULT_POINT("KOVAFSIsRemoteFS", int);
    return (fsType == FSTYPE_NFS || fsType == FSTYPE_CIFS) ? 1 : 0;
}

extern "C" int KOVAFSIsImageFS(int fsType) {
    KOVA_FAULT_POINT("KOVAFSIsImageFS", int);
    return (fsType == FSTYPE_ISO9660 || fsType == FSTYPE_UDF || fsType == FSTYPE_SQUASHFS) ? 1 : 0;
}
