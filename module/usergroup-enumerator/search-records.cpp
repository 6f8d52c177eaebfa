#include "search-records.h"

#include <algorithm>

namespace internal {

bool InPaging(SearchOption const &option, unsigned long index) {
    if (option.offset > index) return false;
    return index - option.offset < option.limit;
}

void AdjustPagingWindow(SearchResult const &result, SearchOption &option) {
    option.offset -= std::min<uint64_t>(result.total, option.offset);
    option.limit -= std::min<uint64_t>(result.items.size(), option.limit);
}

void MergeSubresult(SearchResult &into, SearchResult &from) {
    into.total += from.total;
    if (from.items.empty()) return;
    into.items.splice(into.items.end(), from.items);
}

bool Serialize(UserGroup const &entry, Json::Value &out) {
    if (entry.name.empty()) return false;
    if (entry.type.empty()) return false;
    out["type"] = entry.type;
    out["name"] = entry.name;
    out["description"] = entry.description;
    out["email"] = entry.email;
    out["fullname"] = entry.fullname;
    if (entry.internal) out["internal"] = true;
    return true;
}

} // namespace internal
