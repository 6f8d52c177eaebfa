// The built-in principal source: its option reading and its search. It
// uses no host state, so its source is compiled into this program.
#include "../../module/usergroup-enumerator/builtin-enumerator.cpp"
#include "../../module/usergroup-enumerator/search-records.cpp"
#include "../../module/usergroup-enumerator/usergroup-enumerator.cpp"

#include "request-fixture.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace internal;
using kova_module_test::Parse;

BuiltinEnumerator::Option Builtin(const std::string &config) {
    BuiltinEnumerator::Option option;
    option.everyone = false;  // must be reset by Deserialize
    EXPECT_TRUE(Deserialize(Json::Value(Json::objectValue), Parse(config), option));
    return option;
}

// name/type pairs of one built-in run
std::vector<std::string> RunBuiltin(const BuiltinEnumerator::Option &builtin, const std::string &keyword,
                             uint64_t offset = 0, uint64_t limit = UINT64_MAX, uint64_t *total = nullptr) {
    SearchOption option;
    option.keyword = keyword;
    option.offset = offset;
    option.limit = limit;
    SearchResult result = BuiltinEnumerator(builtin).Enumerate(option);
    if (total) *total = result.total;
    std::vector<std::string> out;
    for (const UserGroup &entry : result.items) {
        EXPECT_TRUE(entry.description.empty() && entry.email.empty() && entry.fullname.empty());
        EXPECT_FALSE(entry.internal);
        out.push_back(entry.type + "/" + entry.name);
    }
    return out;
}

const std::vector<std::string> kAllFour = {"owner/Owner", "everyone/Everyone",
                                           "authenticated_user/Authenticated Users", "system/SYSTEM"};

TEST(SearchBuiltin, EveryConfigKeyWritesTheOwnerFlag) {
    EXPECT_EQ(kAllFour, RunBuiltin(Builtin("{}"), ""));
    EXPECT_EQ(kAllFour, RunBuiltin(Builtin("null"), ""));

    BuiltinEnumerator::Option noOwner = Builtin("{\"owner\": false}");
    EXPECT_FALSE(noOwner.owner);
    EXPECT_EQ(std::vector<std::string>(kAllFour.begin() + 1, kAllFour.end()), RunBuiltin(noOwner, ""));

    // "everyone": false switches Owner off and leaves Everyone on.
    BuiltinEnumerator::Option everyoneKey = Builtin("{\"everyone\": false}");
    EXPECT_FALSE(everyoneKey.owner);
    EXPECT_TRUE(everyoneKey.everyone);
    EXPECT_EQ(std::vector<std::string>(kAllFour.begin() + 1, kAllFour.end()), RunBuiltin(everyoneKey, ""));

    // The last boolean key in table order wins.
    EXPECT_EQ(kAllFour, RunBuiltin(Builtin("{\"owner\": false, \"system\": true}"), ""));
    EXPECT_FALSE(Builtin("{\"owner\": true, \"authenticatedUsers\": false}").owner);
    BuiltinEnumerator::Option allOff =
        Builtin("{\"owner\": false, \"everyone\": false, \"authenticatedUsers\": false, \"system\": false}");
    EXPECT_EQ(3u, RunBuiltin(allOff, "").size());

    // Non-booleans are ignored; a non-object config has nothing to read.
    EXPECT_TRUE(Builtin("{\"owner\": \"no\", \"system\": 0}").owner);
    EXPECT_TRUE(Builtin("[1]").owner);
    EXPECT_TRUE(Builtin("7").owner);
}

TEST(SearchBuiltin, KeywordMatchesTheIdLowerCased) {
    BuiltinEnumerator::Option all = Builtin("{}");
    EXPECT_EQ(std::vector<std::string>{"authenticated_user/Authenticated Users"}, RunBuiltin(all, "auth"));
    EXPECT_EQ(std::vector<std::string>{"authenticated_user/Authenticated Users"}, RunBuiltin(all, "user"));
    EXPECT_EQ(std::vector<std::string>{"system/SYSTEM"}, RunBuiltin(all, "SyS"));
    EXPECT_EQ(std::vector<std::string>{"everyone/Everyone"}, RunBuiltin(all, "ONE"));
    uint64_t total = 99;
    EXPECT_TRUE(RunBuiltin(all, "authenticated users", 0, UINT64_MAX, &total).empty());
    EXPECT_EQ(0u, total);
}

TEST(SearchBuiltin, PagesLikeEverySource) {
    uint64_t total = 0;
    EXPECT_EQ((std::vector<std::string>{"everyone/Everyone", "authenticated_user/Authenticated Users"}),
              RunBuiltin(Builtin("{}"), "e", 1, 2, &total));
    EXPECT_EQ(4u, total);
    EXPECT_TRUE(RunBuiltin(Builtin("{}"), "", 0, 0, &total).empty());
    EXPECT_EQ(4u, total);
    // A switched-off principal is not counted.
    RunBuiltin(Builtin("{\"owner\": false}"), "", 0, UINT64_MAX, &total);
    EXPECT_EQ(3u, total);
}

} // namespace
