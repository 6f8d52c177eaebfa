#include "local-group-enumerator.h"

#include "callback-guard.h"
#include "../module-log.h"

#include "kova/account.h"
#include "kova/klibc.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace internal {

namespace {

const char kLogFile[] = "usergroup-enumerator/local-group-enumerator";

struct GroupContext {
    SearchOption const &search;
    LocalGroupEnumerator::Option const &option;
    SearchResult &result;
    CallbackGuard guard;
};

const char *Text(const char *s) { return s ? s : ""; }

typedef std::unique_ptr<char, void (*)(void *)> HostText;

bool GroupMatches(const KLIB_GROUP_INFO &info, const char *description, GroupContext const &ctx) {
    if (ctx.search.keyword.empty()) return true;
    std::vector<const char *> candidates;
    if (ctx.option.name) candidates.push_back(info.szName);
    if (ctx.option.description && description) candidates.push_back(description);
    for (const char *candidate : candidates) {
        char upper[1024];
        memset(upper, 0, sizeof(upper));
        if (KLIBCUnicodeUTF8StrUpper(candidate, upper, sizeof(upper)) < 0) {
            KOVA_LOG(LOG_ERR, kLogFile, 66, "KLIBCUnicodeUTF8StrUpper(%s) failed[0x%04X %s:%d]",
                     Text(info.szName), KLIBCErrGet(), Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
            continue;
        }
        if (strstr(upper, ctx.search.keywordUpper.c_str())) return true;
    }
    return false;
}

int GroupCallback(const KLIB_GROUP_INFO *info, void *, void *data) {
    GroupContext &ctx = *static_cast<GroupContext *>(data);
    if (!info) return 0;
    // The description is the host's allocation; the holder frees it on
    // every path out of the callback.
    char *rawDesc = nullptr;
    char *rawSecond = nullptr;
    if (KOVAGroupDescGet(info->szName, &rawDesc, &rawSecond) < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 42, "KOVAGroupDescGet failed");
        rawDesc = nullptr;
        rawSecond = nullptr;
    }
    HostText description(rawDesc, free);
    HostText second(rawSecond, free);
    return ctx.guard.Run([&]() -> int {
        if (!GroupMatches(*info, description.get(), ctx)) return 0;
        if (InPaging(ctx.search, ctx.result.total)) {
            UserGroup entry;
            entry.type = "group";
            entry.name = Text(info->szName);
            entry.description = Text(description.get());
            ctx.result.items.push_back(std::move(entry));
        }
        ++ctx.result.total;
        return 0;
    });
}

} // namespace

template <>
bool Deserialize<LocalGroupEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &,
                                              LocalGroupEnumerator::Option &option) {
    option = LocalGroupEnumerator::Option();
    if (keywordFields.empty()) return true;
    ReadBool(keywordFields, "name", option.name);
    ReadBool(keywordFields, "description", option.description);
    return true;
}

SearchResult LocalGroupEnumerator::Enumerate(SearchOption const &option) {
    SearchResult result;
    if (!option_.name && !option_.description) return result;
    GroupContext ctx{option, option_, result, CallbackGuard()};
    int rc = KLIBGroupInfoEnumByPrefix(1, 0, 0, 0xFFFFFFFFu, "", 0, GroupCallback, &ctx);
    ctx.guard.RethrowIfFailed();
    if (rc < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 100, "KLIBGroupInfoEnumByPrefix failed. [0x%04X %s:%d]", KLIBCErrGet(),
                 Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
    }
    return result;
}

} // namespace internal
