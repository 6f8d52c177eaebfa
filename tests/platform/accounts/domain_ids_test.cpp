// Windows-domain accounts: ids are the domain range's base + RID, names "DOMAIN\name"
// resolve both ways, ranges never overlap each other or local ids.
#include "../accountdb/accountdb-fixture.h"
#include "argon2-run.h"
#include "run-admin.h"
#include "temp-root.h"

#include "kova-dirsvc-admin.h"
#include "kova/account.h"
#include "kova/dirsvc.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kova_accountdb_test;
using kova_test::RunAdmin;
using kova_test::TempRoot;
using Names = std::vector<std::string>;

namespace {

// CORP: alice (text SID, RID 1105), bob (binary SID, 1106, primary "Domain Users"), nosid
// (no ids), groups "Domain Users" (513) and Engineers (1200, member alice).
const char kCorp[] =
    "dn: CN=alice,CN=Users,DC=corp\nobjectClass: inetOrgPerson\nuid: alice\ncn: alice\nsn: a\n"
    "objectSid: S-1-5-21-1-2-3-1105\nprimaryGroupID: 513\n\n"
    "dn: CN=bob,CN=Users,DC=corp\nobjectClass: inetOrgPerson\nuid: bob\ncn: bob\nsn: b\n"
    "objectSid:: AQUAAAAAAAUVAAAAAQAAAAIAAAADAAAAUgQAAA==\n\n"
    "dn: CN=nosid,CN=Users,DC=corp\nobjectClass: inetOrgPerson\nuid: nosid\ncn: nosid\nsn: n\n\n"
    "dn: CN=Domain Users,CN=Users,DC=corp\nobjectClass: groupOfNames\ncn: Domain Users\n"
    "objectSid: S-1-5-21-1-2-3-513\nmember: CN=bob,CN=Users,DC=corp\n\n"
    "dn: CN=Engineers,CN=Users,DC=corp\nobjectClass: groupOfNames\ncn: Engineers\n"
    "objectSid: S-1-5-21-1-2-3-1200\nmember: CN=alice,CN=Users,DC=corp\n\n";
// LAB: another alice with the same RID in another domain.
const char kLab[] =
    "dn: CN=alice,DC=lab\nobjectClass: inetOrgPerson\nuid: alice\ncn: alice\nsn: a\n"
    "objectSid: S-1-5-21-7-8-9-1105\n\n"
    "dn: CN=Lab Staff,DC=lab\nobjectClass: groupOfNames\ncn: Lab Staff\nobjectSid: S-1-5-21-7-8-9-1300\n"
    "member: CN=alice,DC=lab\n\n";

class DomainIds : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kova_test::WriteFile(root_.At("corp.ldif"), kCorp));
        ASSERT_TRUE(kova_test::WriteFile(root_.At("lab.ldif"), kLab));
    }
    int Admin(const std::string &args) { return RunAdmin(args, &out_); }
    TempRoot root_;
    std::string out_;
};

// Every id the two domains' accounts resolve to, by name and back.
void ExpectDomainIds(const char *when) {
    SCOPED_TRACE(when);
    EXPECT_EQ(Uid("CORP\\alice"), 1001105);
    EXPECT_EQ(Uid("corp\\ALICE"), 1001105);  // domains and their names ignore case
    EXPECT_EQ(Uid("CORP\\bob"), 1001106);    // binary objectSid
    EXPECT_EQ(Uid("LAB\\alice"), 2001105);
    EXPECT_EQ(UserName(1001105), "CORP\\alice");
    EXPECT_EQ(UserName(2001105), "LAB\\alice");
    EXPECT_EQ(GroupName(1001200), "CORP\\Engineers");
    EXPECT_EQ(GroupName(2001300), "LAB\\Lab Staff");
    PKOVA_GROUP g = nullptr;
    ASSERT_GE(KOVAGroupGet("CORP\\Domain Users", &g), 0);
    EXPECT_EQ(g->gid, 1000513u);
    KOVAGroupFree(g);
    EXPECT_EQ(GroupsOf("CORP\\alice"), (Names{"1000513", "1001200"}));
    EXPECT_EQ(GroupsOf("CORP\\bob"), (Names{"1000513"}));  // "Domain Users" as primary and member: once
    EXPECT_EQ(GroupsOf("LAB\\alice"), (Names{"2000513", "2001300"}));
    // An entry without a SID has no id; a bare name is never a domain's.
    for (const char *name : {"CORP\\nosid", "alice", "OTHER\\alice", "CORP\\"}) {
        EXPECT_LT(Uid(name), 0) << name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER) << name;
    }
}

} // namespace

