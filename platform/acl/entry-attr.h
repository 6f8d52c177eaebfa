// Extended attributes of an entry that was judged, named by the folder
// descriptor holding it and its name there (an empty name: the descriptor
// itself). A final symbolic link is never followed and the folder's path is
// never walked again.
//
// With the *xattrat calls (Linux 6.13) each call on a named entry is one
// system call. A kernel without them (or a filter refusing them) is found by
// a probe; the entry is then opened with O_PATH|O_NOFOLLOW relative to its folder and
// reached through the /proc/self/fd name of that descriptor, which the
// kernel resolves to that very inode, a link included, and never follows
// further. A folder's own attributes (empty name) are those of "." in it.
// Every call goes through the system-call table, and the probe is
// made again whenever the table's *xattrat entry changes, so a test can
// force either way.
#ifndef KOVA_ACL_ENTRY_ATTR_H
#define KOVA_ACL_ENTRY_ATTR_H

#include <sys/types.h>

#include <cstddef>

namespace kova_acl {

// True when the *xattrat calls reach the kernel.
bool XattrAtAvailable();

// As lgetxattr / lsetxattr (flags 0, XATTR_CREATE or XATTR_REPLACE) /
// lremovexattr of the entry, with their errno conventions.
ssize_t GetEntryAttr(int dirFd, const char *name, const char *attr, void *value, size_t size);
int SetEntryAttr(int dirFd, const char *name, const char *attr, const void *value, size_t size, int flags);
int RemoveEntryAttr(int dirFd, const char *name, const char *attr);

} // namespace kova_acl

#endif
