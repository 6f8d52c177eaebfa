// Plain SQLite access for the baselines the benchmarks compare against:
// what a search without our index costs on the same table.
#ifndef KOVA_BENCH_SQLITE_BASELINE_H
#define KOVA_BENCH_SQLITE_BASELINE_H

#include <sqlite3.h>

#include <string>
#include <vector>

namespace kova_bench {

// Closes the connection it holds, if any.
struct Db {
    sqlite3 *db = nullptr;
    Db() = default;
    Db(const Db &) = delete;
    Db &operator=(const Db &) = delete;
    ~Db() {
        if (db) sqlite3_close(db);
    }
};

// Runs sql; false (and the SQLite message on stderr) on failure.
bool Exec(sqlite3 *db, const char *sql);

// The count and one page of a LIKE scan. Both statements take the pattern
// as ?1; the page keeps the first column of each row.
struct Scan {
    long long total = 0;
    std::vector<std::string> page;
};
Scan LikeScan(sqlite3 *db, const std::string &countSql, const std::string &pageSql, const std::string &pattern);

} // namespace kova_bench

#endif
