// ACL and entry objects: allocation, copies, the entry list and validation.
#include "ace.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <cstdlib>
#include <cstring>

namespace kova_acl {

bool AceFieldsValid(int idType, int id, uint32_t permission, uint32_t inherit, uint32_t access) {
    switch (idType) {
    case KOVA_ACL_ID_USER:
    case KOVA_ACL_ID_GROUP:
        if (id < 0) return false;
        break;
    case KOVA_ACL_ID_OWNER:
    case KOVA_ACL_ID_EVERYONE:
    case KOVA_ACL_ID_AUTHUSER:
    case KOVA_ACL_ID_SYSTEM:
        if (id != -1) return false;
        break;
    default:
        return false;
    }
    if (permission & ~static_cast<uint32_t>(KOVA_ACL_PERM_ALL)) return false;
    if (inherit & ~0xFu) return false;
    return access == KOVA_ACL_DENY || access == KOVA_ACL_ALLOW;
}

Ace FromPublic(const KOVA_ACL_ENTRY &e) {
    Ace a;
    a.idType = e.idType;
    a.id = e.id;
    a.permission = e.permission;
    a.inherit = e.inherit;
    a.access = e.accessType;
    a.level = e.level;
    return a;
}

void ToPublic(const Ace &a, KOVA_ACL_ENTRY &e) {
    e.idType = a.idType;
    e.id = a.id;
    e.permission = a.permission;
    e.inherit = a.inherit;
    e.accessType = a.access;
    e.level = a.level;
    e.pNext = nullptr;
}

namespace {

void FreeEntries(PKOVA_ACL_ENTRY p) {
    while (p) {
        PKOVA_ACL_ENTRY next = p->pNext;
        std::free(p);
        p = next;
    }
}

void Link(PKOVA_ACL acl, PKOVA_ACL_ENTRY e) {
    e->pNext = nullptr;
    if (acl->pTail)
        acl->pTail->pNext = e;
    else
        acl->pHead = e;
    acl->pTail = e;
    ++acl->aceCount;
}

} // namespace

PKOVA_ACL BuildPublicAcl(bool inherits, const std::vector<Ace> &entries) {
    auto *acl = static_cast<PKOVA_ACL>(std::calloc(1, sizeof(KOVA_ACL)));
    if (!acl) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return nullptr;
    }
    acl->isInherited = inherits ? 1 : 0;
    for (const Ace &a : entries) {
        auto *e = static_cast<PKOVA_ACL_ENTRY>(std::calloc(1, sizeof(KOVA_ACL_ENTRY)));
        if (!e) {
            FreeEntries(acl->pHead);
            std::free(acl);
            KOVA_FAIL(KOVA_ERR_NOMEM);
            return nullptr;
        }
        ToPublic(a, *e);
        Link(acl, e);
    }
    return acl;
}

} // namespace kova_acl

using kova_acl::Ace;

extern "C" PKOVA_ACL KOVAACLAlloc(int flags) {
    KOVA_FAULT_POINT_NULL("KOVAACLAlloc");
    if (flags != 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return nullptr;
    }
    return kova_acl::BuildPublicAcl(false, {});
}

// Release calls have no fault point: an injected failure could only leak.
extern "C" void KOVAACLFree(PKOVA_ACL pAcl) {
    if (!pAcl) return;
    kova_acl::FreeEntries(pAcl->pHead);
    std::free(pAcl);
}

extern "C" PKOVA_ACL KOVAACLDup(const KOVA_ACL *pAcl) {
    KOVA_FAULT_POINT_NULL("KOVAACLDup");
    if (!pAcl) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return nullptr;
    }
    std::vector<Ace> entries;
    for (const KOVA_ACL_ENTRY *e = pAcl->pHead; e; e = e->pNext) entries.push_back(kova_acl::FromPublic(*e));
    return kova_acl::BuildPublicAcl(pAcl->isInherited != 0, entries);
}

extern "C" PKOVA_ACL_ENTRY KOVAACLAceAlloc(void) {
    KOVA_FAULT_POINT_NULL("KOVAACLAceAlloc");
    auto *e = static_cast<PKOVA_ACL_ENTRY>(std::calloc(1, sizeof(KOVA_ACL_ENTRY)));
    if (!e) KOVA_FAIL(KOVA_ERR_NOMEM);
    return e;
}

extern "C" PKOVA_ACL_ENTRY KOVAACLAceDup(const KOVA_ACL_ENTRY *pAce) {
    KOVA_FAULT_POINT_NULL("KOVAACLAceDup");
    if (!pAce) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return nullptr;
    }
    auto *e = static_cast<PKOVA_ACL_ENTRY>(std::malloc(sizeof(KOVA_ACL_ENTRY)));
    if (!e) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return nullptr;
    }
    std::memcpy(e, pAce, sizeof(*e));
    e->pNext = nullptr;
    return e;
}

extern "C" void KOVAACLAceFree(PKOVA_ACL_ENTRY pAce) { std::free(pAce); }

extern "C" int KOVAACLAceAppend(PKOVA_ACL pAcl, PKOVA_ACL_ENTRY pAce) {
    KOVA_FAULT_POINT("KOVAACLAceAppend", int);
    if (!pAcl || !pAce || pAce->pNext || pAce == pAcl->pTail) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    kova_acl::Link(pAcl, pAce);
    return 0;
}

extern "C" int KOVAACLAceIsValid(const KOVA_ACL_ENTRY *pAce, unsigned int *pState) {
    KOVA_FAULT_POINT("KOVAACLAceIsValid", int);
    if (!pAce || !pState) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return 0;
    }
    // The state is the highest level seen so far in the ACL.
    if (!kova_acl::AceFieldsValid(pAce->idType, pAce->id, pAce->permission, pAce->inherit, pAce->accessType) ||
        pAce->level < *pState) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return 0;
    }
    *pState = pAce->level;
    return 1;
}

extern "C" int KOVAACLGetMaxACECount(void) {
    KOVA_FAULT_POINT("KOVAACLGetMaxACECount", int);
    return kova_acl::kMaxEntries;
}
