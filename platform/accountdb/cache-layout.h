// Table layouts of the caches: which columns each (selector, type, kind)
// has, which of them the trigram index covers, and the SQL that creates
// them. Every cache file holds a users and a groups table.
#ifndef KOVA_ACCOUNTDB_CACHE_LAYOUT_H
#define KOVA_ACCOUNTDB_CACHE_LAYOUT_H

#include <string>
#include <vector>

namespace kova_accountdb {

// Where each KovaCacheEntry field goes; -1 when the layout lacks it.
struct Column {
    const char *name;
    enum Source { kName, kNameUpper, kDesc, kMail, kFullname, kDn, kId, kGid } source;
    bool indexed;  // covered by the trigram index
};

struct Layout {
    const char *table;  // "users" or "groups"
    std::vector<Column> columns;
    int Find(const std::string &column) const;  // index or -1 (exact, case-sensitive)
    const char *NameOf(Column::Source source) const;  // the column fed from source, or nullptr
    bool HasIndex() const;
    std::string FtsTable() const { return std::string(table) + "_fts"; }
};

// selector 8 (LDAP) or 2 (domain), dbType 0x10 / 0x20 (domains), kind 0 / 1.
const Layout *LayoutFor(int selector, int dbType, int kind);

// Every cache file also has members(grp, member): one row per member
// value (user name or DN) of each group, grp being the group's name.

// Schema statements of one cache file (both kinds), without and with index.
std::string TablesSql(int selector, int dbType);
std::string IndexSql(int selector, int dbType);

} // namespace kova_accountdb

#endif
