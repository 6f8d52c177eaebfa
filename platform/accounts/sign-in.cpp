#include "sign-in.h"

#include "account-db.h"
#include "lookup.h"
#include "password.h"

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

int CheckSignIn(const std::string &name, const std::string &password) {
    std::optional<UserRow> row;
    std::vector<unsigned> gids;
    // A NUL byte would end the text early at any C-string interface further
    // on, so such a name or password is refused before it is looked up.
    if (name.find('\0') == std::string::npos && password.find('\0') == std::string::npos) {
        AccountSession s;
        if (!s.Open(AccountSession::kReadSecrets)) return -1;
        bool dbError = false;
        row = FindUser(s, name, &dbError);
        // An invalid row was logged when read and is refused like any other.
        if (dbError && KLIBCErrGet() != KOVA_ERR_CORRUPT) return -1;
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
    if (!ok) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    return 0;
}

} // namespace kova_accounts
