// Share test helpers: a record of a name and a root, one with ACLs on, and a path's share as one string.
#ifndef KOVA_TEST_SHARE_FIXTURE_H
#define KOVA_TEST_SHARE_FIXTURE_H

#include "kova/klibc.h"
#include "kova/share.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace kova_share_test {

// A record with every other field zero.
inline KOVA_SHARE Make(const std::string &name, const std::string &path) {
    KOVA_SHARE s;
    std::memset(&s, 0, sizeof s);
    std::snprintf(s.szName, sizeof s.szName, "%s", name.c_str());
    std::snprintf(s.szPath, sizeof s.szPath, "%s", path.c_str());
    return s;
}

inline int Add(const std::string &name, const std::string &path) {
    KOVA_SHARE s = Make(name, path);
    return KOVAShareSet(&s);
}

// A share with ACLs on and the given default privilege; KOVAShareSet's result.
inline int AddAclShare(const std::string &name, const std::string &path, int defaultPriv, bool readOnly = false) {
    KOVA_SHARE s = Make(name, path);
    s.supportAcl = 1;
    s.aclStatus = 1;
    s.defaultPriv = defaultPriv;
    s.isReadOnly = readOnly;
    return KOVAShareSet(&s);
}

// "name|root" of the share holding p, or "err:0xCODE".
inline std::string Lookup(const std::string &p) {
    char name[KOVA_SHARE_NAME_MAX] = "", path[4096] = "";
    if (KOVAShareNamePathGet(p.c_str(), name, sizeof name, path, sizeof path) < 0) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "err:0x%04X", KLIBCErrGet());
        return buf;
    }
    return std::string(name) + "|" + path;
}

} // namespace kova_share_test

#endif
