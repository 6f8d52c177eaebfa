#include "sign-in.h"

#include "account-db.h"
#include "directory.h"
#include "lookup.h"
#include "password.h"

#include "kova-dirsvc-admin.h"
#include "kova-internal/fault-point.h"
#include "kova/account.h"
#include "kova/errcode.h"

#include <algorithm>
#include <optional>

namespace kova_accounts {

bool MaySignIn(const UserRow &row, const std::vector<unsigned> &gids) {
    if (row.uid < KOVA_UID_FIRST_USER || row.internal || row.disabled || !row.password) return false;
    return std::find(gids.begin(), gids.end(), 0u) == gids.end();
}

namespace {
// A name no local account has: the directory's word. LDAP users are
// checked by a bind as their DN; domain users need a domain controller,
// which cache-only domains do not have.
int CheckDirectory(const std::string &name, const std::string &password) {
    DirAccount dir;
    int found = FindDirectoryUser(name, dir);
    if (found < 0) return -1;
    if (found == 0) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    if (dir.source == KOVA_ACCOUNT_SRC_DOMAIN) {
        KOVA_FAIL(KOVA_ERR_DIRSVC);
        return -1;
    }
    return KovaDirsvc::LdapCheckPassword(dir.dn, password) == 0 ? 0 : -1;
}
} // namespace

int CheckSignIn(const std::string &name, const std::string &password) {
    std::optional<UserRow> row;
    std::vector<unsigned> gids;
    bool local = false;
    // A NUL byte would end the text early at any C-string interface further
    // on, so such a name or password is refused before it is looked up.
    if (name.find('\0') == std::string::npos && password.find('\0') == std::string::npos) {
        AccountSession s;
        if (!s.Open(AccountSession::kReadSecrets)) return -1;
        bool dbError = false;
        row = FindUser(s, name, &dbError);
        // An invalid row was logged when read and is refused like any other.
        if (dbError && KLIBCErrGet() != KOVA_ERR_CORRUPT) return -1;
        local = row || dbError;
        if (row && !UserGids(s, *row, gids)) {
            if (KLIBCErrGet() != KOVA_ERR_CORRUPT) return -1;
            row.reset();
        }
    }
    bool ok = false;
    if (row && MaySignIn(*row, gids))
        ok = VerifyPassword(*row->password, password);
    else
        VerifyAgainstDummy(password);
    // Only after the same hash as any local refusal: the time up to here
    // never tells whether a local account exists.
    if (!local && !ok && name.find('\0') == std::string::npos && password.find('\0') == std::string::npos)
        return CheckDirectory(name, password);
    if (!ok) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    return 0;
}

} // namespace kova_accounts
