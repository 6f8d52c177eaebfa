#include "sqlite-baseline.h"

#include <cstdio>

namespace kova_bench {

bool Exec(sqlite3 *db, const char *sql) {
    char *err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
    std::fprintf(stderr, "sqlite: %s\n", err ? err : "?");
    sqlite3_free(err);
    return false;
}

Scan LikeScan(sqlite3 *db, const std::string &countSql, const std::string &pageSql, const std::string &pattern) {
    Scan s;
    sqlite3_stmt *c = nullptr, *p = nullptr;
    sqlite3_prepare_v2(db, countSql.c_str(), -1, &c, nullptr);
    sqlite3_bind_text(c, 1, pattern.c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(c) == SQLITE_ROW) s.total = sqlite3_column_int64(c, 0);
    sqlite3_finalize(c);
    sqlite3_prepare_v2(db, pageSql.c_str(), -1, &p, nullptr);
    sqlite3_bind_text(p, 1, pattern.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(p) == SQLITE_ROW) s.page.push_back(reinterpret_cast<const char *>(sqlite3_column_text(p, 0)));
    sqlite3_finalize(p);
    return s;
}

} // namespace kova_bench
