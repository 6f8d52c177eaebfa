// Opening the share database and turning rows into share records.
#include "share-db.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace kova_share {

namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS shares ("
    " name TEXT PRIMARY KEY NOT NULL,"
    " path TEXT NOT NULL,"
    " comment TEXT NOT NULL DEFAULT '',"
    " support_acl INTEGER NOT NULL DEFAULT 1,"
    " encrypted INTEGER NOT NULL DEFAULT 0,"
    " read_only INTEGER NOT NULL DEFAULT 0,"
    " acl_status INTEGER NOT NULL DEFAULT 1,"
    " default_priv INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS privileges ("
    " share TEXT NOT NULL,"
    " principal_type INTEGER NOT NULL,"
    " principal TEXT NOT NULL,"
    " priv INTEGER NOT NULL,"
    " PRIMARY KEY (share, principal_type, principal));";

bool DbPath(std::string &out) {
    char buf[4096];
    if (KLIBCRootPath("/etc/shares.db", buf, sizeof(buf)) < 0) return false;
    out = buf;
    return true;
}

void RowToShare(const kova_internal::Statement &st, KOVA_SHARE &s) {
    std::memset(&s, 0, sizeof(s));
    CopyText(s.szName, sizeof(s.szName), st.Text(0));
    CopyText(s.szPath, sizeof(s.szPath), st.Text(1));
    CopyText(s.szComment, sizeof(s.szComment), st.Text(2));
    s.supportAcl = static_cast<int>(st.Int(3));
    s.isEncrypted = static_cast<int>(st.Int(4));
    s.isReadOnly = static_cast<int>(st.Int(5));
    s.aclStatus = static_cast<int>(st.Int(6));
    s.defaultPriv = static_cast<int>(st.Int(7));
}

const char kSelect[] =
    "SELECT name, path, comment, support_acl, encrypted, read_only, acl_status, default_priv FROM shares";

} // namespace

bool CopyText(char *dst, size_t cb, const std::string &src) {
    if (src.size() >= cb) {
        if (cb) dst[0] = '\0';
        return false;
    }
    std::memcpy(dst, src.c_str(), src.size() + 1);
    return true;
}

bool OpenShareDb(kova_internal::Database &db, bool forWrite) {
    std::string path;
    if (!DbPath(path)) return false;
    if (!forWrite) {
        struct stat st;
        if (kova_internal::Sys().fstatat(AT_FDCWD, path.c_str(), &st, 0) != 0) {
            KOVA_FAIL(KOVA_ERR_NOSHARE);
            return false;
        }
        return db.Open(path, false, true);
    }
    std::string dir = path.substr(0, path.rfind('/'));
    if (kova_internal::Sys().mkdirat(AT_FDCWD, dir.c_str(), 0755) != 0 && errno != EEXIST) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    return db.Open(path, true) && db.Exec(kSchema);
}

bool LoadAllShares(const kova_internal::Database &db, std::vector<KOVA_SHARE> &out) {
    kova_internal::Statement st(db, (std::string(kSelect) + " ORDER BY name").c_str());
    if (!st.ok()) return false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
        KOVA_SHARE s;
        RowToShare(st, s);
        out.push_back(s);
    }
    return rc == SQLITE_DONE;
}

bool LoadShare(const kova_internal::Database &db, const std::string &name, KOVA_SHARE &out) {
    kova_internal::Statement st(db, (std::string(kSelect) + " WHERE name = ?1").c_str());
    if (!st.ok()) return false;
    st.Bind(1, name);
    int rc = st.Step();
    if (rc == SQLITE_ROW) {
        RowToShare(st, out);
        return true;
    }
    if (rc == SQLITE_DONE) KOVA_FAIL(KOVA_ERR_NOSHARE);
    return false;
}

} // namespace kova_share
