// A small RAII layer over SQLite for the platform libraries: one owner per
// connection and per statement, errors reported as platform last errors.
#ifndef KOVA_INTERNAL_SQLITE_DB_H
#define KOVA_INTERNAL_SQLITE_DB_H

#include <sqlite3.h>
#include <string>

namespace kova_internal {

class Statement;

class Database {
public:
    Database() = default;
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;
    Database(Database &&other) noexcept;
    Database &operator=(Database &&other) noexcept;

    // Opens (creating when asked) with a busy timeout; false on failure
    // with the last error set.
    bool Open(const std::string &path, bool create, bool readOnly = false);
    bool Exec(const char *sql);
    sqlite3 *get() const { return db_; }
    bool is_open() const { return db_ != nullptr; }

private:
    sqlite3 *db_ = nullptr;
};

class Statement {
public:
    Statement(const Database &db, const char *sql);
    ~Statement();
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    bool ok() const { return stmt_ != nullptr; }
    Statement &Bind(int index, const std::string &text);
    Statement &BindNull(int index);
    Statement &Bind(int index, long long value);
    // SQLITE_ROW, SQLITE_DONE or an error code (last error set on errors).
    int Step();
    bool Reset();
    std::string Text(int column) const;       // "" for NULL
    const char *TextOrNull(int column) const; // valid until the next Step
    long long Int(int column) const;
    sqlite3_stmt *get() const { return stmt_; }

private:
    sqlite3_stmt *stmt_ = nullptr;
};

} // namespace kova_internal

#endif
