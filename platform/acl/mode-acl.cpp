// Mode bits as ACL entries (mapping in mode-acl.h).
#include "mode-acl.h"

namespace kova_acl {

uint32_t RightsFromModeBits(unsigned int rwx) {
    uint32_t m = 0;
    if (rwx & 4)
        m |= KOVA_ACL_PERM_READ_DATA | KOVA_ACL_PERM_READ_ATTR | KOVA_ACL_PERM_READ_XATTR | KOVA_ACL_PERM_READ_ACL;
    if (rwx & 2)
        m |= KOVA_ACL_PERM_WRITE_DATA | KOVA_ACL_PERM_APPEND_DATA | KOVA_ACL_PERM_DELETE | KOVA_ACL_PERM_DELETE_CHILD |
             KOVA_ACL_PERM_WRITE_ATTR | KOVA_ACL_PERM_WRITE_XATTR;
    if (rwx & 1) m |= KOVA_ACL_PERM_EXECUTE;
    return m;
}

std::vector<Ace> EntriesFromMode(const struct stat &st) {
    auto entry = [](int idType, int id, unsigned int bits) {
        Ace a;
        a.idType = idType;
        a.id = id;
        a.permission = RightsFromModeBits(bits);
        a.access = KOVA_ACL_ALLOW;
        return a;
    };
    return {
        entry(KOVA_ACL_ID_OWNER, -1, (st.st_mode >> 6) & 7),
        entry(KOVA_ACL_ID_GROUP, static_cast<int>(st.st_gid), (st.st_mode >> 3) & 7),
        entry(KOVA_ACL_ID_EVERYONE, -1, st.st_mode & 7),
    };
}

} // namespace kova_acl