TEST_F(DomainIds, JoinedDomainsMapRidsIntoTheirRangesStably) {
    ASSERT_EQ(Admin("domain join CORP --from-ldif " + root_.At("corp.ldif")), 0) << out_;
    EXPECT_NE(out_.find("3 users and 2 groups cached\n1 of them without a SID"), std::string::npos) << out_;
    ASSERT_EQ(Admin("domain join LAB --from-ldif " + root_.At("lab.ldif")), 0) << out_;
    EXPECT_EQ(out_.find("without a SID"), std::string::npos) << out_;
    ASSERT_EQ(Admin("domain ranges"), 0) << out_;
    EXPECT_EQ(out_, "CORP\t1000000\t1999999\nLAB\t2000000\t2999999\n");
    ASSERT_EQ(KOVAWinIsEnableTrustDomain(), 0);
    ExpectDomainIds("trusted domains off");
    ASSERT_EQ(Admin("domain set --trusted yes"), 0) << out_;
    ExpectDomainIds("trusted domains on");
    // A re-sync (join again) and a leave and re-join keep every id.
    ASSERT_EQ(Admin("domain join CORP --from-ldif " + root_.At("corp.ldif")), 0) << out_;
    ASSERT_EQ(Admin("domain leave LAB"), 0) << out_;
    EXPECT_LT(Uid("LAB\\alice"), 0);
    EXPECT_EQ(UserName(2001105), "");
    ASSERT_EQ(Admin("domain join LAB --from-ldif " + root_.At("lab.ldif")), 0) << out_;
    ExpectDomainIds("after re-sync and re-join");

    // No controller to check with: refused after the one hash any refusal costs.
    unsigned long long runs = kova_accounts::Argon2Runs();
    EXPECT_EQ(KOVAUserPasswordCheck("CORP\\alice", "any password"), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
    EXPECT_EQ(kova_accounts::Argon2Runs() - runs, 1u);
    runs = kova_accounts::Argon2Runs();
    EXPECT_EQ(KOVAUserPasswordCheck("CORP\\nobody", "any password"), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM);
    EXPECT_EQ(kova_accounts::Argon2Runs() - runs, 1u);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("CORP\\alice", 0), 0);
}

TEST_F(DomainIds, RangesMayNotOverlapEachOtherOrLocalIds) {
    ASSERT_EQ(Admin("domain range CORP --base 500000 --size 100000"), 0) << out_;
    ASSERT_EQ(Admin("domain join CORP --from-ldif " + root_.At("corp.ldif")), 0) << out_;
    EXPECT_EQ(Uid("CORP\\alice"), 501105);
    // Overlapping CORP's range, from either side or inside.
    for (const char *r : {"--base 450000 --size 60000", "--base 599999 --size 10", "--base 510000 --size 10"}) {
        EXPECT_NE(Admin(std::string("domain range LAB ") + r), 0) << r;
        EXPECT_NE(out_.find("overlaps the range of another domain"), std::string::npos) << out_;
    }
    // Holding a local account's id.
    ASSERT_EQ(KOVAUserAdd("carol", 700005, "pw", nullptr, nullptr, 0), 0);
    EXPECT_NE(Admin("domain range LAB --base 700000 --size 10"), 0);
    EXPECT_NE(out_.find("holds the id of local user carol (uid 700005)"), std::string::npos) << out_;
    ASSERT_EQ(KOVAGroupAdd("crew", 800001, nullptr), 0);
    EXPECT_NE(Admin("domain range LAB --base 800000 --size 10"), 0);
    EXPECT_NE(out_.find("local group crew (gid 800001)"), std::string::npos) << out_;
    // Nor may a local account take an id of a domain's range afterwards.
    EXPECT_EQ(KOVAUserAdd("erin", 500001, "pw", nullptr, nullptr, 0), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_EXIST);
    EXPECT_EQ(KOVAGroupAdd("team", 599999, nullptr), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_EXIST);
    // Outside the id space, or not numbers.
    for (const char *r : {"--base 10 --size 10", "--base 2147483000 --size 1000", "--base x", "--base 1000000 --size 0"})
        EXPECT_NE(Admin(std::string("domain range LAB ") + r), 0) << r;
    ASSERT_EQ(Admin("domain ranges"), 0);
    EXPECT_EQ(out_, "CORP\t500000\t599999\n");
    // Moving a domain's own range over itself is fine; the ids follow it.
    ASSERT_EQ(Admin("domain range CORP --base 550000 --size 100000"), 0) << out_;
    EXPECT_EQ(Uid("CORP\\alice"), 551105);
    // Range changes back to back, faster than file times tick, are seen at once.
    for (long long base : {560000, 570000, 560000, 580000}) {
        ASSERT_EQ(KovaDirsvc::RangeSet({"CORP", base, 100000}), 0);
        EXPECT_EQ(Uid("CORP\\alice"), base + 1105);
        EXPECT_EQ(UserName(static_cast<unsigned>(base + 1105)), "CORP\\alice");
    }
    ASSERT_EQ(KovaDirsvc::RangeSet({"CORP", 550000, 100000}), 0);
    // A joined domain whose automatic range would hold a local id skips it.
    ASSERT_EQ(KOVAUserAdd("dave", 1000007, "pw", nullptr, nullptr, 0), 0);
    ASSERT_EQ(Admin("domain join LAB --from-ldif " + root_.At("lab.ldif")), 0) << out_;
    EXPECT_EQ(Uid("LAB\\alice"), 2001105);
}
