// Against a real OpenLDAP server: kova-admin binds and syncs past the size limit, the
// cache finds the entries, and failed syncs keep the previous cache.
#include "accountdb-fixture.h"
#include "slapd.h"
#include "temp-root.h"

#include "kova-dirsvc-admin.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/dirsvc.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include "run-admin.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using kova_test::Slapd;
using kova_test::TempRoot;
using Names = std::vector<std::string>;

namespace {

using kova_test::RunAdmin;

using kova_accountdb_test::Handle;
using kova_accountdb_test::TempFiles;

struct Rows {
    Names names;
    Names mails;
};

int Collect(PKOVA_ACCOUNTDB_ROW row, void *ctx) {
    auto *r = static_cast<Rows *>(ctx);
    const char *n = KOVAACCOUNTDBGetResult(row, "name");
    if (!n) return -1;
    r->names.push_back(n);
    const char *m = KOVAACCOUNTDBGetResult(row, "mail");
    r->mails.push_back(m ? m : "");
    return 0;
}

// The module's query: name_upper LIKE %KEYWORD% as an OR clause.
Rows FindUsers(const std::string &upperPattern, uint64_t *total, uint32_t start = 0, uint64_t limit = UINT64_MAX) {
    Rows rows;
    Handle h(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_LDAP, 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, 0));
    EXPECT_TRUE(h);
    if (!h) return rows;
    EXPECT_EQ(KOVAACCOUNTDBActionInit(h.get(), KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    for (const char *f : {"name", "mail", "fullname", "desc"}) EXPECT_EQ(KOVAACCOUNTDBAddFieldValue(h.get(), f, nullptr), 0);
    std::string clause = "(name_upper LIKE \"%" + upperPattern + "%\" ESCAPE '\\')";
    EXPECT_EQ(KOVAACCOUNTDBAddClause(h.get(), KOVA_ACCOUNTDB_JOIN_OR, clause.c_str()), 0);
    EXPECT_EQ(KOVAACCOUNTDBEnumSetStart(h.get(), start), 0);
    EXPECT_EQ(KOVAACCOUNTDBEnumSetLimit(h.get(), limit), 0);
    EXPECT_EQ(KOVAACCOUNTDBCoreEnumExec(h.get(), Collect, &rows), 0);
    EXPECT_EQ(KOVAACCOUNTDBGetEnumCallbackRet(h.get()), 0);
    *total = KOVAACCOUNTDBGetEnumCount(h.get());
    return rows;
}

class LdapSync : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Slapd::Installed()) GTEST_SKIP() << "slapd is not installed";
        server_ = std::make_unique<Slapd>(300, 12);
        server_->Add({"MixedCase", "Has 100% and under_score", "mixed@example.com", "Mïxed Çase", false});
        server_->Add({"o'brien", "", "", "", false});
        server_->Add({"Ops Team", "Operations", "", "", true});
        std::string why;
        ASSERT_TRUE(server_->Start(&why)) << why;
    }
    // kova-admin's "ldap bind" to this server with the extra options.
    int Bind(const std::string &options, std::string *out) {
        return RunAdmin("ldap bind --uri " + server_->uri() + " --base " + server_->base() + " " + options, out);
    }
    std::unique_ptr<Slapd> server_;
};

} // namespace

TEST_F(LdapSync, SyncFillsTheCacheAndQueriesFindEntries) {
    TempRoot root;
    std::string out;
    // Anonymous: subject to the server's size limit of 50, so only paging reads all.
    ASSERT_EQ(Bind("--suffix example.com", &out), 0) << out;
    EXPECT_NE(KOVALDAPIsBinded(), 0);
    char suffix[64];
    ASSERT_EQ(KOVALDAPLoginSuffixGet(suffix, sizeof(suffix)), 0);
    EXPECT_STREQ(suffix, "example.com");
    ASSERT_EQ(RunAdmin("ldap sync", &out), 0) << out;
    EXPECT_NE(out.find("synced 302 users and 13 groups"), std::string::npos) << out;

    uint64_t total = 0;
    Rows r = FindUsers("USER012", &total, 2, 3);
    EXPECT_EQ(total, 10u);
    EXPECT_EQ(r.names, (Names{"user0122", "user0123", "user0124"}));
    EXPECT_EQ(r.mails, (Names{"user0122@example.com", "user0123@example.com", "user0124@example.com"}));
    // Case-insensitive through name_upper.
    r = FindUsers("MIXEDC", &total);
    EXPECT_EQ(r.names, (Names{"MixedCase"}));
    r = FindUsers("O'BR", &total);
    EXPECT_EQ(r.names, (Names{"o'brien"}));
    // The local enumeration calls read the same cache, names with the suffix.
    std::vector<std::string> seen;
    int n = KLIBUserInfoEnumBySubstr(KOVA_ACCOUNT_SRC_LDAP, 0, 0, 2, "user029", 1,
                                     [](const KLIB_USER_INFO *u, void *, void *ctx) {
                                         static_cast<std::vector<std::string> *>(ctx)->push_back(u->szName);
                                         return 0;
                                     },
                                     &seen);
    EXPECT_EQ(n, 10);
    EXPECT_EQ(seen, (Names{"user0290@example.com", "user0291@example.com"}));

    // Unbinding drops the binding and the cache.
    ASSERT_EQ(RunAdmin("ldap unbind", &out), 0) << out;
    EXPECT_EQ(KOVALDAPIsBinded(), 0);
    EXPECT_EQ(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_LDAP, 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, 0), nullptr);
}

