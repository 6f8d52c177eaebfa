// The id ranges of the Windows domains: a domain account's uid or gid is
// its range's base plus its RID. Ranges never overlap each other, so an id
// names at most one domain account; they stay recorded when a domain is
// left, so a domain joined again gets the same ids back.
#include "kova-dirsvc-admin.h"
#include "state-db.h"

#include "kova-internal/call-guard.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>

using namespace kova_dirsvc;
using kova_internal::Guarded;

namespace {

constexpr long long kLowest = 1024;           // below: system accounts
constexpr long long kHighest = 0x7FFFFFFFLL;  // ids reach callers as int

bool ReadRanges(StateSession &s, std::vector<KovaIdRange> &out) {
    out.clear();
    kova_internal::Statement st(s.db(), "SELECT domain, base, size FROM idranges ORDER BY base");
    if (!st.ok()) return false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
        KovaIdRange r;
        r.domain = st.Text(0);
        r.base = st.Int(1);
        r.size = st.Int(2);
        out.push_back(r);
    }
    return rc == SQLITE_DONE;
}

bool SameDomain(const std::string &a, const std::string &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
    return true;
}

} // namespace

int KovaDirsvc::RangeList(std::vector<KovaIdRange> &out) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::RangeList", int);
    return Guarded(-1, [&]() -> int {
        StateSession s;
        return s.Open() && ReadRanges(s, out) ? 0 : -1;
    });
}

int KovaDirsvc::RangeSet(const KovaIdRange &range) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::RangeSet", int);
    return Guarded(-1, [&]() -> int {
        if (!ValidDomainName(range.domain) || range.size <= 0 || range.base < kLowest ||
            range.base > kHighest - range.size + 1) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        StateSession s;
        if (!s.Open() || !s.Begin()) return -1;
        std::vector<KovaIdRange> all;
        if (!ReadRanges(s, all)) {
            s.Rollback();
            return -1;
        }
        for (const auto &r : all) {
            if (SameDomain(r.domain, range.domain)) continue;
            if (range.base < r.base + r.size && r.base < range.base + range.size) {
                s.Rollback();
                KOVA_FAIL(KOVA_ERR_EXIST);
                return -1;
            }
        }
        kova_internal::Statement st(s.db(), "INSERT OR REPLACE INTO idranges(domain, base, size) VALUES (?1, ?2, ?3)");
        st.Bind(1, range.domain).Bind(2, range.base).Bind(3, range.size);
        if (!st.ok() || st.Step() != SQLITE_DONE) {
            s.Rollback();
            return -1;
        }
        return s.Commit() ? 0 : -1;
    });
}

namespace {

// What a snapshot was read from: the file's identity, size, times and the
// change counter SQLite writes into the header (bytes 24..27) with every
// commit in rollback-journal mode. Reading the header needs root (the file
// is root-only); other callers read the state each time.
struct Fingerprint {
    std::string path;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtim = {0, 0}, ctim = {0, 0};
    unsigned char counter[4] = {0, 0, 0, 0};
    pid_t pid = 0;
    bool operator==(const Fingerprint &o) const {
        return path == o.path && dev == o.dev && ino == o.ino && size == o.size && mtim.tv_sec == o.mtim.tv_sec &&
               mtim.tv_nsec == o.mtim.tv_nsec && ctim.tv_sec == o.ctim.tv_sec && ctim.tv_nsec == o.ctim.tv_nsec &&
               std::memcmp(counter, o.counter, 4) == 0 && pid == o.pid;
    }
};

bool Take(Fingerprint &fp) {
    if (geteuid() != 0) return false;
    fp.path = std::string(KLIBCRootGet()) + "/etc/dirsvc.db";
    int fd = open(fp.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && pread(fd, fp.counter, 4, 24) == 4;
    close(fd);
    if (!ok) return false;
    fp.dev = st.st_dev;
    fp.ino = st.st_ino;
    fp.size = st.st_size;
    fp.mtim = st.st_mtim;
    fp.ctim = st.st_ctim;
    fp.pid = getpid();
    return true;
}

struct SnapshotMemo {
    bool valid = false;
    Fingerprint fp;
    KovaDirSnapshot snapshot;
};

} // namespace

int KovaDirsvc::Snapshot(KovaDirSnapshot &out) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::Snapshot", int);
    return Guarded(-1, [&]() -> int {
        // Account lookups ask for the state on every directory name or id;
        // a memo keyed by the file's fingerprint saves opening it each time.
        thread_local SnapshotMemo memo;
        Fingerprint before;
        bool memoise = Take(before);
        if (memoise && memo.valid && memo.fp == before) {
            out = memo.snapshot;
            return 0;
        }
        memo.valid = false;
        StateSession s;
        std::map<std::string, std::string> kv;
        // One read transaction: the three parts agree with each other.
        if (!s.Open() || !s.db().Exec("BEGIN")) return -1;
        bool ok = s.ReadAll(kv);
        if (ok) {
            LdapFromState(kv, out.ldap);
            DomainFlagsFromState(kv, out.domain);
            ok = s.Domains(out.domain.domains) && ReadRanges(s, out.ranges);
        }
        s.db().Exec("COMMIT");
        if (!ok) return -1;
        // Kept only when nothing changed while it was read.
        Fingerprint after;
        if (memoise && Take(after) && after == before) {
            memo.fp = after;
            memo.snapshot = out;
            memo.valid = true;
        }
        return 0;
    });
}

int KovaDirsvc::RangeOfId(long long id, KovaIdRange &out) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::RangeOfId", int);
    return Guarded(-1, [&]() -> int {
        StateSession s;
        std::vector<KovaIdRange> all;
        if (!s.Open() || !ReadRanges(s, all)) return -1;
        for (const auto &r : all)
            if (id >= r.base && id < r.base + r.size) {
                out = r;
                return 1;
            }
        return 0;
    });
}

int KovaDirsvc::RangeOfDomain(const std::string &domain, KovaIdRange &out) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::RangeOfDomain", int);
    return Guarded(-1, [&]() -> int {
        StateSession s;
        std::vector<KovaIdRange> all;
        if (!s.Open() || !ReadRanges(s, all)) return -1;
        for (const auto &r : all)
            if (SameDomain(r.domain, domain)) {
                out = r;
                return 1;
            }
        return 0;
    });
}
