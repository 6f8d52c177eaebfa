#include "lookup.h"

#include "kova-internal/fault-point.h"
#include "kova/errcode.h"

namespace kova_accounts {

namespace {
template <typename Row, typename Read, typename BindFn>
std::optional<Row> FindOne(AccountSession &s, const std::string &sql, BindFn bind, Read read, bool *dbError) {
    if (dbError) *dbError = false;
    kova_internal::Statement st(s.db(), sql.c_str());
    if (!st.ok()) {
        if (dbError) *dbError = true;
        return std::nullopt;
    }
    bind(st);
    int rc = st.Step();
    if (rc == SQLITE_ROW) return read(st);
    if (rc != SQLITE_DONE && dbError) *dbError = true;
    return std::nullopt;
}

// A database error already set the last error; only absence is left to say.
template <typename Find>
auto Required(Find find, int absentCode) {
    bool dbError = false;
    auto row = find(&dbError);
    if (!row && !dbError) KOVA_FAIL(absentCode);
    return row;
}
} // namespace

std::optional<UserRow> FindUser(AccountSession &s, const std::string &name, bool *dbError) {
    return FindOne<UserRow>(s, std::string("SELECT ") + kUserColumns + " FROM users WHERE name = ?1",
                            [&](kova_internal::Statement &st) { st.Bind(1, name); }, ReadUser, dbError);
}

std::optional<UserRow> FindUserByUid(AccountSession &s, unsigned uid, bool *dbError) {
    return FindOne<UserRow>(s, std::string("SELECT ") + kUserColumns + " FROM users WHERE uid = ?1",
                            [&](kova_internal::Statement &st) { st.Bind(1, static_cast<long long>(uid)); }, ReadUser,
                            dbError);
}

std::optional<GroupRow> FindGroup(AccountSession &s, const std::string &name, bool *dbError) {
    return FindOne<GroupRow>(s, std::string("SELECT ") + kGroupColumns + " FROM groups WHERE name = ?1",
                             [&](kova_internal::Statement &st) { st.Bind(1, name); }, ReadGroup, dbError);
}

std::optional<GroupRow> FindGroupByGid(AccountSession &s, unsigned gid, bool *dbError) {
    return FindOne<GroupRow>(s, std::string("SELECT ") + kGroupColumns + " FROM groups WHERE gid = ?1",
                             [&](kova_internal::Statement &st) { st.Bind(1, static_cast<long long>(gid)); },
                             ReadGroup, dbError);
}

std::optional<UserRow> RequireUser(AccountSession &s, const std::string &name) {
    return Required([&](bool *dbError) { return FindUser(s, name, dbError); }, KOVA_ERR_NOUSER);
}

std::optional<UserRow> RequireUserByUid(AccountSession &s, unsigned uid) {
    return Required([&](bool *dbError) { return FindUserByUid(s, uid, dbError); }, KOVA_ERR_NOUSER);
}

std::optional<GroupRow> RequireGroup(AccountSession &s, const std::string &name) {
    return Required([&](bool *dbError) { return FindGroup(s, name, dbError); }, KOVA_ERR_NOGROUP);
}

std::optional<GroupRow> RequireGroupByGid(AccountSession &s, unsigned gid) {
    return Required([&](bool *dbError) { return FindGroupByGid(s, gid, dbError); }, KOVA_ERR_NOGROUP);
}

bool UserGids(AccountSession &s, const UserRow &user, std::vector<unsigned> &gids) {
    gids.assign(1, user.gid);
    kova_internal::Statement st(s.db(), "SELECT gid FROM members WHERE uid = ?1 AND gid != ?2 ORDER BY gid");
    if (!st.ok()) return false;
    st.Bind(1, static_cast<long long>(user.uid)).Bind(2, static_cast<long long>(user.gid));
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) gids.push_back(static_cast<unsigned>(st.Int(0)));
    return rc == SQLITE_DONE;
}

} // namespace kova_accounts
