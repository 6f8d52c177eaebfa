// The exported enumerations: pick the source, fill a page, then hand each
// entry of the window to the callback until it asks to stop. The result is
// the number of all matches, whatever the window and the callback did.
#include "enum-common.h"

#include "kova-internal/call-guard.h"
#include "kova/account.h"
#include "kova/klibc.h"

#include <vector>

using namespace kova_accounts;
using kova_internal::Guarded;

namespace kova_accounts {

bool MakeQuery(unsigned offset, unsigned limit, const char *pattern, Query::Mode mode, bool ignoreCase, Query &q) {
    q.offset = offset;
    q.limit = limit;
    q.mode = (pattern && *pattern) ? mode : Query::kAll;
    q.ignoreCase = ignoreCase;
    q.pattern.clear();
    if (q.mode == Query::kAll) return true;
    if (!ignoreCase) {
        q.pattern = pattern;
        return true;
    }
    size_t len = std::char_traits<char>::length(pattern);
    std::vector<char> buf(len * 3 + 4);
    if (KLIBCUnicodeUTF8StrUpper(pattern, buf.data(), buf.size()) < 0) return false;
    q.pattern = buf.data();
    return true;
}

} // namespace kova_accounts

namespace {

const char *C(const std::optional<std::string> &s) { return s ? s->c_str() : nullptr; }

int DeliverUsers(const Page &page, KLIB_USER_ENUM_CB cb, void *ctx) {
    for (const Entry &e : page.entries) {
        if (!cb) break;
        KLIB_USER_INFO info{e.name.c_str(), C(e.desc), C(e.email), C(e.fullname), e.uid, e.gid, e.internal ? 1 : 0, e.source};
        if (cb(&info, nullptr, ctx) != 0) break;
    }
    return static_cast<int>(page.total);
}

int DeliverGroups(const Page &page, KLIB_GROUP_ENUM_CB cb, void *ctx) {
    for (const Entry &e : page.entries) {
        if (!cb) break;
        KLIB_GROUP_INFO info{e.name.c_str(), C(e.desc), e.gid, e.source};
        if (cb(&info, nullptr, ctx) != 0) break;
    }
    return static_cast<int>(page.total);
}

bool KnownSource(int source) {
    if (source == KOVA_ACCOUNT_SRC_LOCAL || source == KOVA_ACCOUNT_SRC_LDAP || source == KOVA_ACCOUNT_SRC_DOMAIN) return true;
    KOVA_FAIL(KOVA_ERR_BADARG);
    return false;
}

int EnumUsers(int source, const Query &q, KLIB_USER_ENUM_CB cb, void *ctx) {
    if (!KnownSource(source)) return -1;
    Page page;
    bool ok = source == KOVA_ACCOUNT_SRC_LOCAL ? LocalUsers(q, false, page) : DirectoryAccounts(source, false, q, page);
    return ok ? DeliverUsers(page, cb, ctx) : -1;
}

int EnumGroups(int source, const Query &q, KLIB_GROUP_ENUM_CB cb, void *ctx) {
    if (!KnownSource(source)) return -1;
    Page page;
    bool ok = source == KOVA_ACCOUNT_SRC_LOCAL ? LocalGroups(q, page) : DirectoryAccounts(source, true, q, page);
    return ok ? DeliverGroups(page, cb, ctx) : -1;
}

} // namespace

extern "C" int KLIBUserInfoEnum(int source, int flags, unsigned int offset, unsigned int limit, KLIB_USER_ENUM_CB cb,
                                void *pCtx) {
    KOVA_FAULT_POINT("KLIBUserInfoEnum", int);
    return Guarded(-1, [&]() -> int {
        Query q;
        MakeQuery(offset, limit, nullptr, Query::kAll, false, q);
        return EnumUsers(source, q, cb, pCtx);
    });
}

extern "C" int KLIBUserInfoEnumInternalUsers(unsigned int offset, unsigned int limit, const char *szPattern, int bySubstr,
                                             int ignoreCase, KLIB_USER_ENUM_CB cb, void *pCtx) {
    KOVA_FAULT_POINT("KLIBUserInfoEnumInternalUsers", int);
    return Guarded(-1, [&]() -> int {
        Query q;
        if (!MakeQuery(offset, limit, szPattern, bySubstr ? Query::kSubstr : Query::kPrefix, ignoreCase != 0, q)) return -1;
        Page page;
        if (!LocalUsers(q, true, page)) return -1;
        return DeliverUsers(page, cb, pCtx);
    });
}

extern "C" int KLIBUserInfoEnumBySubstr(int source, int flags, unsigned int offset, unsigned int limit, const char *szSubstr,
                                        int ignoreCase, KLIB_USER_ENUM_CB cb, void *pCtx) {
    KOVA_FAULT_POINT("KLIBUserInfoEnumBySubstr", int);
    return Guarded(-1, [&]() -> int {
        Query q;
        if (!MakeQuery(offset, limit, szSubstr, Query::kSubstr, ignoreCase != 0, q)) return -1;
        return EnumUsers(source, q, cb, pCtx);
    });
}

extern "C" int KLIBGroupInfoEnumBySubstr(int source, int flags, unsigned int offset, unsigned int limit, const char *szSubstr,
                                         int ignoreCase, KLIB_GROUP_ENUM_CB cb, void *pCtx) {
    KOVA_FAULT_POINT("KLIBGroupInfoEnumBySubstr", int);
    return Guarded(-1, [&]() -> int {
        Query q;
        if (!MakeQuery(offset, limit, szSubstr, Query::kSubstr, ignoreCase != 0, q)) return -1;
        return EnumGroups(source, q, cb, pCtx);
    });
}

extern "C" int KLIBGroupInfoEnumByPrefix(int source, int flags, unsigned int offset, unsigned int limit, const char *szPrefix,
                                         int ignoreCase, KLIB_GROUP_ENUM_CB cb, void *pCtx) {
    KOVA_FAULT_POINT("KLIBGroupInfoEnumByPrefix", int);
    return Guarded(-1, [&]() -> int {
        Query q;
        if (!MakeQuery(offset, limit, szPrefix, Query::kPrefix, ignoreCase != 0, q)) return -1;
        return EnumGroups(source, q, cb, pCtx);
    });
}
