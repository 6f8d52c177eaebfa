#include "local-user-enumerator.h"

#include "callback-guard.h"
#include "../module-log.h"

#include "kova/account.h"
#include "kova/klibc.h"

#include <cstring>
#include <vector>

namespace internal {

namespace {

const char kLogFile[] = "usergroup-enumerator/local-user-enumerator";

struct UserContext {
    SearchOption const &search;
    LocalUserEnumerator::Option const &option;
    SearchResult &result;
    CallbackGuard guard;
};

const char *Text(const char *s) { return s ? s : ""; }

bool UserMatches(const KLIB_USER_INFO &info, UserContext const &ctx) {
    if (ctx.search.keyword.empty()) return true;
    std::vector<const char *> candidates;
    if (ctx.option.name) candidates.push_back(info.szName);
    if (ctx.option.description && info.szDesc) candidates.push_back(info.szDesc);
    if (ctx.option.email && info.szEmail) candidates.push_back(info.szEmail);
    for (const char *candidate : candidates) {
        char upper[1024];
        memset(upper, 0, sizeof(upper));
        if (KLIBCUnicodeUTF8StrUpper(candidate, upper, sizeof(upper)) < 0) {
            KOVA_LOG(LOG_ERR, kLogFile, 57, "KLIBCUnicodeUTF8StrUpper(%s) failed[0x%04X %s:%d]",
                     Text(info.szName), KLIBCErrGet(), Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
            continue;
        }
        if (strstr(upper, ctx.search.keywordUpper.c_str())) return true;
    }
    return false;
}

int UserCallback(const KLIB_USER_INFO *info, void *, void *data) {
    UserContext &ctx = *static_cast<UserContext *>(data);
    return ctx.guard.Run([&]() -> int {
        if (!info || !UserMatches(*info, ctx)) return 0;
        // Entries off the page are only counted, never copied.
        if (InPaging(ctx.search, ctx.result.total)) {
            UserGroup entry;
            entry.type = "user";
            entry.name = Text(info->szName);
            entry.description = Text(info->szDesc);
            entry.email = Text(info->szEmail);
            ctx.result.items.push_back(std::move(entry));
        }
        ++ctx.result.total;
        return 0;
    });
}

} // namespace

template <>
bool Deserialize<LocalUserEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &,
                                             LocalUserEnumerator::Option &option) {
    option = LocalUserEnumerator::Option();
    if (keywordFields.empty()) return true;
    ReadBool(keywordFields, "name", option.name);
    ReadBool(keywordFields, "description", option.description);
    ReadBool(keywordFields, "email", option.email);
    return true;
}

SearchResult LocalUserEnumerator::Enumerate(SearchOption const &option) {
    SearchResult result;
    if (!option_.name && !option_.description && !option_.email) return result;
    UserContext ctx{option, option_, result, CallbackGuard()};

    if (option_.users) {
        int rc = KLIBUserInfoEnum(1, 0, 0, 0xFFFFFFFFu, UserCallback, &ctx);
        ctx.guard.RethrowIfFailed();
        if (rc < 0) {
            KOVA_LOG(LOG_ERR, kLogFile, 97, "KLIBUserInfoEnum failed. [0x%04X %s:%d]", KLIBCErrGet(),
                     Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
            return result;
        }
    }
    if (option_.internalUsers) {
        int rc = KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "", 0, 0, UserCallback, &ctx);
        ctx.guard.RethrowIfFailed();
        if (rc < 0) {
            KOVA_LOG(LOG_ERR, kLogFile, 106, "KLIBUserInfoEnumInternalUsers failed. [0x%04X %s:%d]",
                     KLIBCErrGet(), Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
            return result;
        }
        // Marks every item, also users added above; the registry never asks
        // for both kinds in one enumerator.
        for (UserGroup &entry : result.items) entry.internal = true;
    }
    return result;
}

} // namespace internal
