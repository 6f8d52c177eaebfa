// ACL objects and text forms: what the module's conversions rely on.
#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Perm(unsigned int v) {
    char buf[32];
    return KOVAACLAcePrintPermission(v, buf, sizeof buf) < 0 ? "<fail>" : buf;
}
std::string Inh(unsigned int v) {
    char buf[8];
    return KOVAACLAcePrintInherit(v, buf, sizeof buf) < 0 ? "<fail>" : buf;
}

TEST(AclText, PermissionLettersMapToTheirBitsInPrintOrder) {
    const char *letters = "rwxpdDaARWcCo";
    const unsigned int bits[] = {0x1, 0x2, 0x4, 0x8, 0x10, 0x40, 0x20, 0x80, 0x100, 0x200, 0x800, 0x1000, 0x400};
    for (int i = 0; i < 13; ++i) {
        KOVA_ACL_ENTRY e{};
        char one[2] = {letters[i], 0};
        ASSERT_EQ(KOVAACLAceParsePermission(one, &e), 0) << one;
        EXPECT_EQ(e.permission, bits[i]) << one;
        std::string expect(13, '-');
        expect[i] = letters[i];
        EXPECT_EQ(Perm(bits[i]), expect);
    }
    EXPECT_EQ(Perm(0x1FFF), "rwxpdDaARWcCo");
    EXPECT_EQ(Perm(0), "-------------");
    KOVA_ACL_ENTRY e{};
    ASSERT_EQ(KOVAACLAceParsePermission("rwxpdDaARWcCo", &e), 0);
    EXPECT_EQ(e.permission, 0x1FFFu);
    ASSERT_EQ(KOVAACLAceParsePermission("C", &e), 0);
    EXPECT_EQ(e.permission, static_cast<unsigned int>(KOVA_ACL_PERM_WRITE_ACL));
    ASSERT_EQ(KOVAACLAceParsePermission("-w---------c-", &e), 0);
    EXPECT_EQ(e.permission, 0x802u);
}

TEST(AclText, InheritLettersAndRoundTrip) {
    EXPECT_EQ(Inh(KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_DIR), "fd--");
    EXPECT_EQ(Inh(KOVA_ACL_INHERIT_ONLY | KOVA_ACL_INHERIT_NO_PROPAGATE), "--in");
    EXPECT_EQ(Inh(0), "----");
    for (unsigned int v = 0; v <= 0xF; ++v) {
        KOVA_ACL_ENTRY e{};
        ASSERT_EQ(KOVAACLAceParseInherit(Inh(v).c_str(), &e), 0);
        EXPECT_EQ(e.inherit, v);
    }
}

