#include "acl-share.h"

#include "kova/share.h"

#include <cstdio>
#include <cstring>

namespace kova_bench {

bool AddAclShare(const std::string &name, const std::string &path) {
    KOVA_SHARE share;
    std::memset(&share, 0, sizeof share);
    std::snprintf(share.szName, sizeof share.szName, "%s", name.c_str());
    std::snprintf(share.szPath, sizeof share.szPath, "%s", path.c_str());
    share.supportAcl = 1;
    share.aclStatus = 1;
    share.defaultPriv = KOVA_SHARE_PRIV_RW;
    return KOVAShareSet(&share) >= 0;
}

} // namespace kova_bench
