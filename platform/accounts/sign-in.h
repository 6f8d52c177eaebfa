// The password check behind KOVAUserPasswordCheck, on counted text.
//
// Every refusal looks and costs the same: KOVA_ERR_PERM after one Argon2
// run, whether the password is wrong, the account unknown, disabled,
// without a password, not allowed to sign in, stored in an invalid row, or
// the name or password holds a NUL byte. Only a database failure answers
// early (with its own error), since no caller can choose to cause one.
#ifndef KOVA_ACCOUNTS_SIGN_IN_H
#define KOVA_ACCOUNTS_SIGN_IN_H

#include "records.h"

#include <string>
#include <vector>

namespace kova_accounts {

// Whether an account may open a session: an ordinary user (uid from
// KOVA_UID_FIRST_USER and not flagged internal: lower uids are system
// accounts, which never sign in), enabled, with a password, and without
// gid 0 among gids (its groups, primary first).
bool MaySignIn(const UserRow &row, const std::vector<unsigned> &gids);

// 0 when password matches an account that may sign in; -1 with the last
// error set otherwise.
int CheckSignIn(const std::string &name, const std::string &password);

} // namespace kova_accounts

#endif
