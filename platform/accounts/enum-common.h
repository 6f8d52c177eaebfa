// Enumeration internals: a query (paging window and name filter), the page
// it yields and the sources that fill it. Sources copy the page out before
// any caller callback runs, so callbacks never run inside a database
// session (or raised to root).
#ifndef KOVA_ACCOUNTS_ENUM_COMMON_H
#define KOVA_ACCOUNTS_ENUM_COMMON_H

#include <optional>
#include <string>
#include <vector>

namespace kova_accounts {

constexpr unsigned kNoLimit = 0xFFFFFFFFu;
// Directory accounts have no local uid or gid.
constexpr unsigned kNoId = 0xFFFFFFFFu;

struct Query {
    enum Mode { kAll, kSubstr, kPrefix };
    unsigned offset = 0;
    unsigned limit = kNoLimit;
    Mode mode = kAll;
    std::string pattern;  // matched literally; upper-cased already when ignoreCase
    bool ignoreCase = false;
};

struct Entry {
    std::string name;
    std::optional<std::string> desc, email, fullname;
    unsigned uid = kNoId;
    unsigned gid = kNoId;
    bool internal = false;
    int source = 0;
};

struct Page {
    long long total = 0;        // every match, beyond the window
    std::vector<Entry> entries; // the window
};

// Builds the query; false (KOVA_ERR_BADARG or the upper-casing error) when
// the pattern is not valid UTF-8. A NULL or empty pattern matches all.
bool MakeQuery(unsigned offset, unsigned limit, const char *pattern, Query::Mode mode, bool ignoreCase, Query &q);

// Each returns false with the last error set on failure.
bool LocalUsers(const Query &q, bool internal, Page &page);
bool LocalGroups(const Query &q, Page &page);
bool DirectoryAccounts(int source, bool groups, const Query &q, Page &page);

} // namespace kova_accounts

#endif
