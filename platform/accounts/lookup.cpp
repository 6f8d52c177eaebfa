#include "lookup.h"

#include "kova-internal/fault-point.h"
#include "kova/errcode.h"

#include <type_traits>

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
    if (rc == SQLITE_ROW) {
        std::optional<Row> row = read(st);
        // An invalid row is an error (KOVA_ERR_CORRUPT), never "absent".
        if (!row && dbError) *dbError = true;
        return row;
    }
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

namespace {
// Answers from the session's memo when it has the key, else runs the lookup
// and keeps its result (found or absent; never a database error). Rows are
// kept without password hashes.
template <typename Map, typename Key, typename Lookup>
auto Memoised(AccountSession &s, Map RowMemo::*map, const Key &key, bool *dbError, Lookup lookup) {
    if (dbError) *dbError = false;
    RowMemo *memo = s.memo();
    if (memo) {
        auto it = (memo->*map).find(key);
        if (it != (memo->*map).end()) return it->second;
    }
    bool failed = false;
    auto row = lookup(&failed);
    if (dbError) *dbError = failed;
    if (memo && !failed) {
        auto kept = row;
        if constexpr (std::is_same_v<std::decay_t<decltype(row)>, std::optional<UserRow>>) {
            if (kept) kept->password.reset();
        }
        (memo->*map).emplace(key, std::move(kept));
    }
    return row;
}
} // namespace

std::optional<UserRow> FindUser(AccountSession &s, const std::string &name, bool *dbError) {
    return Memoised(s, &RowMemo::usersByName, name, dbError, [&](bool *failed) {
        return FindOne<UserRow>(s, std::string("SELECT ") + kUserColumns + " FROM users WHERE name = ?1",
                                [&](kova_internal::Statement &st) { st.Bind(1, name); }, ReadUser, failed);
    });
}

std::optional<UserRow> FindUserByUid(AccountSession &s, unsigned uid, bool *dbError) {
    return Memoised(s, &RowMemo::usersByUid, uid, dbError, [&](bool *failed) {
        return FindOne<UserRow>(s, std::string("SELECT ") + kUserColumns + " FROM users WHERE uid = ?1",
                                [&](kova_internal::Statement &st) { st.Bind(1, static_cast<long long>(uid)); },
                                ReadUser, failed);
    });
}

std::optional<GroupRow> FindGroup(AccountSession &s, const std::string &name, bool *dbError) {
    return Memoised(s, &RowMemo::groupsByName, name, dbError, [&](bool *failed) {
        return FindOne<GroupRow>(s, std::string("SELECT ") + kGroupColumns + " FROM groups WHERE name = ?1",
                                 [&](kova_internal::Statement &st) { st.Bind(1, name); }, ReadGroup, failed);
    });
}

std::optional<GroupRow> FindGroupByGid(AccountSession &s, unsigned gid, bool *dbError) {
    return Memoised(s, &RowMemo::groupsByGid, gid, dbError, [&](bool *failed) {
        return FindOne<GroupRow>(s, std::string("SELECT ") + kGroupColumns + " FROM groups WHERE gid = ?1",
                                 [&](kova_internal::Statement &st) { st.Bind(1, static_cast<long long>(gid)); },
                                 ReadGroup, failed);
    });
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
    RowMemo *memo = s.memo();
    if (memo) {
        auto it = memo->gidsByUid.find(user.uid);
        // Keyed by uid; the primary gid comes from the row, which may differ.
        if (it != memo->gidsByUid.end() && !it->second.empty() && it->second[0] == user.gid) {
            gids = it->second;
            return true;
        }
    }
    gids.assign(1, user.gid);
    kova_internal::Statement st(s.db(), "SELECT gid FROM members WHERE uid = ?1 AND gid != ?2 ORDER BY gid");
    if (!st.ok()) return false;
    st.Bind(1, static_cast<long long>(user.uid)).Bind(2, static_cast<long long>(user.gid));
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
        RowCheck check(st, "members", static_cast<long long>(user.uid));
        unsigned gid = check.Id(0, "gid");
        if (!check.Done()) return false;
        gids.push_back(gid);
    }
    if (rc != SQLITE_DONE) return false;
    if (memo) memo->gidsByUid[user.uid] = gids;
    return true;
}

} // namespace kova_accounts
