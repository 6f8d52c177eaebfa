// The id ranges of the Windows domains: a domain account's uid or gid is
// its range's base plus its RID. Ranges never overlap each other, so an id
// names at most one domain account; they stay recorded when a domain is
// left, so a domain joined again gets the same ids back.
#include "kova-dirsvc-admin.h"
#include "state-db.h"

#include "kova-internal/call-guard.h"
#include "kova/errcode.h"

#include <cctype>

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
