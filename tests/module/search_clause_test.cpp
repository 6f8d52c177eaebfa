// Upper-casing of the directory sources' keywords, where Unicode makes text
// grow (clause text and escaping are checked end to end by owners_test).
#include "../../module/usergroup-enumerator/like-clause.cpp"

#include "kova/fault.h"
#include "kova/errcode.h"

#include <gtest/gtest.h>

namespace {

using internal::EscapeLikeExpression;
using internal::IsUpperColumn;
using internal::ToUnicodeUpper;

TEST(SearchClause, UpperColumnsAreRecognisedInAnyCase) {
    for (const char *column : {"name_upper", "NameUpper", "UPPER"}) EXPECT_TRUE(IsUpperColumn(column)) << column;
    for (const char *column : {"name", "uppe", "Description"}) EXPECT_FALSE(IsUpperColumn(column)) << column;
}

TEST(SearchClause, UpperCasing) {
    std::string out = "unchanged";
    ASSERT_TRUE(ToUnicodeUpper("", out));
    EXPECT_EQ("", out);
    ASSERT_TRUE(ToUnicodeUpper("abc\\%d", out));
    EXPECT_EQ("ABC\\%D", out);
    ASSERT_TRUE(ToUnicodeUpper("\xc3\xa9t\xc3\xa9", out));  // é -> É, same length
    EXPECT_EQ("\xc3\x89T\xc3\x89", out);
    // Upper-casing may lengthen the text; nothing is cut. U+0250 becomes a
    // three-byte character, U+0149 two characters, U+0390 three.
    ASSERT_TRUE(ToUnicodeUpper("a\xc9\x90", out));
    EXPECT_EQ("A\xe2\xb1\xaf", out);
    ASSERT_TRUE(ToUnicodeUpper("\xce\x90", out));
    EXPECT_EQ("\xce\x99\xcc\x88\xcc\x81", out);
    // An escaped keyword keeps its escapes whole: "\u0149_" escaped is
    // "\u0149\\_", which must not come back ending in a lone backslash.
    ASSERT_TRUE(ToUnicodeUpper(EscapeLikeExpression("\xc5\x89_"), out));
    EXPECT_EQ("\xca\xbcN\\_", out);
    // Long text that grows by half again, longer than any fixed buffer.
    std::string many;
    for (int i = 0; i < 3000; ++i) many += "\xc5\x89";
    ASSERT_TRUE(ToUnicodeUpper(many, out));
    EXPECT_EQ(9000u, out.size());
    EXPECT_EQ("\xca\xbcN", out.substr(out.size() - 3));
}

TEST(SearchClause, UpperCasingFailureLeavesOutputUntouched) {
    std::string out = "kept";
    ASSERT_EQ(0, KLIBCFaultSet("KLIBCUnicodeUTF8StrUpper", 1, -1, KOVA_ERR_NOMEM));
    EXPECT_FALSE(ToUnicodeUpper("abc", out));
    EXPECT_EQ("kept", out);
    KLIBCFaultClearAll();
    // An empty text never reaches the host, so a fault cannot fail it.
    ASSERT_EQ(0, KLIBCFaultSet("KLIBCUnicodeUTF8StrUpper", 0, -1, KOVA_ERR_NOMEM));
    EXPECT_TRUE(ToUnicodeUpper("", out));
    EXPECT_EQ("", out);
    KLIBCFaultClearAll();
}

} // namespace
