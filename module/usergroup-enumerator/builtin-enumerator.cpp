#include "builtin-enumerator.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace internal {

namespace {

struct BuiltinPrincipal {
    const char *id;
    const char *displayName;
};

const BuiltinPrincipal kBuiltinTable[] = {
    {"owner", "Owner"},
    {"everyone", "Everyone"},
    {"authenticated_user", "Authenticated Users"},
    {"system", "SYSTEM"},
};

const size_t kBuiltinCount = sizeof(kBuiltinTable) / sizeof(kBuiltinTable[0]);

} // namespace

template <>
bool Deserialize<BuiltinEnumerator::Option>(Json::Value const &, Json::Value const &config,
                                            BuiltinEnumerator::Option &option) {
    option = BuiltinEnumerator::Option();
    if (config.empty()) return true;
    // Every key lands in the owner flag; the other principals cannot be
    // switched off. Clients depend on this, so it stays.
    ReadBool(config, "owner", option.owner);
    ReadBool(config, "everyone", option.owner);
    ReadBool(config, "authenticatedUsers", option.owner);
    ReadBool(config, "system", option.owner);
    return true;
}

SearchResult BuiltinEnumerator::Enumerate(SearchOption const &option) {
    SearchResult result;
    const std::vector<bool> flags = {option_.owner, option_.everyone, option_.authenticatedUsers,
                                     option_.system};
    const size_t rows = std::min(flags.size(), kBuiltinCount);

    std::string keyword = option.keyword;
    for (char &c : keyword) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));

    for (size_t i = 0; i < rows; ++i) {
        if (!flags[i]) continue;
        const std::string id = kBuiltinTable[i].id;
        if (!keyword.empty() && id.find(keyword) == std::string::npos) continue;
        if (InPaging(option, result.total)) {
            UserGroup entry;
            entry.name = kBuiltinTable[i].displayName;
            entry.type = id;
            result.items.push_back(std::move(entry));
        }
        ++result.total;
    }
    return result;
}

} // namespace internal
