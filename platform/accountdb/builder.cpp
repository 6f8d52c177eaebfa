// Rebuilding a cache: rows go into a fresh file beside the live one, which
// is then sorted, indexed, synced and renamed over the live file. Until the
// rename nothing a reader opens has changed; a builder that is abandoned or
// fails removes its files.
#include "cache-layout.h"
#include "cache-paths.h"

#include "kova-accountdb-admin.h"
#include "kova-internal/call-guard.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sqlite-db.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <vector>

using namespace kova_accountdb;
using kova_internal::Guarded;

namespace {

bool SyncPath(const std::string &path, bool dir) {
    int fd = open(path.c_str(), (dir ? O_RDONLY | O_DIRECTORY : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

std::string DirOf(const std::string &path) { return path.substr(0, path.rfind('/')); }

// A name that cannot be upper-cased (invalid UTF-8) fails the entry: a
// wrong name_upper would make the account unfindable case-insensitively.
bool Upper(const std::string &s, std::string &out) {
    std::vector<char> buf(s.size() * 3 + 4);
    if (KLIBCUnicodeUTF8StrUpper(s.c_str(), buf.data(), buf.size()) < 0) return false;
    out = buf.data();
    return true;
}

// One cache file under construction.
struct FileBuild {
    int selector = 0, dbType = 0;
    std::string finalPath, tmpPath;
    kova_internal::Database db;
    std::unique_ptr<kova_internal::Statement> insert[2];  // users, groups
    std::unique_ptr<kova_internal::Statement> member;
    bool renamed = false;

    ~FileBuild() {
        insert[0].reset();
        insert[1].reset();
        member.reset();
        db = kova_internal::Database();
        if (!renamed && !tmpPath.empty()) {
            std::remove(tmpPath.c_str());
            std::remove((tmpPath + "-journal").c_str());
        }
    }

    bool Start(int sel, int type, const std::string &domain) {
        selector = sel;
        dbType = type;
        if (!CachePath(sel, type, domain, finalPath) || !MakeDirs(DirOf(finalPath))) return false;
        tmpPath = finalPath + ".new." + std::to_string(getpid());
        std::remove(tmpPath.c_str());
        if (!db.Open(tmpPath, true)) return false;
        chmod(tmpPath.c_str(), 0644);
        // A scratch file: durability comes from the fsync before the rename.
        if (!db.Exec("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; BEGIN")) return false;
        if (!db.Exec(TablesSql(sel, type).c_str())) return false;
        for (int kind = 0; kind < 2; ++kind) {
            const Layout &l = *LayoutFor(sel, type, kind);
            std::string sql = std::string("INSERT INTO ") + l.table + " VALUES (";
            for (size_t i = 0; i < l.columns.size(); ++i) sql += i ? ", ?" : "?";
            insert[kind] = std::make_unique<kova_internal::Statement>(db, (sql + ")").c_str());
            if (!insert[kind]->ok()) return false;
        }
        member = std::make_unique<kova_internal::Statement>(db, "INSERT INTO members(grp, member) VALUES (?1, ?2)");
        return member->ok();
    }

    bool Add(const KovaCacheEntry &e, const std::string &upper) {
        int kind = e.group ? 1 : 0;
        const Layout &l = *LayoutFor(selector, dbType, kind);
        kova_internal::Statement &st = *insert[kind];
        st.Reset();
        for (size_t i = 0; i < l.columns.size(); ++i) {
            int idx = static_cast<int>(i) + 1;
            if (l.columns[i].source == Column::kId || l.columns[i].source == Column::kGid) {
                long long n = l.columns[i].source == Column::kId ? e.id : e.gid;
                // An entry without a usable number keeps NULL: it has no id.
                if (n < 0 || n > 0x7FFFFFFF)
                    st.BindNull(idx);
                else
                    st.Bind(idx, n);
                continue;
            }
            const std::string *v = nullptr;
            switch (l.columns[i].source) {
            case Column::kName: v = &e.name; break;
            case Column::kNameUpper: v = &upper; break;
            case Column::kDesc: v = &e.desc; break;
            case Column::kMail: v = &e.mail; break;
            case Column::kFullname: v = &e.fullname; break;
            case Column::kDn: v = &e.dn; break;
            default: break;
            }
            // Missing attributes are NULL, not "", so callers can tell.
            if (v->empty())
                st.BindNull(idx);
            else
                st.Bind(idx, *v);
        }
        if (st.Step() != SQLITE_DONE) return false;
        if (!e.group) return true;
        for (const auto &m : e.members) {
            member->Reset();
            member->Bind(1, e.name).Bind(2, m);
            if (member->Step() != SQLITE_DONE) return false;
        }
        return true;
    }

    // Sorts by name, indexes, syncs; the file is then ready to rename.
    bool Finish() {
        insert[0].reset();
        insert[1].reset();
        member.reset();
        std::string sql;
        for (int kind = 0; kind < 2; ++kind) {
            const Layout &l = *LayoutFor(selector, dbType, kind);
            std::string t = l.table;
            sql += "CREATE TABLE sorted AS SELECT * FROM " + t + " ORDER BY \"" + l.columns[1].name + "\", \"" +
                   l.columns[0].name + "\";DELETE FROM " + t + ";INSERT INTO " + t + " SELECT * FROM sorted;DROP TABLE sorted;";
        }
        sql += IndexSql(selector, dbType);
        sql += "INSERT INTO meta(key, value) VALUES ('schema', '2');COMMIT;";
        if (!db.Exec(sql.c_str())) return false;
        db = kova_internal::Database();
        if (!SyncPath(tmpPath, false)) {
            KOVA_FAIL(KOVA_ERR_IO);
            return false;
        }
        return true;
    }

    bool Rename() {
        if (std::rename(tmpPath.c_str(), finalPath.c_str()) != 0) {
            KOVA_FAIL(KOVA_ERR_IO);
            return false;
        }
        renamed = true;
        SyncPath(DirOf(finalPath), true);
        return true;
    }
};

// The catalogue of one domain variant: which domains are cached.
bool CatalogueChange(int dbType, const std::string &domain, bool add) {
    std::string path;
    if (!CachePath(KOVA_ACCOUNTDB_DOMAIN, dbType, "", path) || !MakeDirs(DirOf(path))) return false;
    kova_internal::Database db;
    if (!db.Open(path, true)) return false;
    chmod(path.c_str(), 0644);
    if (!db.Exec("CREATE TABLE IF NOT EXISTS domains(name TEXT PRIMARY KEY, file TEXT NOT NULL, updated INTEGER)"))
        return false;
    kova_internal::Statement st(db, add ? "INSERT OR REPLACE INTO domains(name, file, updated) VALUES (?1, ?2, strftime('%s'))"
                                        : "DELETE FROM domains WHERE name = ?1");
    std::string file;
    CachePath(KOVA_ACCOUNTDB_DOMAIN, dbType, domain, file);
    st.Bind(1, UpperAscii(domain));
    if (add) st.Bind(2, file);
    return st.ok() && st.Step() == SQLITE_DONE;
}

} // namespace

struct KovaAccountCacheBuilder::Impl {
    std::vector<std::unique_ptr<FileBuild>> files;
    std::string domain;
    bool spent = false;
};

KovaAccountCacheBuilder::KovaAccountCacheBuilder(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
KovaAccountCacheBuilder::~KovaAccountCacheBuilder() = default;

std::unique_ptr<KovaAccountCacheBuilder> KovaAccountCacheBuilder::Begin(int selector, const std::string &domain) noexcept {
    KOVA_FAULT_POINT_NULL("KovaAccountCacheBuilder::Begin");
    return Guarded<std::unique_ptr<KovaAccountCacheBuilder>>(nullptr, [&]() -> std::unique_ptr<KovaAccountCacheBuilder> {
        auto impl = std::make_unique<Impl>();
        std::vector<int> types;
        if (selector == KOVA_ACCOUNTDB_LDAP) {
            types = {KOVA_ACCOUNTDB_TYPE_ENUM};
        } else if (selector == KOVA_ACCOUNTDB_DOMAIN && ValidDomain(domain)) {
            types = {KOVA_ACCOUNTDB_TYPE_FULL, KOVA_ACCOUNTDB_TYPE_ENUM};
            impl->domain = domain;
        } else {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return nullptr;
        }
        for (int type : types) {
            auto f = std::make_unique<FileBuild>();
            if (!f->Start(selector, type, impl->domain)) return nullptr;
            impl->files.push_back(std::move(f));
        }
        return std::unique_ptr<KovaAccountCacheBuilder>(new KovaAccountCacheBuilder(std::move(impl)));
    });
}

int KovaAccountCacheBuilder::Add(const KovaCacheEntry &entry) noexcept {
    KOVA_FAULT_POINT("KovaAccountCacheBuilder::Add", int);
    return Guarded(-1, [&]() -> int {
        if (impl_->spent || entry.name.empty()) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        std::string upper;
        if (!Upper(entry.name, upper)) return -1;
        for (auto &f : impl_->files)
            if (!f->Add(entry, upper)) return -1;
        ++(entry.group ? groups_ : users_);
        return 0;
    });
}

int KovaAccountCacheBuilder::Commit() noexcept {
    KOVA_FAULT_POINT("KovaAccountCacheBuilder::Commit", int);
    return Guarded(-1, [&]() -> int {
        if (impl_->spent) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        impl_->spent = true;
        // Every file is complete and synced before the first rename.
        for (auto &f : impl_->files)
            if (!f->Finish()) return -1;
        for (auto &f : impl_->files) {
            if (!f->Rename()) return -1;
            if (!impl_->domain.empty() && !CatalogueChange(f->dbType, impl_->domain, true)) return -1;
        }
        return 0;
    });
}

int KovaAccountCache::RemoveLdap() noexcept {
    KOVA_FAULT_POINT("KovaAccountCache::RemoveLdap", int);
    return Guarded(-1, [&]() -> int {
        std::string path;
        CachePath(KOVA_ACCOUNTDB_LDAP, KOVA_ACCOUNTDB_TYPE_ENUM, "", path);
        if (std::remove(path.c_str()) != 0 && errno != ENOENT) {
            KOVA_FAIL(KOVA_ERR_IO);
            return -1;
        }
        return 0;
    });
}

int KovaAccountCache::RemoveDomain(const std::string &domain) noexcept {
    KOVA_FAULT_POINT("KovaAccountCache::RemoveDomain", int);
    return Guarded(-1, [&]() -> int {
        if (!ValidDomain(domain)) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        for (int type : {KOVA_ACCOUNTDB_TYPE_FULL, KOVA_ACCOUNTDB_TYPE_ENUM}) {
            std::string path;
            CachePath(KOVA_ACCOUNTDB_DOMAIN, type, domain, path);
            // Out of the catalogue first, so no reader is sent to a missing file.
            if (!CatalogueChange(type, domain, false)) return -1;
            if (std::remove(path.c_str()) != 0 && errno != ENOENT) {
                KOVA_FAIL(KOVA_ERR_IO);
                return -1;
            }
        }
        return 0;
    });
}
