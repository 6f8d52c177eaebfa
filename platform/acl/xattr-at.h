// Extended attributes of a name inside an open folder, without walking the
// folder's path again (the *xattrat system calls of Linux 6.13). A process
// whose kernel lacks them (or a filter refuses them) is told once, by a
// probe, and every call then answers -1 with errno ENOSYS so the caller
// falls back to the path calls. A final symbolic link is never followed.
#ifndef KOVA_ACL_XATTR_AT_H
#define KOVA_ACL_XATTR_AT_H

#include <sys/types.h>

#include <cstddef>

namespace kova_acl {

// True when the calls below reach the kernel.
bool XattrAtAvailable();

// As lgetxattr / lsetxattr / lremovexattr of dirFd's path + "/" + name.
ssize_t GetXattrAt(int dirFd, const char *name, const char *attr, void *value, size_t size);
// flags: 0, XATTR_CREATE or XATTR_REPLACE, as for lsetxattr.
int SetXattrAt(int dirFd, const char *name, const char *attr, const void *value, size_t size, int flags = 0);
int RemoveXattrAt(int dirFd, const char *name, const char *attr);

} // namespace kova_acl

#endif
