// Which account names and texts the local database accepts.
#ifndef KOVA_ACCOUNTS_NAMES_H
#define KOVA_ACCOUNTS_NAMES_H

#include <string>

namespace kova_accounts {

// 1..64 bytes of valid UTF-8, no control characters, none of / \ : @ " and
// no leading or trailing blank: names appear in paths, in "DOMAIN\name" and
// "name@suffix" forms, and in ACL text, so those characters would be
// ambiguous there.
bool ValidAccountName(const std::string &name);
// Descriptions and e-mail addresses: up to 1024 bytes of valid UTF-8
// without control characters.
bool ValidText(const char *text);
bool ValidText(const std::string &text);  // counted: a NUL byte is a control character

} // namespace kova_accounts

#endif
