// The share lookup of KOVAShareNamePathGet for callers that already hold a
// real path (the ACL library canonicalises every path it is given): the
// table is consulted without resolving the path a second time. A thin C++
// face of KOVAShareOfRealPath (kova/share.h), so the libraries that use it
// depend on the share library through its C interface only.
#ifndef KOVA_SHARE_LOOKUP_H
#define KOVA_SHARE_LOOKUP_H

#include <climits>
#include <string>

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"

namespace kova_share {

// The share whose real root is the longest prefix of `real` on a component
// boundary. 0 with name and root set; -1 with the last error set:
// KOVA_ERR_NOSHARE when no share holds it, KOVA_ERR_BADARG for a path
// holding a NUL byte, or a share-table failure.
inline int ShareOfRealPath(const std::string &real, std::string &name, std::string &root) {
    if (real.find('\0') != std::string::npos) {
        KLIBCErrSet(KOVA_ERR_BADARG);
        return -1;
    }
    char nameBuf[KOVA_SHARE_NAME_MAX];
    char rootBuf[PATH_MAX];
    if (KOVAShareOfRealPath(real.c_str(), nameBuf, sizeof nameBuf, rootBuf, sizeof rootBuf) < 0) return -1;
    name = nameBuf;
    root = rootBuf;
    return 0;
}

} // namespace kova_share

#endif
