// User and group records: C structures owned by the caller, released with
// KOVAUserFree / KOVAGroupFree.
#include "records.h"

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <cstdlib>
#include <cstring>

namespace kova_accounts {

const char kUserColumns[] = "name, uid, gid, description, email, home, internal, password, disabled";
const char kGroupColumns[] = "name, gid, description";

std::optional<std::string> OptText(const kova_internal::Statement &st, int col) {
    const char *t = st.TextOrNull(col);
    if (!t) return std::nullopt;
    return std::string(t);
}

UserRow ReadUser(const kova_internal::Statement &st) {
    UserRow r;
    r.name = st.Text(0);
    r.uid = static_cast<unsigned>(st.Int(1));
    r.gid = static_cast<unsigned>(st.Int(2));
    r.desc = OptText(st, 3);
    r.email = OptText(st, 4);
    r.home = OptText(st, 5);
    r.internal = st.Int(6) != 0;
    r.password = OptText(st, 7);
    r.disabled = st.Int(8) != 0;
    return r;
}

GroupRow ReadGroup(const kova_internal::Statement &st) {
    GroupRow r;
    r.name = st.Text(0);
    r.gid = static_cast<unsigned>(st.Int(1));
    r.desc = OptText(st, 2);
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
