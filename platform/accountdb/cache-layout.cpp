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
                         {"fullname", C::kFullname, true},
                         {"uid_number", C::kId, false},
                         {"gid_number", C::kGid, false},
                         {"dn", C::kDn, false}}};
const Layout kLdapGroups{"groups",
                         {{"name", C::kName, false},
                          {"name_upper", C::kNameUpper, true},
                          {"desc", C::kDesc, true},
                          {"gid_number", C::kId, false},
                          {"dn", C::kDn, false}}};
const std::vector<Column> kFullColumns = {{"Name", C::kName, false},          {"NameUpper", C::kNameUpper, true},
                                          {"Description", C::kDesc, true},    {"Email", C::kMail, true},
                                          {"FullName", C::kFullname, true},   {"distinguishedName", C::kDn, true},
                                          {"RID", C::kId, false},             {"PrimaryGroupRID", C::kGid, false}};
const Layout kFullUsers{"users", kFullColumns};
const Layout kFullGroups{"groups", kFullColumns};
const std::vector<Column> kEnumColumns = {{"Name", C::kName, false}, {"NameUpper", C::kNameUpper, true}, {"RID", C::kId, false}};
const Layout kEnumUsers{"users", kEnumColumns};
const Layout kEnumGroups{"groups", kEnumColumns};

std::string Create(const Layout &l) {
    std::string sql = std::string("CREATE TABLE ") + l.table + "(";
    for (size_t i = 0; i < l.columns.size(); ++i) {
        bool number = l.columns[i].source == Column::kId || l.columns[i].source == Column::kGid;
        sql += std::string(i ? ", " : "") + "\"" + l.columns[i].name + (number ? "\" INTEGER" : "\" TEXT");
    }
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

// B-tree indexes for the exact lookups of the account library (by name,
// by upper-cased name, by id).
std::string Lookups(const Layout &l) {
    std::string sql;
    for (auto src : {Column::kName, Column::kNameUpper, Column::kId}) {
        const char *col = l.NameOf(src);
        if (col) sql += std::string("CREATE INDEX ") + l.table + "_by_" + col + " ON " + l.table + "(\"" + col + "\");";
    }
    return sql;
}
} // namespace

int Layout::Find(const std::string &column) const {
    for (size_t i = 0; i < columns.size(); ++i)
        if (column == columns[i].name) return static_cast<int>(i);
    return -1;
}

const char *Layout::NameOf(Column::Source source) const {
    for (const auto &c : columns)
        if (c.source == source) return c.name;
    return nullptr;
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
    return "CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT);"
           "CREATE TABLE members(grp TEXT NOT NULL, member TEXT NOT NULL);" + Create(*LayoutFor(selector, dbType, 0)) +
           Create(*LayoutFor(selector, dbType, 1));
}

std::string IndexSql(int selector, int dbType) {
    const Layout &users = *LayoutFor(selector, dbType, 0), &groups = *LayoutFor(selector, dbType, 1);
    return Index(users) + Index(groups) + Lookups(users) + Lookups(groups) +
           "CREATE INDEX members_by_member ON members(member);";
}

} // namespace kova_accountdb
