#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "temp-root.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

using kova_test::TempRoot;

TEST(LastError, IsPerThreadAndKeepsPlace) {
    KLIBCErrSetEx(KOVA_ERR_PERM, "here", 12);
    std::thread([] {
        EXPECT_EQ(KLIBCErrGet(), 0);
        KLIBCErrSetEx(KOVA_ERR_NOENT, "there", 3);
    }).join();
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM);
    EXPECT_STREQ(KLIBCErrorGetFile(), "here");
    EXPECT_EQ(KLIBCErrorGetLine(), 12);
}

TEST(StringList, GrowsKeepsEmptySlotsAndBounds) {
    PKLIBC_SZLIST list = KLIBCSzListAlloc(16);
    ASSERT_NE(list, nullptr);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(KLIBCSzListPush(&list, std::to_string(i).c_str()), i + 1);
    ASSERT_EQ(KLIBCSzListPush(&list, nullptr), 101);
    EXPECT_EQ(list->nItem, 101);
    EXPECT_STREQ(KLIBCSzListGet(list, 42), "42");
    EXPECT_EQ(KLIBCSzListGet(list, 100), nullptr);
    EXPECT_EQ(KLIBCSzListGet(list, 101), nullptr);
    EXPECT_EQ(KLIBCSzListGet(list, -1), nullptr);
    KLIBCSzListFree(list);
}

TEST(Unicode, UpperCasesBeyondAsciiAndCutsAtCharacterBoundary) {
    char out[64];
    ASSERT_GE(KLIBCUnicodeUTF8StrUpper("straße ǆ émile", out, sizeof(out)), 0);
    EXPECT_STREQ(out, "STRASSE Ǆ ÉMILE");
    // "éé" upper-cased needs 4 bytes; with room for 3 the second é is dropped whole.
    ASSERT_GE(KLIBCUnicodeUTF8StrUpper("éé", out, 4), 0);
    EXPECT_STREQ(out, "É");
    EXPECT_LT(KLIBCUnicodeUTF8StrUpper(nullptr, out, sizeof(out)), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
}

TEST(Config, KeysResolveInsideRootAndSetIsAtomicReplace) {
    TempRoot root;
    ASSERT_TRUE(kova_test::WriteFile(root.At("etc/kovainfo.conf"), "# comment\nfilebrowserxferlog = \"yes\"\nother=1\n"));
    EXPECT_NE(KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "yes", 0), 0);
    EXPECT_EQ(KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "no", 0), 0);
    EXPECT_EQ(KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "missing", "yes", 0), 0);
    ASSERT_EQ(KLIBCFileSetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "no"), 0);
    char v[16];
    ASSERT_EQ(KLIBCFileGetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", v, sizeof(v)), 0);
    EXPECT_STREQ(v, "no");
    ASSERT_EQ(KLIBCFileGetKeyValue("/etc/kovainfo.conf", "other", v, sizeof(v)), 0);
    EXPECT_STREQ(v, "1");
    EXPECT_LT(KLIBCFileSetKeyValue("/etc/kovainfo.conf", "bad\nkey", "x"), 0);
}

TEST(Fault, FiresOnNthCallOnlyAndWildcardCountsEveryCall) {
    KLIBCFaultClearAll();
    ASSERT_EQ(KLIBCFaultSet("KLIBCFileExist", 2, 7, KOVA_ERR_IO), 0);
    EXPECT_EQ(KLIBCFileExist("/"), 1);
    EXPECT_EQ(KLIBCFileExist("/"), 7);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    EXPECT_EQ(KLIBCFileExist("/"), 1);  // disarmed after firing

    ASSERT_EQ(KLIBCFaultSet("*", 0, 0, 0), 0);
    EXPECT_EQ(KLIBCSzListAlloc(8), nullptr);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_FAULT);
    KLIBCFaultClearAll();
    PKLIBC_SZLIST l = KLIBCSzListAlloc(8);
    EXPECT_NE(l, nullptr);
    KLIBCSzListFree(l);
    EXPECT_EQ(KLIBCFaultCallCount(), 1);
}
