// The local source: users and groups from the account database, ordered by
// name. Name filters are bound as data and compared with instr(), so no
// character of a keyword has a meaning of its own.
#include "account-db.h"
#include "enum-common.h"
#include "records.h"

#include "kova/account.h"

#include <optional>
#include <string>
#include <utility>

namespace kova_accounts {

namespace {

// The WHERE clause's name condition; ?1 is the pattern.
std::string NameCondition(const Query &q) {
    if (q.mode == Query::kAll || q.pattern.empty()) return "1";
    std::string col = q.ignoreCase ? "kova_upper(name)" : "name";
    return q.mode == Query::kPrefix ? "instr(" + col + ", ?1) = 1" : "instr(" + col + ", ?1) > 0";
}

template <typename ReadFn>
bool RunPaged(AccountSession &s, const std::string &table, const std::string &filter, const std::string &columns,
              const Query &q, Page &page, ReadFn read) {
    bool bindPattern = q.mode != Query::kAll && !q.pattern.empty();
    std::string where = " WHERE " + filter + " AND " + NameCondition(q);
    kova_internal::Statement st(s.db(),
                                ("SELECT " + columns + " FROM " + table + where + " ORDER BY name LIMIT ?2 OFFSET ?3").c_str());
    if (!st.ok()) return false;
    if (bindPattern) st.Bind(1, q.pattern);
    st.Bind(2, q.limit == kNoLimit ? -1LL : static_cast<long long>(q.limit)).Bind(3, static_cast<long long>(q.offset));
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
        std::optional<Entry> e = read(st);
        if (!e) return false;  // an invalid row in the window fails the call (logged)
        page.entries.push_back(std::move(*e));
    }
    if (rc != SQLITE_DONE) return false;
    // A window that ends early already tells the total; only a full window
    // (or an empty one past the start) needs the count.
    size_t got = page.entries.size();
    if ((q.limit == kNoLimit || got < q.limit) && (got > 0 || q.offset == 0)) {
        page.total = static_cast<long long>(q.offset) + static_cast<long long>(got);
        return true;
    }
    kova_internal::Statement count(s.db(), ("SELECT count(*) FROM " + table + where).c_str());
    if (!count.ok()) return false;
    if (bindPattern) count.Bind(1, q.pattern);
    if (count.Step() != SQLITE_ROW) return false;
    page.total = count.Int(0);
    return true;
}

} // namespace

bool LocalUsers(const Query &q, bool internal, Page &page) {
    AccountSession s;
    if (!s.Open()) return false;
    return RunPaged(s, "users", internal ? "internal = 1" : "internal = 0", "name, uid, gid, description, email, internal", q, page,
                    [](const kova_internal::Statement &st) -> std::optional<Entry> {
                        RowCheck check(st, "users", st.Int(1));
                        Entry e;
                        e.name = check.Name(0);
                        e.uid = check.Id(1, "uid");
                        e.gid = check.Id(2, "gid");
                        e.desc = check.Text(3, "description");
                        e.email = check.Text(4, "email");
                        e.internal = check.Flag(5, "internal flag");
                        e.source = KOVA_ACCOUNT_SRC_LOCAL;
                        if (!check.Done()) return std::nullopt;
                        return e;
                    });
}

bool LocalGroups(const Query &q, Page &page) {
    AccountSession s;
    if (!s.Open()) return false;
    return RunPaged(s, "groups", "1", "name, gid, description", q, page,
                    [](const kova_internal::Statement &st) -> std::optional<Entry> {
                        RowCheck check(st, "groups", st.Int(1));
                        Entry e;
                        e.name = check.Name(0);
                        e.gid = check.Id(1, "gid");
                        e.desc = check.Text(2, "description");
                        e.source = KOVA_ACCOUNT_SRC_LOCAL;
                        if (!check.Done()) return std::nullopt;
                        return e;
                    });
}

} // namespace kova_accounts
