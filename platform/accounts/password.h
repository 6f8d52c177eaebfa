// Password hashes: argon2id encoded strings ("$argon2id$v=19$m=...").
#ifndef KOVA_ACCOUNTS_PASSWORD_H
#define KOVA_ACCOUNTS_PASSWORD_H

#include <string>

namespace kova_accounts {

// False (last error set) when no random salt or no memory is available.
bool HashPassword(const std::string &password, std::string &encoded);
// True when password matches the encoded hash; a malformed hash never matches.
bool VerifyPassword(const std::string &encoded, const std::string &password);

} // namespace kova_accounts

#endif