TEST(AclText, RejectsUnknownTextsAndValues) {
    KOVA_ACL_ENTRY e{};
    e.permission = 7;
    EXPECT_LT(KOVAACLAceParsePermission("rwz", &e), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    EXPECT_EQ(e.permission, 7u);  // untouched on failure
    EXPECT_LT(KOVAACLAceParseInherit("fdx-", &e), 0);
    EXPECT_LT(KOVAACLAceParseIDType("User", &e), 0);
    EXPECT_LT(KOVAACLAceParseAccessType("permit", &e), 0);
    char buf[32];
    EXPECT_LT(KOVAACLAcePrintPermission(0x2000, buf, sizeof buf), 0);
    EXPECT_LT(KOVAACLAcePrintInherit(0x10, buf, sizeof buf), 0);
    EXPECT_LT(KOVAACLAcePrintIDType(3, buf, sizeof buf), 0);
    EXPECT_LT(KOVAACLAcePrintAccessType(2, buf, sizeof buf), 0);
    // Too small for 13 letters and the terminator.
    EXPECT_LT(KOVAACLAcePrintPermission(1, buf, 13), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_RANGE);
    EXPECT_EQ(KOVAACLAcePrintPermission(1, buf, 14), 13);
}

TEST(AclText, IdAndAccessTypeNames) {
    const struct {
        const char *text;
        int value;
    } ids[] = {{"user", 1}, {"owner", 2}, {"group", 4}, {"everyone", 8}, {"authenticated_user", 9}, {"system", 10}};
    for (const auto &id : ids) {
        KOVA_ACL_ENTRY e{};
        ASSERT_EQ(KOVAACLAceParseIDType(id.text, &e), 0);
        EXPECT_EQ(e.idType, id.value);
        char buf[64];
        ASSERT_GT(KOVAACLAcePrintIDType(id.value, buf, sizeof buf), 0);
        EXPECT_STREQ(buf, id.text);
    }
    KOVA_ACL_ENTRY e{};
    ASSERT_EQ(KOVAACLAceParseAccessType("deny", &e), 0);
    EXPECT_EQ(e.accessType, 0);
    ASSERT_EQ(KOVAACLAceParseAccessType("allow", &e), 0);
    EXPECT_EQ(e.accessType, 1);
}

TEST(AclText, WholeEntryRoundTrip) {
    KOVA_ACL_ENTRY e{};
    ASSERT_EQ(KOVAACLAceParse("group:2000:deny:rw-----------:f-i-:3", &e), 0);
    EXPECT_EQ(e.idType, KOVA_ACL_ID_GROUP);
    EXPECT_EQ(e.id, 2000);
    EXPECT_EQ(e.accessType, KOVA_ACL_DENY);
    EXPECT_EQ(e.permission, 3u);
    EXPECT_EQ(e.inherit, KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_ONLY);
    EXPECT_EQ(e.level, 3u);
    char buf[128];
    ASSERT_GT(KOVAACLAcePrint(&e, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "group:2000:deny:rw-----------:f-i-:3");
    for (const char *bad : {"group:2000:deny:rw", "group:x:deny:r:----", "group:2000:deny:r:----:-1",
                            "group:2000:deny:r:----:1:2", ""})
        EXPECT_LT(KOVAACLAceParse(bad, &e), 0) << bad;
}

TEST(AclObject, ValidityOfFieldsAndLevelOrder) {
    KOVA_ACL_ENTRY e{};
    e.idType = KOVA_ACL_ID_USER;
    e.id = 1030;
    e.permission = 0x1FFF;
    e.inherit = 0xF;
    e.accessType = KOVA_ACL_ALLOW;
    unsigned int state = 0;
    EXPECT_NE(KOVAACLAceIsValid(&e, &state), 0);

    // One field changed from e; a user needs a uid, fixed principals carry -1.
    const struct {
        const char *what;
        void (*change)(KOVA_ACL_ENTRY &);
    } cases[] = {{"permission 0x2000", [](KOVA_ACL_ENTRY &x) { x.permission = 0x2000; }},
                 {"inherit 0x10", [](KOVA_ACL_ENTRY &x) { x.inherit = 0x10; }},
                 {"access type 2", [](KOVA_ACL_ENTRY &x) { x.accessType = 2; }},
                 {"id type 3", [](KOVA_ACL_ENTRY &x) { x.idType = 3; }},
                 {"user -1", [](KOVA_ACL_ENTRY &x) { x.id = -1; }},
                 {"everyone 1030", [](KOVA_ACL_ENTRY &x) { x.idType = KOVA_ACL_ID_EVERYONE; }}};
    for (const auto &c : cases) {
        KOVA_ACL_ENTRY x = e;
        c.change(x);
        unsigned int s = 0;
        EXPECT_EQ(KOVAACLAceIsValid(&x, &s), 0) << c.what;
        x.id = -1;
        EXPECT_EQ(KOVAACLAceIsValid(&x, &s) != 0, x.idType == KOVA_ACL_ID_EVERYONE) << c.what << ", id -1";
    }

    // Levels may repeat or grow along one ACL, never go back.
    state = 0;
    e.level = 1;
    EXPECT_NE(KOVAACLAceIsValid(&e, &state), 0);
    EXPECT_NE(KOVAACLAceIsValid(&e, &state), 0);
    e.level = 0;
    EXPECT_EQ(KOVAACLAceIsValid(&e, &state), 0);
    e.level = 2;
    EXPECT_NE(KOVAACLAceIsValid(&e, &state), 0);
}

TEST(AclObject, ListOwnershipDupAndAppend) {
    PKOVA_ACL acl = KOVAACLAlloc(0);
    ASSERT_NE(acl, nullptr);
    EXPECT_EQ(acl->aceCount, 0);
    EXPECT_EQ(acl->pHead, nullptr);
    for (int i = 0; i < 3; ++i) {
        PKOVA_ACL_ENTRY e = KOVAACLAceAlloc();
        ASSERT_NE(e, nullptr);
        e->idType = KOVA_ACL_ID_USER;
        e->id = 1000 + i;
        ASSERT_EQ(KOVAACLAceAppend(acl, e), 0);
    }
    EXPECT_EQ(acl->aceCount, 3);
    EXPECT_EQ(acl->pTail->id, 1002);
    // The tail already belongs to the ACL: appending it again would loop.
    EXPECT_LT(KOVAACLAceAppend(acl, acl->pTail), 0);
    EXPECT_EQ(acl->aceCount, 3);

    acl->isInherited = 1;
    PKOVA_ACL copy = KOVAACLDup(acl);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->isInherited, 1);
    EXPECT_EQ(copy->aceCount, 3);
    EXPECT_NE(copy->pHead, acl->pHead);
    int id = 1000;
    for (PKOVA_ACL_ENTRY e = copy->pHead; e; e = e->pNext) EXPECT_EQ(e->id, id++);

    PKOVA_ACL_ENTRY one = KOVAACLAceDup(acl->pHead);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->pNext, nullptr);
    EXPECT_EQ(one->id, 1000);
    KOVAACLAceFree(one);
    KOVAACLFree(copy);
    KOVAACLFree(acl);
    KOVAACLFree(nullptr);
    EXPECT_EQ(KOVAACLGetMaxACECount(), 251);
}

TEST(AclObject, HiddenAttributeDirectories) {
    EXPECT_NE(KOVAEAIsHiddenDir("@kova_attr"), 0);
    EXPECT_EQ(KOVAEAIsHiddenDir("@kova_attrs"), 0);
    EXPECT_EQ(KOVAEAIsHiddenDir("kova_attr"), 0);
    EXPECT_EQ(KOVAEAIsHiddenDir(nullptr), 0);
}

} // namespace
