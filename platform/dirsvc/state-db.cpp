#include "state-db.h"

#include "kova-internal/fault-point.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <sys/stat.h>

#include <cerrno>

namespace kova_dirsvc {

namespace {
const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS state(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS domains(pos INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE COLLATE NOCASE);"
    "CREATE TABLE IF NOT EXISTS ous(pos INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, detail TEXT NOT NULL DEFAULT '');"
    "CREATE TABLE IF NOT EXISTS idranges(domain TEXT PRIMARY KEY COLLATE NOCASE, base INTEGER NOT NULL, size INTEGER NOT NULL);";
} // namespace

bool StateSession::Open() {
    std::string dir = std::string(KLIBCRootGet()) + "/etc";
    if (mkdir(KLIBCRootGet(), 0755) != 0 && errno != EEXIST) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    mode_t old = umask(077);
    bool ok = db_.Open(dir + "/dirsvc.db", true);
    umask(old);
    if (!ok) {
        // Without root (no saved uid 0 to raise to) the file is out of reach.
        if (!root_.ok()) KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    return db_.Exec(kSchema);
}

bool StateSession::ReadAll(std::map<std::string, std::string> &kv) {
    kova_internal::Statement st(db_, "SELECT key, value FROM state");
    if (!st.ok()) return false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) kv[st.Text(0)] = st.Text(1);
    return rc == SQLITE_DONE;
}

bool StateSession::Set(const std::string &key, const std::string &value) {
    kova_internal::Statement st(db_, "INSERT OR REPLACE INTO state(key, value) VALUES (?1, ?2)");
    st.Bind(1, key).Bind(2, value);
    return st.ok() && st.Step() == SQLITE_DONE;
}

bool StateSession::Domains(std::vector<std::string> &out) {
    kova_internal::Statement st(db_, "SELECT name FROM domains ORDER BY pos");
    if (!st.ok()) return false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) out.push_back(st.Text(0));
    return rc == SQLITE_DONE;
}

bool StateSession::Ous(std::vector<std::pair<std::string, std::string>> &out) {
    kova_internal::Statement st(db_, "SELECT name, detail FROM ous ORDER BY pos");
    if (!st.ok()) return false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) out.emplace_back(st.Text(0), st.Text(1));
    return rc == SQLITE_DONE;
}

bool StateSession::Commit() {
    if (db_.Exec("COMMIT")) return true;
    Rollback();
    return false;
}

} // namespace kova_dirsvc
