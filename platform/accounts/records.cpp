// User and group records: C structures owned by the caller, released with
// KOVAUserFree / KOVAGroupFree.
#include "records.h"

#include "names.h"

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <syslog.h>

#include <cstdlib>
#include <cstring>

namespace kova_accounts {

const char kUserColumns[] = "name, uid, gid, description, email, home, internal, password, disabled";
const char kGroupColumns[] = "name, gid, description";

namespace {
bool HasType(const kova_internal::Statement &st, int col, int type) { return sqlite3_column_type(st.get(), col) == type; }

// The column's text with its full length (a NUL byte inside stays visible).
std::string Bytes(const kova_internal::Statement &st, int col) {
    const unsigned char *t = sqlite3_column_text(st.get(), col);
    return t ? std::string(reinterpret_cast<const char *>(t), static_cast<size_t>(sqlite3_column_bytes(st.get(), col)))
             : std::string();
}
} // namespace

// Each reader asks for the stored type before reading the value: reading
// converts, and the type of a converted value is no longer reliable.
unsigned RowCheck::Id(int col, const char *what) {
    bool integer = HasType(st_, col, SQLITE_INTEGER);
    long long v = st_.Int(col);
    if (!integer || v < 0 || v > kMaxAccountId) {
        Bad(what);
        return 0;
    }
    return static_cast<unsigned>(v);
}

bool RowCheck::Flag(int col, const char *what) {
    bool integer = HasType(st_, col, SQLITE_INTEGER);
    long long v = st_.Int(col);
    if (!integer || (v != 0 && v != 1)) Bad(what);
    return v == 1;
}

std::string RowCheck::Name(int col) {
    bool text = HasType(st_, col, SQLITE_TEXT);
    std::string name = Bytes(st_, col);
    if (!text || !ValidAccountName(name)) Bad("name");
    return name;
}

std::optional<std::string> RowCheck::Text(int col, const char *what) {
    if (HasType(st_, col, SQLITE_NULL)) return std::nullopt;
    bool isText = HasType(st_, col, SQLITE_TEXT);
    std::string text = Bytes(st_, col);
    if (!isText || !ValidText(text)) Bad(what);
    return text;
}

std::optional<std::string> RowCheck::Secret(int col) {
    if (HasType(st_, col, SQLITE_NULL)) return std::nullopt;
    if (!HasType(st_, col, SQLITE_TEXT)) Bad("password");
    return Bytes(st_, col);
}

bool RowCheck::Done() {
    if (!bad_) return true;
    syslog(LOG_AUTH | LOG_ERR, "accounts.db: %s row %lld has an invalid %s; it is not used", table_, key_, bad_);
    KOVA_FAIL(KOVA_ERR_CORRUPT);
    return false;
}

std::optional<UserRow> ReadUser(const kova_internal::Statement &st) {
    RowCheck check(st, "users", st.Int(1));
    UserRow r;
    r.name = check.Name(0);
    r.uid = check.Id(1, "uid");
    r.gid = check.Id(2, "gid");
    r.desc = check.Text(3, "description");
    r.email = check.Text(4, "email");
    r.home = check.Text(5, "home");
    r.internal = check.Flag(6, "internal flag");
    r.password = check.Secret(7);
    r.disabled = check.Flag(8, "disabled flag");
    if (!check.Done()) return std::nullopt;
    return r;
}

std::optional<GroupRow> ReadGroup(const kova_internal::Statement &st) {
    RowCheck check(st, "groups", st.Int(1));
    GroupRow r;
    r.name = check.Name(0);
    r.gid = check.Id(1, "gid");
    r.desc = check.Text(2, "description");
    if (!check.Done()) return std::nullopt;
    return r;
}

namespace {

// strdup that distinguishes "no text" (NULL) from an allocation failure.
bool Dup(const std::optional<std::string> &s, char **out) {
    *out = nullptr;
    if (!s) return true;
    *out = strdup(s->c_str());
    return *out != nullptr;
}

// Frees the strings a record owns and zeroes it.
void Clear(KOVA_USER *u) {
    std::free(u->szName);
    std::free(u->szDesc);
    std::free(u->szEmail);
    std::free(u->szHome);
    std::memset(u, 0, sizeof(*u));
}

void Clear(KOVA_GROUP *g) {
    std::free(g->szName);
    std::free(g->szDesc);
    std::memset(g, 0, sizeof(*g));
}

// An allocation failed while filling fresh: nothing reaches the caller.
template <typename Record>
bool OutOfMemory(Record &fresh) {
    Clear(&fresh);
    KOVA_FAIL(KOVA_ERR_NOMEM);
    return false;
}

// Moves a completely filled record to the caller: into the record *pp holds
// when reuse allows (its old strings are freed), otherwise into a new one.
template <typename Record>
bool Deliver(Record &fresh, Record **pp, bool reuse) {
    Record *target = (reuse && *pp) ? *pp : static_cast<Record *>(std::calloc(1, sizeof(Record)));
    if (!target) return OutOfMemory(fresh);
    Clear(target);
    *target = fresh;
    *pp = target;
    return true;
}

} // namespace

bool FillUser(const UserRow &row, PKOVA_USER *pp, bool reuse) {
    KOVA_USER fresh{};
    bool ok = Dup(row.name, &fresh.szName) && Dup(row.desc, &fresh.szDesc) && Dup(row.email, &fresh.szEmail) &&
              Dup(row.home, &fresh.szHome);
    if (!ok) return OutOfMemory(fresh);
    fresh.uid = row.uid;
    fresh.gid = row.gid;
    fresh.isInternal = row.internal ? 1 : 0;
    fresh.isDisabled = row.disabled ? 1 : 0;
    return Deliver(fresh, pp, reuse);
}

bool FillGroup(const GroupRow &row, PKOVA_GROUP *pp, bool reuse) {
    KOVA_GROUP fresh{};
    if (!Dup(row.name, &fresh.szName) || !Dup(row.desc, &fresh.szDesc)) return OutOfMemory(fresh);
    fresh.gid = row.gid;
    return Deliver(fresh, pp, reuse);
}

} // namespace kova_accounts

// Releases never fail, so they have no fault point (an injected failure
// would only leak).
extern "C" void KOVAUserFree(PKOVA_USER pUser) {
    if (!pUser) return;
    kova_accounts::Clear(pUser);
    std::free(pUser);
}

extern "C" void KOVAGroupFree(PKOVA_GROUP pGroup) {
    if (!pGroup) return;
    kova_accounts::Clear(pGroup);
    std::free(pGroup);
}
