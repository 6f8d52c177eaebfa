// The records one owner search is made of, and the rules that turn the
// results of several sources into one page.
//
// A source counts every entry that matches (total) but keeps only those
// whose running number lies on the page (InPaging). After each source the
// caller shifts the window by what that source consumed
// (AdjustPagingWindow) and appends its slice (MergeSubresult), so offset and
// limit run across all sources as if they were one list.
#ifndef KOVA_MODULE_SEARCH_RECORDS_H
#define KOVA_MODULE_SEARCH_RECORDS_H

#include <json/json.h>

#include <cstdint>
#include <list>
#include <string>

namespace internal {

struct SearchOption {
    uint64_t offset = 0;
    uint64_t limit = UINT64_MAX;   // all bits set: no limit
    std::string keyword;           // as sent; empty matches everything
    std::string keywordUpper;      // keyword upper-cased once per request
};

struct UserGroup {
    std::string name;
    std::string type;
    std::string description;
    std::string email;
    std::string fullname;
    bool internal = false;
};

struct SearchResult {
    uint64_t total = 0;            // matches of the source, on the page or not
    std::list<UserGroup> items;    // only the matches on the page, in source order
};

// True when the match with running number index lies in
// [offset, offset + limit), computed without the sum so it cannot overflow.
bool InPaging(SearchOption const &option, unsigned long index);

// Consumes from the window what one source used: its total from the offset,
// its items from the limit; both saturate at zero.
void AdjustPagingWindow(SearchResult const &result, SearchOption &option);

// Adds from's total to into's and splices from's items to the end of
// into's without copying; from is left with no items.
void MergeSubresult(SearchResult &into, SearchResult &from);

// Writes one entry as a JSON object. False (nothing written) when the name
// or the type is empty. "internal" appears only for internal accounts.
bool Serialize(UserGroup const &entry, Json::Value &out);

} // namespace internal

#endif
