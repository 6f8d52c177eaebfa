// Share records in the share database.
#include "share-fixture.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "temp-root.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

using namespace kova_share_test;

TEST(ShareRecord, StoreReadReplaceEnumerateDelete) {
    kova_test::TempRoot root;
    PKOVA_SHARE got = nullptr;
    EXPECT_LT(KOVAShareGet("data", &got), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOSHARE);

    KOVA_SHARE s = Make("data", "/srv/data");
    std::snprintf(s.szComment, sizeof s.szComment, "team files");
    s.supportAcl = 1;
    s.isEncrypted = 1;
    s.aclStatus = 1;
    s.defaultPriv = KOVA_SHARE_PRIV_RO;
    ASSERT_EQ(KOVAShareSet(&s), 0);
    ASSERT_EQ(Add("archive", "/srv/archive"), 0);

    ASSERT_EQ(KOVAShareGet("data", &got), 0);
    EXPECT_STREQ(got->szPath, "/srv/data");
    EXPECT_STREQ(got->szComment, "team files");
    EXPECT_EQ(KOVAShareIsSupportAcl(got), 1);
    int v = -1;
    EXPECT_EQ(KLIBShareIsEncryptedGet(got, &v), 0);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(KLIBShareIsReadOnlyGet(got, &v), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(KLIBShareACLStatusGet(got, &v), 0);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(got->defaultPriv, KOVA_SHARE_PRIV_RO);

    // Replacing by name keeps one record.
    got->isReadOnly = 1;
    got->supportAcl = 0;
    ASSERT_EQ(KOVAShareSet(got), 0);
    KOVAShareFree(got);
    got = nullptr;
    ASSERT_EQ(KOVAShareGet("data", &got), 0);
    EXPECT_EQ(KOVAShareIsSupportAcl(got), 0);
    EXPECT_EQ(KLIBShareIsReadOnlyGet(got, &v), 0);
    EXPECT_EQ(v, 1);
    KOVAShareFree(got);

    PKLIBC_SZLIST list = KLIBCSzListAlloc(64);
    ASSERT_EQ(KOVAShareEnum(&list), 2);
    ASSERT_EQ(list->nItem, 2);
    EXPECT_STREQ(KLIBCSzListGet(list, 0), "archive");
    EXPECT_STREQ(KLIBCSzListGet(list, 1), "data");
    KLIBCSzListFree(list);

    ASSERT_EQ(KOVAShareDelete("archive"), 0);
    EXPECT_LT(KOVAShareDelete("archive"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOSHARE);
    list = KLIBCSzListAlloc(64);
    EXPECT_EQ(KOVAShareEnum(&list), 1);
    KLIBCSzListFree(list);
    KOVAShareFree(nullptr);
}

TEST(ShareRecord, BadRecordsAreRefusedAndChangeNothing) {
    kova_test::TempRoot root;
    PKLIBC_SZLIST list = KLIBCSzListAlloc(64);
    EXPECT_EQ(KOVAShareEnum(&list), 0);  // no database yet: no shares
    KLIBCSzListFree(list);
    for (const char *name : {"", "a/b", ".", "..", "tab\there"}) {
        EXPECT_LT(Add(name, "/srv/x"), 0) << name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    }
    EXPECT_LT(Add("rel", "srv/x"), 0);
    KOVA_SHARE priv = Make("p", "/srv/p");
    priv.defaultPriv = 7;
    EXPECT_LT(KOVAShareSet(&priv), 0);
    list = KLIBCSzListAlloc(64);
    EXPECT_EQ(KOVAShareEnum(&list), 0);
    KLIBCSzListFree(list);
    // Shares can be deleted only by name; privileges of a missing share are refused.
    EXPECT_LT(KOVASharePrivSet("nope", 1, "alice", KOVA_SHARE_PRIV_RW), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOSHARE);
}

TEST(ShareRecord, RemoteAndImageTypes) {
    EXPECT_EQ(KOVAFSIsRemoteFS(FSTYPE_NFS), 1);
    EXPECT_EQ(KOVAFSIsRemoteFS(FSTYPE_CIFS), 1);
    EXPECT_EQ(KOVAFSIsRemoteFS(FSTYPE_EXT4), 0);
    EXPECT_EQ(KOVAFSIsRemoteFS(FSTYPE_FUSE), 0);
    for (int t : {FSTYPE_ISO9660, FSTYPE_UDF, FSTYPE_SQUASHFS}) EXPECT_EQ(KOVAFSIsImageFS(t), 1) << t;
    for (int t : {FSTYPE_EXT4, FSTYPE_NFS, FSTYPE_TMPFS}) EXPECT_EQ(KOVAFSIsImageFS(t), 0) << t;
}

} // namespace