TEST_F(LdapSync, FailedSyncsKeepThePreviousCache) {
    TempRoot root;
    std::string out;
    const std::string asRoot = "--binddn " + server_->rootDn() + " --password ";
    ASSERT_EQ(Bind(asRoot + server_->rootPassword() + " --suffix example.com", &out), 0) << out;
    ASSERT_EQ(RunAdmin("ldap sync", &out), 0) << out;
    uint64_t total = 0;
    FindUsers("USER", &total);
    ASSERT_EQ(total, 300u);
    std::string dir = root.At("var/cache/accountdb");

    // A fault half-way through the rows (each cached name is upper-cased once).
    EXPECT_NE(RunAdmin("ldap sync", &out, "KOVA_FAULTS=KLIBCUnicodeUTF8StrUpper:150:-1:0x0800"), 0);
    EXPECT_NE(out.find("previous cache is kept"), std::string::npos) << out;
    EXPECT_NE(out.find("kept: input/output or database error"), std::string::npos) << out;
    EXPECT_EQ(TempFiles(dir), 0);
    FindUsers("USER", &total);
    EXPECT_EQ(total, 300u);

    // Wrong credentials are refused and change nothing.
    EXPECT_NE(Bind(asRoot + "wrong --suffix other.org", &out), 0);
    EXPECT_NE(out.find(": permission denied"), std::string::npos) << out;
    char suffix[64];
    ASSERT_EQ(KOVALDAPLoginSuffixGet(suffix, sizeof(suffix)), 0);
    EXPECT_STREQ(suffix, "example.com");

    // The server goes away: the sync fails, the cache stays readable.
    server_->Stop();
    EXPECT_NE(RunAdmin("ldap sync", &out), 0);
    EXPECT_NE(out.find("kept: the directory service cannot be reached"), std::string::npos) << out;
    Rows r = FindUsers("USER0007", &total);
    EXPECT_EQ(r.names, (Names{"user0007"}));
    EXPECT_EQ(TempFiles(dir), 0);
}

TEST_F(LdapSync, DomainJoinFromLdapAndLdifFillsBothVariants) {
    TempRoot root;
    std::string out;
    ASSERT_EQ(RunAdmin("domain join CORP --from-ldap " + server_->uri() + " --base " + server_->base(), &out), 0) << out;
    ASSERT_EQ(RunAdmin("domain join LAB --from-ldif " + server_->LdifPath(), &out), 0) << out;
    EXPECT_NE(out.find("302 users and 13 groups"), std::string::npos) << out;
    ASSERT_EQ(RunAdmin("domain set --trusted yes", &out), 0) << out;
    EXPECT_NE(KOVAWinsIsJoined(), 0);
    EXPECT_NE(KOVAWinIsEnableTrustDomain(), 0);
    int total = KLIBUserInfoEnumBySubstr(KOVA_ACCOUNT_SRC_DOMAIN, 0, 0, 0, "mixedcase", 1, nullptr, nullptr);
    EXPECT_EQ(total, 2);  // once per domain
    std::vector<std::string> seen;
    KLIBGroupInfoEnumBySubstr(KOVA_ACCOUNT_SRC_DOMAIN, 0, 0, 10, "ops", 1,
                              [](const KLIB_GROUP_INFO *g, void *, void *ctx) {
                                  static_cast<std::vector<std::string> *>(ctx)->push_back(g->szName);
                                  return 0;
                              },
                              &seen);
    EXPECT_EQ(seen, (Names{"CORP\\Ops Team", "LAB\\Ops Team"}));
    // The full cache keeps the distinguished name for "bindon" filters.
    Handle h(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_FULL, "CORP", 0));
    ASSERT_TRUE(h);
    ASSERT_EQ(KOVAACCOUNTDBActionInit(h.get(), KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    ASSERT_EQ(KOVAACCOUNTDBAddFieldValue(h.get(), "Name", nullptr), 0);
    ASSERT_EQ(KOVAACCOUNTDBAddClause(h.get(), 1, "((NameUpper LIKE \"%MIXED%\" ESCAPE '\\') OR (Description LIKE \"%100\\%%\" ESCAPE '\\')) AND (distinguishedName LIKE \"%ou=people,dc=example,dc=com\" ESCAPE '\\')"), 0);
    ASSERT_EQ(KOVAACCOUNTDBCoreEnumExec(h.get(), nullptr, nullptr), 0);
    EXPECT_EQ(KOVAACCOUNTDBGetEnumCount(h.get()), 1u);

    ASSERT_EQ(RunAdmin("domain leave CORP", &out), 0) << out;
    PKLIBC_SZLIST list = KLIBCSzListAlloc(64);
    ASSERT_EQ(KOVAWinsEnumAllDomains(&list), 1);
    EXPECT_STREQ(KLIBCSzListGet(list, 0), "LAB");
    KLIBCSzListFree(list);
    EXPECT_NE(RunAdmin("domain join BAD/NAME --from-ldif " + server_->LdifPath(), &out), 0);
    EXPECT_NE(RunAdmin("domain join X --from-ldif /nonexistent.ldif", &out), 0);
    EXPECT_EQ(KLIBUserInfoEnumBySubstr(KOVA_ACCOUNT_SRC_DOMAIN, 0, 0, 0, "mixedcase", 1, nullptr, nullptr), 1);
}
