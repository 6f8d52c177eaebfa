// The entries equivalent to a path's mode bits: owner, owning group and
// everyone, each an allow entry without inheritance. Letters per mode bit:
// r -> r a R c (read data, attributes, extended attributes, permissions);
// w -> w p d D A W (write, append, delete, delete child, write attributes
// and extended attributes); x -> x.
#ifndef KOVA_ACL_MODE_ACL_H
#define KOVA_ACL_MODE_ACL_H

#include "ace.h"

#include <sys/stat.h>

#include <vector>

namespace kova_acl {

uint32_t RightsFromModeBits(unsigned int rwx);
std::vector<Ace> EntriesFromMode(const struct stat &st);

} // namespace kova_acl

#endif
