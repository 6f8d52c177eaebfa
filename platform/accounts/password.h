// Password hashes: argon2id encoded strings ("$argon2id$v=19$m=...").
//
// A check always costs one Argon2 computation, whatever the account: a
// malformed stored hash, a password holding a NUL byte and an account that
// cannot sign in are all checked against a dummy hash made with the same
// parameters as real ones, so the time a check takes does not tell which
// accounts exist or may sign in.
#ifndef KOVA_ACCOUNTS_PASSWORD_H
#define KOVA_ACCOUNTS_PASSWORD_H

#include <string>

namespace kova_accounts {

// False (last error set) for a password with a NUL byte (KOVA_ERR_BADARG),
// or when no random salt or no memory is available.
bool HashPassword(const std::string &password, std::string &encoded);
// True when password matches the encoded hash. One Argon2 run every time; a
// malformed hash, one with costs beyond the bounds a stored hash may ask
// for (64 MiB, 16 passes, 4 lanes), or a password with a NUL byte never
// matches.
bool VerifyPassword(const std::string &encoded, const std::string &password);
// The work of a failing VerifyPassword, for an account that cannot sign in.
void VerifyAgainstDummy(const std::string &password);

} // namespace kova_accounts

#endif
