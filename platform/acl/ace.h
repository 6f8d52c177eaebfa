// The library's own value form of an ACL entry and of a stored ACL, used
// between the record codec, inheritance and evaluation. The public linked
// list (acl.h) is built from these only at the API edge.
#ifndef KOVA_ACL_ACE_H
#define KOVA_ACL_ACE_H

#include "kova/acl.h"

#include <cstdint>
#include <vector>

namespace kova_acl {

struct Ace {
    int idType = 0;
    int id = -1;
    uint32_t permission = 0;
    uint16_t inherit = 0;
    uint16_t access = 0;
    uint32_t level = 0;
};

// What one path stores: its own entries, the inherit-from-parent flag and,
// when the owner is a group, that group.
struct StoredAcl {
    bool inherits = false;
    bool hasGroupOwner = false;
    uint32_t ownerGid = 0;
    std::vector<Ace> entries;
};

// Most entries one record holds (see acl-record.h).
constexpr int kMaxEntries = 251;

// Field checks shared by KOVAACLAceIsValid and the record decoder (the level
// is not judged here).
bool AceFieldsValid(int idType, int id, uint32_t permission, uint32_t inherit, uint32_t access);

Ace FromPublic(const KOVA_ACL_ENTRY &e);
void ToPublic(const Ace &a, KOVA_ACL_ENTRY &e);

// A new public ACL holding copies of entries; nullptr (KOVA_ERR_NOMEM) on
// allocation failure.
PKOVA_ACL BuildPublicAcl(bool inherits, const std::vector<Ace> &entries);

} // namespace kova_acl

#endif
