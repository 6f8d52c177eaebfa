#include "cache-layout.h"

#include "kova/accountdb.h"

namespace kova_accountdb {

namespace {
using C = Column;
const Layout kLdapUsers{"users",
                        {{"name", C::kName, false},
                         {"name_upper", C::kNameUpper, true},
                         {"desc", C::kDesc, true},
                         {"mail", C::kMail, true},
                         {"fullname", C::kFullname, true}}};
const Layout kLdapGroups{"groups", {{"name", C::kName, false}, {"name_upper", C::kNameUpper, true}, {"desc", C::kDesc, true}}};
const std::vector<Column> kFullColumns = {{"Name", C::kName, false},          {"NameUpper", C::kNameUpper, true},
                                          {"Description", C::kDesc, true},    {"Email", C::kMail, true},
                                          {"FullName", C::kFullname, true},   {"distinguishedName", C::kDn, true}};
const Layout kFullUsers{"users", kFullColumns};
const Layout kFullGroups{"groups", kFullColumns};
const std::vector<Column> kEnumColumns = {{"Name", C::kName, false}, {"NameUpper", C::kNameUpper, true}};
const Layout kEnumUsers{"users", kEnumColumns};
const Layout kEnumGroups{"groups", kEnumColumns};

std::string Create(const Layout &l) {
    std::string sql = std::string("CREATE TABLE ") + l.table + "(";
    for (size_t i = 0; i < l.columns.size(); ++i) sql += std::string(i ? ", " : "") + "\"" + l.columns[i].name + "\" TEXT";
    return sql + ");";
}

// A contentless trigram index: it only finds rowids, the table holds the
// text. Case folding is on, so it finds a superset that LIKE then confirms.
std::string Index(const Layout &l) {
    std::string cols;
    for (const auto &c : l.columns)
        if (c.indexed) cols += std::string(cols.empty() ? "" : ", ") + "\"" + c.name + "\"";
    return "CREATE VIRTUAL TABLE " + l.FtsTable() + " USING fts5(" + cols +
           ", content='', columnsize=0, tokenize='trigram');"
           "INSERT INTO " + l.FtsTable() + "(rowid, " + cols + ") SELECT rowid, " + cols + " FROM " + l.table + ";";
}
} // namespace

int Layout::Find(const std::string &column) const {
    for (size_t i = 0; i < columns.size(); ++i)
        if (column == columns[i].name) return static_cast<int>(i);
    return -1;
}

bool Layout::HasIndex() const {
    for (const auto &c : columns)
        if (c.indexed) return true;
    return false;
}

const Layout *LayoutFor(int selector, int dbType, int kind) {
    if (kind != KOVA_ACCOUNTDB_KIND_USER && kind != KOVA_ACCOUNTDB_KIND_GROUP) return nullptr;
    bool groups = kind == KOVA_ACCOUNTDB_KIND_GROUP;
    if (selector == KOVA_ACCOUNTDB_LDAP) return groups ? &kLdapGroups : &kLdapUsers;
    if (selector != KOVA_ACCOUNTDB_DOMAIN) return nullptr;
    if (dbType == KOVA_ACCOUNTDB_TYPE_FULL) return groups ? &kFullGroups : &kFullUsers;
    if (dbType == KOVA_ACCOUNTDB_TYPE_ENUM) return groups ? &kEnumGroups : &kEnumUsers;
    return nullptr;
}

std::string TablesSql(int selector, int dbType) {
    return "CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT);" + Create(*LayoutFor(selector, dbType, 0)) +
           Create(*LayoutFor(selector, dbType, 1));
}

std::string IndexSql(int selector, int dbType) {
    return Index(*LayoutFor(selector, dbType, 0)) + Index(*LayoutFor(selector, dbType, 1));
}

} // namespace kova_accountdb
