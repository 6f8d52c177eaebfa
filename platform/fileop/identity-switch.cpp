// Identity switching for tasks that must act as the requesting user.
#include "identity-switch.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"

#include <grp.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace kova_fileop {

namespace {

struct SzListDeleter {
    void operator()(KLIBC_SZLIST *p) const { KLIBCSzListFree(p); }
};

// Back to the ids the process had before a failed switch.
void Restore(const kova_internal::Caller &was, gid_t realGid) {
    (void)setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1));
    (void)setgroups(was.groups.size(), was.groups.data());
    (void)setresgid(realGid, was.gid, static_cast<gid_t>(-1));
    (void)setresuid(static_cast<uid_t>(-1), was.uid, static_cast<uid_t>(-1));
}

} // namespace

int LookupIdentity(const std::string &user, uid_t &uid, gid_t &gid, std::vector<gid_t> &groups) {
    PKOVA_USER account = nullptr;
    if (user.empty() || KOVAUserGet(user.c_str(), &account) != 0 || !account) {
        KOVAUserFree(account);
        KOVA_FAIL(KOVA_ERR_NOUSER);
        return KOVA_WFM_ERR_NOUSER;
    }
    uid = account->uid;
    gid = account->gid;
    KOVAUserFree(account);

    std::unique_ptr<KLIBC_SZLIST, SzListDeleter> list(KLIBGroupInfoListGet(user.c_str(), 0));
    if (!list) {
        bool noUser = KLIBCErrGet() == KOVA_ERR_NOUSER;
        KOVA_FAIL(noUser ? KOVA_ERR_NOUSER : KOVA_ERR_IO);
        return noUser ? KOVA_WFM_ERR_NOUSER : KOVA_WFM_ERR_IO;
    }
    groups.clear();
    for (int i = 0; i < list->nItem; ++i) {
        const char *text = KLIBCSzListGet(list.get(), i);
        if (!text || !*text) continue;
        char *end = nullptr;
        unsigned long g = std::strtoul(text, &end, 10);
        if (*end != '\0') continue;
        groups.push_back(static_cast<gid_t>(g));
    }
    return KOVA_WFM_ERR_NONE;
}

int SwitchTo(uid_t uid, gid_t gid, const std::vector<gid_t> &groups) {
    kova_internal::Caller was = kova_internal::Caller::Current();
    gid_t realGid = getgid();
    // Only an effective root may set groups and ids; the saved uid 0 that
    // servers and tasks keep lets us become it first.
    if (was.uid != 0 && setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return KOVA_WFM_ERR_PERM;
    }
    if (setgroups(groups.size(), groups.data()) != 0 || setresgid(0, gid, 0) != 0 || setresuid(0, uid, 0) != 0) {
        Restore(was, realGid);
        KOVA_FAIL(KOVA_ERR_PERM);
        return KOVA_WFM_ERR_PERM;
    }
    return KOVA_WFM_ERR_NONE;
}

bool KeepAttributeCapability() {
    if (geteuid() == 0) return true;
    kova_internal::ThreadCapabilities caps;
    return caps.Read() && caps.KeepOnly(CAP_SYS_ADMIN) && caps.Apply();
}

} // namespace kova_fileop
