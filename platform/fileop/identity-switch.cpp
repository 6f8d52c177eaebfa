// Identity switching for tasks that must act as the requesting user, through
// the platform's identity component.
#include "identity-switch.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>

namespace kova_fileop {

namespace {

struct SzListDeleter {
    void operator()(KLIBC_SZLIST *p) const { KLIBCSzListFree(p); }
};

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
    if (!kova_internal::SwitchToUser(uid, gid, groups)) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return KOVA_WFM_ERR_PERM;
    }
    return KOVA_WFM_ERR_NONE;
}

bool KeepAttributeCapability() {
    if (geteuid() == 0) return true;
    constexpr uint64_t kTask = (uint64_t{1} << CAP_SYS_ADMIN) | (uint64_t{1} << CAP_FOWNER);
    if (kova_internal::KeepOnlyCapabilities(kTask)) return true;
    (void)kova_internal::KeepOnlyCapability(CAP_SYS_ADMIN);
    return false;
}

} // namespace kova_fileop
