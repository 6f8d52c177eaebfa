// String bundles by language, section and key, with defaults for every missing piece.
#include "temp-root.h"

#include "kova/stringbundle.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

class Bundle : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("KOVA_LANG");
        ASSERT_TRUE(kova_test::WriteFile(root_.At("usr/share/strings/enu/module-3.ini"),
                                         "# strings of module 3\n"
                                         "[common]\n"
                                         "privilege_recursive = \"common text\"\n"
                                         "[property]\n"
                                         "  privilege_recursive =  \"Apply to this folder, sub-folders and files\"\n"
                                         "quoted = \"say \\\"hi\\\"\\tnow\"\n"
                                         "bare = plain words \n"
                                         "; a comment\n"
                                         "broken line without equals\n"
                                         "[other]\n"
                                         "only_other = \"x\"\n"));
        ASSERT_TRUE(kova_test::WriteFile(root_.At("usr/share/strings/ger/module-3.ini"),
                                         "[property]\nprivilege_recursive = \"Auf Unterordner anwenden\"\n"));
    }
    void TearDown() override { unsetenv("KOVA_LANG"); }

    kova_test::TempRoot root_;
};

} // namespace

TEST_F(Bundle, ReadsTheSectionsKeysOrDefaults) {
    StringBundle b(3, "property");
    EXPECT_EQ(b.Text("privilege_recursive", "dflt"), "Apply to this folder, sub-folders and files");
    EXPECT_EQ(b.Text("quoted", ""), "say \"hi\"\tnow");
    EXPECT_EQ(b.Text("bare", ""), "plain words");
    // Keys of other sections do not leak in.
    EXPECT_EQ(b.Text("only_other", "dflt"), "dflt");
    EXPECT_EQ(b.Text("missing", "dflt"), "dflt");
    EXPECT_EQ(StringBundle(3, "common").Text("privilege_recursive", ""), "common text");
    // A missing file, section or key gives the default.
    EXPECT_EQ(StringBundle(4, "property").Text("privilege_recursive", "d1"), "d1");
    EXPECT_EQ(StringBundle(3, "nosuch").Text("privilege_recursive", "d2"), "d2");
    EXPECT_EQ(StringBundle(3, "property").Text("", "d3"), "d3");
}

TEST_F(Bundle, LanguageFromEnvironment) {
    setenv("KOVA_LANG", "ger", 1);
    EXPECT_EQ(StringBundle(3, "property").Text("privilege_recursive", ""), "Auf Unterordner anwenden");
    setenv("KOVA_LANG", "fre", 1);
    EXPECT_EQ(StringBundle(3, "property").Text("privilege_recursive", "d"), "d");
    // A language that is not one path component falls back to "enu".
    setenv("KOVA_LANG", "../enu", 1);
    EXPECT_EQ(StringBundle(3, "property").Text("privilege_recursive", ""),
              "Apply to this folder, sub-folders and files");
}
