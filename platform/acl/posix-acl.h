// The kernel's binary POSIX ACL ("system.posix_acl_access" and
// "system.posix_acl_default"): a 4-byte header (version 2) and 8-byte
// entries {tag u16, perm u16, id u32}, little-endian, in the order the
// kernel requires (owner, named users by id, owning group, named groups by
// id, mask, other).
#ifndef KOVA_ACL_POSIX_ACL_H
#define KOVA_ACL_POSIX_ACL_H

#include <cstdint>
#include <string>
#include <vector>

namespace kova_acl {

constexpr const char *kPosixAccess = "system.posix_acl_access";
constexpr const char *kPosixDefault = "system.posix_acl_default";

enum PosixTag : uint16_t { kUserObj = 1, kUser = 2, kGroupObj = 4, kGroup = 8, kMask = 0x10, kOther = 0x20 };
constexpr uint32_t kNoId = 0xFFFFFFFFu;

struct PosixEntry {
    uint16_t tag = 0;
    uint16_t perm = 0;  // 4 r, 2 w, 1 x
    uint32_t id = kNoId;
    bool operator==(const PosixEntry &o) const { return tag == o.tag && perm == o.perm && id == o.id; }
};

struct PosixAcl {
    std::vector<PosixEntry> entries;  // kernel order
    bool operator==(const PosixAcl &o) const { return entries == o.entries; }
    bool operator!=(const PosixAcl &o) const { return !(*this == o); }
    // Only owner, owning group and other: the kernel keeps it as mode bits.
    bool MinimalForm() const;
    // The perm of the first entry with this tag (and id for named ones).
    int PermOf(uint16_t tag, uint32_t id = kNoId) const;
    // Owner, owning group (the mask when there is one, as the kernel shows
    // it) and other as mode bits.
    unsigned ModeBits() const;
    // The entry that mode bits stand for: owner, owning group, other.
    static PosixAcl FromMode(unsigned mode);
};

std::string EncodePosixAcl(const PosixAcl &acl);
// False for a malformed value.
bool DecodePosixAcl(const void *data, size_t size, PosixAcl &out);

} // namespace kova_acl

#endif
