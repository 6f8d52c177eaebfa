// RAII helpers over SQLite, shared by the platform libraries.
#include "kova-internal/sqlite-db.h"
#include "kova-internal/fault-point.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <utility>

namespace kova_internal {

Database::~Database() {
    if (db_) sqlite3_close_v2(db_);
}

Database::Database(Database &&other) noexcept : db_(std::exchange(other.db_, nullptr)) {}

Database &Database::operator=(Database &&other) noexcept {
    if (this != &other) {
        if (db_) sqlite3_close_v2(db_);
        db_ = std::exchange(other.db_, nullptr);
    }
    return *this;
}

bool Database::Open(const std::string &path, bool create, bool readOnly) {
    if (db_) {
        sqlite3_close_v2(db_);
        db_ = nullptr;
    }
    int flags = readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0));
    flags |= SQLITE_OPEN_NOMUTEX;
    sqlite3 *db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        if (db) sqlite3_close_v2(db);
        KOVA_FAIL(rc == SQLITE_CANTOPEN ? KOVA_ERR_NOENT : KOVA_ERR_IO);
        return false;
    }
    sqlite3_busy_timeout(db, 10000);
    db_ = db;
    return true;
}

bool Database::Exec(const char *sql) {
    if (!db_) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    return true;
}

Statement::Statement(const Database &db, const char *sql) {
    if (!db.get() || sqlite3_prepare_v2(db.get(), sql, -1, &stmt_, nullptr) != SQLITE_OK) {
        if (stmt_) sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        KOVA_FAIL(KOVA_ERR_IO);
    }
}

Statement::~Statement() {
    if (stmt_) sqlite3_finalize(stmt_);
}

Statement &Statement::Bind(int index, const std::string &text) {
    if (stmt_) sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
}

Statement &Statement::BindNull(int index) {
    if (stmt_) sqlite3_bind_null(stmt_, index);
    return *this;
}

Statement &Statement::Bind(int index, long long value) {
    if (stmt_) sqlite3_bind_int64(stmt_, index, value);
    return *this;
}

int Statement::Step() {
    if (!stmt_) return SQLITE_MISUSE;
    int rc = sqlite3_step(stmt_);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) KOVA_FAIL(rc == SQLITE_CONSTRAINT ? KOVA_ERR_EXIST : KOVA_ERR_IO);
    return rc;
}

bool Statement::Reset() {
    if (!stmt_) return false;
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    return true;
}

std::string Statement::Text(int column) const {
    const char *t = TextOrNull(column);
    return t ? std::string(t) : std::string();
}

const char *Statement::TextOrNull(int column) const {
    if (!stmt_) return nullptr;
    return reinterpret_cast<const char *>(sqlite3_column_text(stmt_, column));
}

long long Statement::Int(int column) const {
    return stmt_ ? sqlite3_column_int64(stmt_, column) : 0;
}

} // namespace kova_internal
