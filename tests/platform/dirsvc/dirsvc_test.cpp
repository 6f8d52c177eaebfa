// Directory-service state: defaults of a new root, the LDAP binding, the domain list with trusted domains on
// and off, organisational units, the unreachable state, and LDIF reading.
#include "temp-root.h"

#include "kova-dirsvc-admin.h"
#include "kova/dirsvc.h"
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using kova_test::TempRoot;
using Names = std::vector<std::string>;

namespace {
Names Items(PKLIBC_SZLIST l) {
    Names out;
    for (int i = 0; i < l->nItem; ++i) out.push_back(KLIBCSzListGet(l, i) ? KLIBCSzListGet(l, i) : "<empty>");
    return out;
}
Names Domains(int *rc = nullptr) {
    PKLIBC_SZLIST l = KLIBCSzListAlloc(64);
    int n = KOVAWinsEnumAllDomains(&l);
    if (rc) *rc = n;
    Names out = Items(l);
    KLIBCSzListFree(l);
    return out;
}
} // namespace

TEST(DirectoryState, NewRootIsNeitherBoundNorJoined) {
    TempRoot root;
    EXPECT_EQ(KOVALDAPIsBinded(), 0);
    char buf[64];
    EXPECT_LT(KOVALDAPLoginSuffixGet(buf, sizeof(buf)), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
    EXPECT_EQ(KOVAWinsIsJoined(), 0);
    EXPECT_EQ(KOVAWinIsEnableTrustDomain(), 0);
    EXPECT_EQ(KOVAWinsIsKovaADS(), 0);
    int rc = 0;
    EXPECT_TRUE(Domains(&rc).empty());
    EXPECT_LT(rc, 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
}

TEST(DirectoryState, LdapBindingAndSuffix) {
    TempRoot root;
    KovaLdapConfig cfg;
    cfg.uri = "ldap://127.0.0.1:389/";
    cfg.base = "dc=example,dc=com";
    cfg.bindDn = "cn=admin,dc=example,dc=com";
    cfg.password = "pw";
    cfg.suffix = "example.com";
    ASSERT_EQ(KovaDirsvc::LdapBind(cfg), 0);
    EXPECT_NE(KOVALDAPIsBinded(), 0);
    char buf[64];
    ASSERT_EQ(KOVALDAPLoginSuffixGet(buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "example.com");
    EXPECT_LT(KOVALDAPLoginSuffixGet(buf, 11), 0);  // needs 12 with the NUL
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_RANGE);
    KovaLdapConfig back;
    ASSERT_EQ(KovaDirsvc::LdapGet(back), 0);
    EXPECT_EQ(back.password, "pw");
    ASSERT_EQ(KovaDirsvc::LdapUnbind(), 0);
    EXPECT_EQ(KOVALDAPIsBinded(), 0);
    ASSERT_EQ(KovaDirsvc::LdapGet(back), 0);
    EXPECT_TRUE(back.password.empty());  // the secret goes with the binding
    cfg.suffix = "";
    EXPECT_LT(KovaDirsvc::LdapBind(cfg), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    EXPECT_EQ(KOVALDAPIsBinded(), 0);
    // A failing read answers "no", with the error recorded.
    KLIBCFaultClearAll();
    ASSERT_EQ(KovaDirsvc::LdapBind(KovaLdapConfig{true, "ldap://x/", "dc=x", "", "", "x.org"}), 0);
    ASSERT_EQ(KLIBCFaultSet("KOVALDAPIsBinded", 1, 0, KOVA_ERR_IO), 0);
    EXPECT_EQ(KOVALDAPIsBinded(), 0);
    EXPECT_NE(KOVALDAPIsBinded(), 0);
    KLIBCFaultClearAll();
}

TEST(DirectoryState, DomainsTrustedDomainsAndReachability) {
    TempRoot root;
    ASSERT_EQ(KovaDirsvc::DomainAdd("CORP"), 0);
    ASSERT_EQ(KovaDirsvc::DomainAdd("lab.example"), 0);
    ASSERT_EQ(KovaDirsvc::DomainAdd("corp"), 0);  // domains are case-insensitive: no duplicate
    EXPECT_NE(KOVAWinsIsJoined(), 0);
    // Every joined domain is listed, trusted domains on or off, joined first.
    EXPECT_EQ(KOVAWinIsEnableTrustDomain(), 0);
    EXPECT_EQ(Domains(), (Names{"CORP", "lab.example"}));
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("trusted", true), 0);
    EXPECT_NE(KOVAWinIsEnableTrustDomain(), 0);
    int rc = 0;
    EXPECT_EQ(Domains(&rc), (Names{"CORP", "lab.example"}));
    EXPECT_EQ(rc, 2);
    // Unreachable: the list cannot be read (0xE500), the flags still can.
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("reachable", false), 0);
    EXPECT_TRUE(Domains(&rc).empty());
    EXPECT_LT(rc, 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
    EXPECT_NE(KOVAWinsIsJoined(), 0);
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("reachable", true), 0);
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("own-dc", true), 0);
    EXPECT_NE(KOVAWinsIsKovaADS(), 0);
    EXPECT_LT(KovaDirsvc::DomainSetFlag("bogus", true), 0);
    for (const char *bad : {"", "../x", "a b", ".hidden", "x/y"}) EXPECT_LT(KovaDirsvc::DomainAdd(bad), 0) << bad;
    // Leaving the joined domain makes the next one first; leaving all unjoins.
    ASSERT_EQ(KovaDirsvc::DomainRemove("corp"), 0);
    EXPECT_EQ(Domains(), (Names{"lab.example"}));
    EXPECT_LT(KovaDirsvc::DomainRemove("corp"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOENT);
    ASSERT_EQ(KovaDirsvc::DomainRemove("lab.example"), 0);
    EXPECT_EQ(KOVAWinsIsJoined(), 0);
}

TEST(DirectoryState, OrganisationalUnitsKeepNamesAndDetailsAligned) {
    TempRoot root;
    ASSERT_EQ(KovaDirsvc::DomainAdd("CORP"), 0);
    ASSERT_EQ(KovaDirsvc::OuAdd("Sales", "OU=Sales,DC=corp"), 0);
    ASSERT_EQ(KovaDirsvc::OuAdd("Lab", ""), 0);
    EXPECT_LT(KovaDirsvc::OuAdd("Sales", "again"), 0);
    PKLIBC_SZLIST names = KLIBCSzListAlloc(64), details = KLIBCSzListAlloc(64);
    ASSERT_EQ(KOVAWinsEnumOU(&names, &details), 2);
    EXPECT_EQ(Items(names), (Names{"Sales", "Lab"}));
    EXPECT_EQ(Items(details), (Names{"OU=Sales,DC=corp", "<empty>"}));
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("joined", false), 0);
    EXPECT_LT(KOVAWinsEnumOU(&names, &details), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
    KLIBCSzListFree(names);
    KLIBCSzListFree(details);
}

TEST(DirectoryReaders, LdifEntriesMapToAccounts) {
    TempRoot root;
    std::string ldif = root.At("in.ldif");
    ASSERT_TRUE(kova_test::WriteFile(ldif,
                                     "dn: uid=jdoe,ou=people,dc=x\nobjectClass: inetOrgPerson\nuid: jdoe\ncn: John Doe\nsn: Doe\n"
                                     "mail: jdoe@x\ndescription: folded\n  line\n\n"
                                     "dn: cn=staff,ou=groups,dc=x\nobjectClass: posixGroup\ncn: staff\ndescription:: 4pyTIG9r\n\n"
                                     "dn: ou=people,dc=x\nobjectClass: organizationalUnit\nou: people\n\n"
                                     "dn: uid=noname,dc=x\nobjectClass: posixAccount\ncn: No Uid\n\n"));
    std::vector<KovaDirEntry> got;
    ASSERT_EQ(KovaDirsvc::LdifRead(ldif, [&](const KovaDirEntry &e) {
                  got.push_back(e);
                  return true;
              }),
              0);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_FALSE(got[0].group);
    EXPECT_EQ(got[0].name, "jdoe");
    EXPECT_EQ(got[0].fullname, "John Doe");  // cn stands in for a missing displayName
    EXPECT_EQ(got[0].desc, "folded line");
    EXPECT_EQ(got[0].dn, "uid=jdoe,ou=people,dc=x");
    EXPECT_TRUE(got[1].group);
    EXPECT_EQ(got[1].desc, "\xE2\x9C\x93 ok");  // base64 value
    // A sink that refuses stops the read with a failure.
    EXPECT_LT(KovaDirsvc::LdifRead(ldif, [](const KovaDirEntry &) {
        KLIBCErrSetEx(KOVA_ERR_NOMEM, "sink", 1);
        return false;
    }), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOMEM);
    EXPECT_LT(KovaDirsvc::LdifRead(root.At("missing.ldif"), [](const KovaDirEntry &) { return true; }), 0);
    EXPECT_LT(KovaDirsvc::LdapProbe("ldap://127.0.0.1:1/", "", ""), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
}
