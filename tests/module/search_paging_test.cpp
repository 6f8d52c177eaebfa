// The paging arithmetic and the JSON form of the owner search. These are
// pure functions, so their source is compiled into this program directly
// (the module library exports nothing but its method table).
#include "../../module/usergroup-enumerator/search-records.cpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using internal::AdjustPagingWindow;
using internal::InPaging;
using internal::MergeSubresult;
using internal::SearchOption;
using internal::SearchResult;
using internal::Serialize;
using internal::UserGroup;

SearchOption Window(uint64_t offset, uint64_t limit) {
    SearchOption option;
    option.offset = offset;
    option.limit = limit;
    return option;
}

UserGroup Entry(const std::string &name, const std::string &type = "user") {
    UserGroup entry;
    entry.name = name;
    entry.type = type;
    return entry;
}

// What a source does with n matches under a window: the running numbers on
// the page are kept, every match is counted.
SearchResult RunSource(const std::string &prefix, int matches, const SearchOption &option) {
    SearchResult result;
    for (int i = 0; i < matches; ++i) {
        if (InPaging(option, result.total)) result.items.push_back(Entry(prefix + std::to_string(i)));
        ++result.total;
    }
    return result;
}

std::vector<std::string> Names(const SearchResult &result) {
    std::vector<std::string> names;
    for (const UserGroup &entry : result.items) names.push_back(entry.name);
    return names;
}

TEST(SearchPaging, DefaultWindowTakesEverything) {
    SearchOption option;
    EXPECT_TRUE(InPaging(option, 0));
    EXPECT_TRUE(InPaging(option, ~0ul - 1));  // no overflow at the far end
}

TEST(SearchPaging, PageBoundsAreHalfOpen) {
    SearchOption option = Window(3, 2);
    EXPECT_FALSE(InPaging(option, 2));
    EXPECT_TRUE(InPaging(option, 3));
    EXPECT_TRUE(InPaging(option, 4));
    EXPECT_FALSE(InPaging(option, 5));
    // A limit near the top must not wrap offset + limit around.
    SearchOption wide = Window(10, UINT64_MAX - 5);
    EXPECT_FALSE(InPaging(wide, 9));
    EXPECT_TRUE(InPaging(wide, ~0ul - 1));
}

TEST(SearchPaging, ZeroLimitCountsButKeepsNothing) {
    SearchResult result = RunSource("u", 7, Window(0, 0));
    EXPECT_EQ(7u, result.total);
    EXPECT_TRUE(result.items.empty());
}

TEST(SearchPaging, WindowShiftsAcrossSources) {
    // 5 matches, offset 3, limit 10: keeps 3 and 4, then offset 0, limit 8.
    SearchOption option = Window(3, 10);
    SearchResult first = RunSource("a", 5, option);
    EXPECT_EQ((std::vector<std::string>{"a3", "a4"}), Names(first));
    AdjustPagingWindow(first, option);
    EXPECT_EQ(0u, option.offset);
    EXPECT_EQ(8u, option.limit);

    // 5 matches, offset 7: nothing kept, next source starts at 2.
    SearchOption skip = Window(7, 10);
    SearchResult none = RunSource("b", 5, skip);
    EXPECT_TRUE(none.items.empty());
    AdjustPagingWindow(none, skip);
    EXPECT_EQ(2u, skip.offset);
    EXPECT_EQ(10u, skip.limit);

    // Unlimited stays practically unlimited, and saturation holds at zero.
    SearchOption open;
    SearchResult all = RunSource("c", 4, open);
    AdjustPagingWindow(all, open);
    EXPECT_EQ(UINT64_MAX - 4, open.limit);
    SearchOption tight = Window(0, 1);
    SearchResult big;
    big.total = 3;
    big.items = {Entry("x"), Entry("y"), Entry("z")};
    AdjustPagingWindow(big, tight);
    EXPECT_EQ(0u, tight.limit);
    EXPECT_EQ(0u, tight.offset);
}

TEST(SearchPaging, MergeSplicesInSourceOrder) {
    // Offset 3, limit 2 over sources of 4 and 10 matches.
    SearchOption option = Window(3, 2);
    SearchResult running;
    for (auto source : {std::make_pair(std::string("a"), 4), std::make_pair(std::string("b"), 10)}) {
        SearchResult sub = RunSource(source.first, source.second, option);
        AdjustPagingWindow(sub, option);
        MergeSubresult(running, sub);
        EXPECT_TRUE(sub.items.empty());
    }
    EXPECT_EQ(14u, running.total);
    EXPECT_EQ((std::vector<std::string>{"a3", "b0"}), Names(running));
}

TEST(SearchPaging, MergeMovesTheNodesThemselves) {
    SearchResult into;
    into.items.push_back(Entry("first"));
    SearchResult from;
    from.total = 9;
    from.items.push_back(Entry("moved"));
    const UserGroup *node = &from.items.front();
    MergeSubresult(into, from);
    EXPECT_EQ(9u, into.total);
    ASSERT_EQ(2u, into.items.size());
    EXPECT_EQ(node, &into.items.back());  // spliced, not copied
    EXPECT_EQ(0u, from.items.size());

    SearchResult empty;
    empty.total = 4;
    MergeSubresult(into, empty);
    EXPECT_EQ(13u, into.total);
    EXPECT_EQ(2u, into.items.size());
}

TEST(SearchSerialize, WritesEveryStringAndInternalOnlyWhenSet) {
    UserGroup entry = Entry("alice");
    entry.email = "alice@example.org";
    Json::Value out;
    ASSERT_TRUE(Serialize(entry, out));
    EXPECT_EQ("user", out["type"].asString());
    EXPECT_EQ("alice", out["name"].asString());
    EXPECT_EQ("alice@example.org", out["email"].asString());
    for (const char *key : {"description", "fullname"}) {
        ASSERT_TRUE(out.isMember(key)) << key;
        EXPECT_TRUE(out[key].isString());
        EXPECT_EQ("", out[key].asString());
    }
    EXPECT_FALSE(out.isMember("internal"));
    EXPECT_EQ(5u, out.size());

    entry.internal = true;
    Json::Value internalOut;
    ASSERT_TRUE(Serialize(entry, internalOut));
    ASSERT_TRUE(internalOut["internal"].isBool());
    EXPECT_TRUE(internalOut["internal"].asBool());
}

TEST(SearchSerialize, EmptyNameOrTypeIsLeftOut) {
    Json::Value out;
    EXPECT_FALSE(Serialize(Entry("", "user"), out));
    EXPECT_FALSE(Serialize(Entry("bob", ""), out));
    EXPECT_TRUE(out.isNull());
}

} // namespace
