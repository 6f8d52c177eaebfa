// Exact lookups in the caches, through the B-tree indexes the builder
// makes (name, upper-cased name, number), so one lookup costs a few page
// reads whatever the directory's size.
#include "cache-layout.h"
#include "cache-paths.h"

#include "kova-accountdb-lookup.h"
#include "kova-internal/call-guard.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sqlite-db.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <sys/stat.h>

#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>

using namespace kova_accountdb;
using kova_internal::Guarded;

namespace {

// An open cache file. Rebuilds rename a new file over the old one, so a
// connection stays valid for as long as the path names the same inode;
// opening (and parsing the schema, with its full-text tables) costs far
// more than a lookup, so each thread keeps its connections.
struct OpenFile {
    kova_internal::Database db;
    dev_t dev = 0;
    ino_t ino = 0;
    pid_t pid = 0;
    bool numbered = false;  // written with numbers (schema 2 and later)
};

struct Cache {
    kova_internal::Database *db = nullptr;
    const Layout *layout = nullptr;
    const Layout *groups = nullptr;
    bool numbered = false;
};

constexpr size_t kMaxOpenFiles = 8;

OpenFile *Reuse(const std::string &path, const struct stat &st) {
    thread_local std::map<std::string, std::unique_ptr<OpenFile>> open;
    auto it = open.find(path);
    if (it != open.end()) {
        OpenFile &f = *it->second;
        if (f.dev == st.st_dev && f.ino == st.st_ino && f.pid == getpid()) return &f;
        // In a forked child the parent's handle is parked, never closed or
        // used here (its SQLite state is the parent's).
        if (f.pid != getpid()) {
            static std::vector<OpenFile *> parked;
            parked.push_back(it->second.release());
        }
        open.erase(it);
    }
    if (open.size() >= kMaxOpenFiles) open.clear();
    auto f = std::make_unique<OpenFile>();
    if (!f->db.Open(path, false, true)) return nullptr;
    f->dev = st.st_dev;
    f->ino = st.st_ino;
    f->pid = getpid();
    kova_internal::Statement meta(f->db, "SELECT value FROM meta WHERE key = 'schema'");
    f->numbered = meta.ok() && meta.Step() == SQLITE_ROW && meta.Int(0) >= 2;
    OpenFile *raw = f.get();
    open.emplace(path, std::move(f));
    return raw;
}

// 1 opened, 0 no cache, -1 error.
int OpenCache(int selector, const std::string &domain, bool group, Cache &c) {
    std::vector<int> types;
    if (selector == KOVA_ACCOUNTDB_LDAP)
        types = {KOVA_ACCOUNTDB_TYPE_ENUM};
    else if (selector == KOVA_ACCOUNTDB_DOMAIN && ValidDomain(domain))
        types = {KOVA_ACCOUNTDB_TYPE_FULL, KOVA_ACCOUNTDB_TYPE_ENUM};
    else {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    for (int type : types) {
        std::string path;
        struct stat st;
        if (!CachePath(selector, type, selector == KOVA_ACCOUNTDB_LDAP ? "" : domain, path)) return -1;
        if (stat(path.c_str(), &st) != 0) continue;
        OpenFile *f = Reuse(path, st);
        if (!f) return -1;
        c.db = &f->db;
        c.layout = LayoutFor(selector, type, group ? 1 : 0);
        c.groups = LayoutFor(selector, type, 1);
        c.numbered = f->numbered;
        return 1;
    }
    return 0;
}

std::string Select(const Layout &l) {
    std::string cols;
    for (auto src : {Column::kName, Column::kDn, Column::kDesc, Column::kMail, Column::kId, Column::kGid}) {
        const char *col = l.NameOf(src);
        cols += std::string(cols.empty() ? "" : ", ") + (col ? "\"" + std::string(col) + "\"" : std::string("NULL"));
    }
    return "SELECT " + cols + " FROM " + l.table + " WHERE ";
}

long long Number(const kova_internal::Statement &st, int col) {
    if (sqlite3_column_type(st.get(), col) != SQLITE_INTEGER) return -1;
    long long v = st.Int(col);
    return v >= 0 && v <= 0x7FFFFFFF ? v : -1;
}

// Runs a lookup that should find one row: 1 found, 0 none or several.
int One(kova_internal::Statement &st, KovaCachedAccount &out) {
    if (!st.ok()) return -1;
    int rc = st.Step();
    if (rc == SQLITE_DONE) return 0;
    if (rc != SQLITE_ROW) return -1;
    KovaCachedAccount a;
    a.name = st.Text(0);
    a.dn = st.Text(1);
    a.desc = st.Text(2);
    a.mail = st.Text(3);
    a.id = Number(st, 4);
    a.gid = Number(st, 5);
    rc = st.Step();
    if (rc == SQLITE_ROW) return 0;  // ambiguous: no answer rather than a guess
    if (rc != SQLITE_DONE) return -1;
    out = a;
    return 1;
}

bool Upper(const std::string &s, std::string &out) {
    std::vector<char> buf(s.size() * 3 + 4);
    if (KLIBCUnicodeUTF8StrUpper(s.c_str(), buf.data(), buf.size()) < 0) return false;
    out = buf.data();
    return true;
}

} // namespace

int KovaAccountCacheLookup::ByName(int selector, const std::string &domain, bool group, const std::string &name,
                                   KovaCachedAccount &out) noexcept {
    KOVA_FAULT_POINT("KovaAccountCacheLookup::ByName", int);
    return Guarded(-1, [&]() -> int {
        Cache c;
        int opened = OpenCache(selector, domain, group, c);
        if (opened <= 0) return opened;
        const Layout &l = *c.layout;
        kova_internal::Statement exact(*c.db, (Select(l) + "\"" + l.NameOf(Column::kName) + "\" = ?1").c_str());
        exact.Bind(1, name);
        int rc = One(exact, out);
        if (rc != 0) return rc;
        std::string upper;
        if (!Upper(name, upper)) return 0;
        kova_internal::Statement folded(*c.db, (Select(l) + "\"" + l.NameOf(Column::kNameUpper) + "\" = ?1").c_str());
        folded.Bind(1, upper);
        return One(folded, out);
    });
}

int KovaAccountCacheLookup::ById(int selector, const std::string &domain, bool group, long long id,
                                 KovaCachedAccount &out) noexcept {
    KOVA_FAULT_POINT("KovaAccountCacheLookup::ById", int);
    return Guarded(-1, [&]() -> int {
        Cache c;
        int opened = OpenCache(selector, domain, group, c);
        if (opened <= 0) return opened;
        if (!c.numbered) return 0;
        const Layout &l = *c.layout;
        kova_internal::Statement st(*c.db, (Select(l) + "\"" + l.NameOf(Column::kId) + "\" = ?1").c_str());
        st.Bind(1, id);
        return One(st, out);
    });
}

int KovaAccountCacheLookup::GroupIdsOf(int selector, const std::string &domain, const KovaCachedAccount &user,
                                       std::vector<long long> &ids) noexcept {
    KOVA_FAULT_POINT("KovaAccountCacheLookup::GroupIdsOf", int);
    return Guarded(-1, [&]() -> int {
        ids.clear();
        Cache c;
        int opened = OpenCache(selector, domain, true, c);
        if (opened <= 0 || !c.numbered) return opened < 0 ? -1 : 0;
        const Layout &g = *c.groups;
        std::string idCol = std::string("\"") + g.NameOf(Column::kId) + "\"";
        std::string sql = "SELECT DISTINCT " + idCol + " FROM groups WHERE " + idCol + " IS NOT NULL AND \"" +
                          g.NameOf(Column::kName) + "\" IN (SELECT grp FROM members WHERE member = ?1" +
                          (user.dn.empty() ? "" : " OR member = ?2") + ") ORDER BY " + idCol;
        kova_internal::Statement st(*c.db, sql.c_str());
        if (!st.ok()) return -1;
        st.Bind(1, user.name);
        if (!user.dn.empty()) st.Bind(2, user.dn);
        int rc;
        while ((rc = st.Step()) == SQLITE_ROW) {
            long long v = Number(st, 0);
            if (v >= 0) ids.push_back(v);
        }
        if (rc != SQLITE_DONE) return -1;
        return ids.empty() ? 0 : 1;
    });
}
