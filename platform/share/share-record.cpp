// Share records: get, store, delete, enumerate, and the flag accessors.
#include "kova/share.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/paths.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/real-path.h"
#include "share-cache.h"
#include "share-db.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

using kova_internal::Database;
using kova_internal::Statement;

namespace {

// A share name is one path component of printable text: it names a folder
// and appears in privileges and logs.
bool ValidName(const char *name) {
    size_t n = name ? strnlen(name, KOVA_SHARE_NAME_MAX) : 0;
    if (n == 0 || n >= KOVA_SHARE_NAME_MAX) return false;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c < 0x20 || c == '/' || c == 0x7F) return false;
    }
    return true;
}

// The root as the table names it: its real path when it exists (a root
// given through a link is recorded where the link led then, and a link
// later put at that path holds nothing), else as given without trailing
// slashes.
std::string RootToRecord(const char *given) {
    const std::string root = kova_internal::StripTrailingSlashes(given);
    std::string real;
    return kova_internal::RealPathOf(root, real) == 0 ? real : root;
}

bool ValidPriv(int p) { return p == KOVA_SHARE_PRIV_NONE || p == KOVA_SHARE_PRIV_RO || p == KOVA_SHARE_PRIV_RW; }

} // namespace

extern "C" int KOVAShareGet(const char *szName, PKOVA_SHARE *ppShare) {
    KOVA_FAULT_POINT("KOVAShareGet", int);
    if (!szName || !ppShare) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Database db;
    KOVA_SHARE rec;
    if (!kova_share::OpenShareDb(db, false) || !kova_share::LoadShare(db, szName, rec)) return -1;
    auto *out = static_cast<PKOVA_SHARE>(std::malloc(sizeof(KOVA_SHARE)));
    if (!out) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return -1;
    }
    std::memcpy(out, &rec, sizeof(rec));
    *ppShare = out;
    return 0;
}

// Release calls have no fault point: an injected failure could only leak.
extern "C" void KOVAShareFree(PKOVA_SHARE pShare) {
    std::free(pShare);
}

extern "C" int KOVAShareSet(const KOVA_SHARE *pShare) {
    KOVA_FAULT_POINT("KOVAShareSet", int);
    if (!pShare || !ValidName(pShare->szName) || pShare->szPath[0] != '/' ||
        strnlen(pShare->szPath, sizeof(pShare->szPath)) >= sizeof(pShare->szPath) ||
        strnlen(pShare->szComment, sizeof(pShare->szComment)) >= sizeof(pShare->szComment) ||
        !ValidPriv(pShare->defaultPriv)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    const std::string root = RootToRecord(pShare->szPath);
    if (root.size() >= sizeof(pShare->szPath)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Database db;
    if (!kova_share::OpenShareDb(db, true)) return -1;
    bool ok = kova_share::InTransaction(db, [&] {
        Statement st(db,
                     "INSERT OR REPLACE INTO shares (name, path, comment, support_acl, encrypted, read_only,"
                     " acl_status, default_priv) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
        if (!st.ok()) return false;
        st.Bind(1, std::string(pShare->szName)).Bind(2, root);
        st.Bind(3, std::string(pShare->szComment));
        st.Bind(4, static_cast<long long>(pShare->supportAcl != 0));
        st.Bind(5, static_cast<long long>(pShare->isEncrypted != 0));
        st.Bind(6, static_cast<long long>(pShare->isReadOnly != 0));
        st.Bind(7, static_cast<long long>(pShare->aclStatus != 0));
        st.Bind(8, static_cast<long long>(pShare->defaultPriv));
        return st.Step() == SQLITE_DONE;
    });
    kova_share::ShareTableChanged();
    return ok ? 0 : -1;
}

extern "C" int KOVAShareDelete(const char *szName) {
    KOVA_FAULT_POINT("KOVAShareDelete", int);
    if (!szName || !*szName) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Database db;
    if (!kova_share::OpenShareDb(db, true)) return -1;
    bool found = false;
    bool ok = kova_share::InTransaction(db, [&] {
        Statement del(db, "DELETE FROM shares WHERE name = ?1");
        if (!del.ok()) return false;
        del.Bind(1, std::string(szName));
        if (del.Step() != SQLITE_DONE) return false;
        found = sqlite3_changes(db.get()) > 0;
        if (!found) {
            KOVA_FAIL(KOVA_ERR_NOSHARE);
            return false;
        }
        Statement privs(db, "DELETE FROM privileges WHERE share = ?1");
        if (!privs.ok()) return false;
        privs.Bind(1, std::string(szName));
        return privs.Step() == SQLITE_DONE;
    });
    kova_share::ShareTableChanged();
    return ok ? 0 : -1;
}

extern "C" int KOVAShareEnum(PKLIBC_SZLIST *ppList) {
    KOVA_FAULT_POINT("KOVAShareEnum", int);
    if (!ppList || !*ppList) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Database db;
    std::vector<KOVA_SHARE> shares;
    if (!kova_share::OpenShareDb(db, false)) {
        // No database yet means no shares, not a failure.
        if (KLIBCErrGet() == KOVA_ERR_NOSHARE) return 0;
        return -1;
    }
    if (!kova_share::LoadAllShares(db, shares)) return -1;
    for (const auto &s : shares)
        if (KLIBCSzListPush(ppList, s.szName) < 0) return -1;
    return static_cast<int>(shares.size());
}

extern "C" int KOVAShareIsSupportAcl(const KOVA_SHARE *pShare) {
    KOVA_FAULT_POINT("KOVAShareIsSupportAcl", int);
    if (!pShare) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return 0;
    }
    return pShare->supportAcl ? 1 : 0;
}

namespace {
int GetFlag(const KOVA_SHARE *pShare, int *pOut, int KOVA_SHARE::*field) {
    if (!pShare || !pOut) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    *pOut = (pShare->*field) ? 1 : 0;
    return 0;
}
} // namespace

extern "C" int KLIBShareIsEncryptedGet(const KOVA_SHARE *pShare, int *pOut) {
    KOVA_FAULT_POINT("KLIBShareIsEncryptedGet", int);
    return GetFlag(pShare, pOut, &KOVA_SHARE::isEncrypted);
}

extern "C" int KLIBShareIsReadOnlyGet(const KOVA_SHARE *pShare, int *pOut) {
    KOVA_FAULT_POINT("KLIBShareIsReadOnlyGet", int);
    return GetFlag(pShare, pOut, &KOVA_SHARE::isReadOnly);
}

extern "C" int KLIBShareACLStatusGet(const KOVA_SHARE *pShare, int *pOut) {
    KOVA_FAULT_POINT("KLIBShareACLStatusGet", int);
    return GetFlag(pShare, pOut, &KOVA_SHARE::aclStatus);
}
