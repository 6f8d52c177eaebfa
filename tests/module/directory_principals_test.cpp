// LDAP users and groups as principals, end to end through the shipped
// module against a real slapd: set saves rules and an owner naming them as
// the search does ("name@suffix"), get names them back, inspect answers
// their effective rights (a user's LDAP group counts), and requests made as
// an LDAP user run with its directory ids and groups.
#include "directory-admin.h"
#include "principal-fixture.h"
#include "slapd.h"

#include "kova/acl.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <set>
#include <string>

namespace {

using kova_host::CallResult;
using kova_module_test::As;
using kova_module_test::RuleJson;
using kova_module_test::RunSet;

// Slapd(3, 2): user0000..user0002 are uidNumber 10001..10003, group00 and
// group01 gidNumber 5004 and 5005.
constexpr uid_t kUser2Uid = 10003;

class DirectoryPrincipals : public PrincipalFixture {
protected:
    void SetUp() override {
        PrincipalFixture::SetUp();
        if (HasFatalFailure()) return;
        if (!kova_test::Slapd::Installed()) GTEST_SKIP() << "slapd is not installed";
        server_ = std::make_unique<kova_test::Slapd>(3, 2);
        std::string why;
        ASSERT_TRUE(server_->Start(&why)) << why;
        kova_test::DirectoryAdmin dir(*server_);
        ASSERT_TRUE(dir.ok());
        ASSERT_TRUE(dir.Modify(kova_test::GroupDn(5004), LDAP_MOD_ADD, "memberUid", {"user0001"}));
        std::string out;
        ASSERT_EQ(root_.Admin({"ldap", "bind", "--uri", server_->uri(), "--base", server_->base(), "--suffix", "example.com"},
                              &out),
                  0)
            << out;
        ASSERT_EQ(root_.Admin({"ldap", "sync"}, &out), 0) << out;
        folder_ = share_ + "/reports";
        ASSERT_TRUE(root_.MakeDir(folder_, 0755)) << root_.lastError();
    }

    CallResult Get(const std::string &user) {
        return host().Call("get", kova_module_test::Params({{"file_path", folder_}, {"type", "all"}}), As(user));
    }

    std::unique_ptr<kova_test::Slapd> server_;
    std::string folder_;
};

} // namespace

TEST_F(DirectoryPrincipals, RulesAndOwnerNamingLdapAccountsAreSavedReadAndEvaluated) {
    const Json::Value rules = kova_module_test::Array(
        {RuleJson("user", "user0000@example.com", "allow", "r"), RuleJson("group", "group00@example.com", "allow", "wc")});
    const Json::Value params = kova_module_test::WithOwner(kova_module_test::SetParams(folder_, "/docs/reports", rules),
                                                           "user", "user0002@example.com");
    CallResult set = RunSet(params, As("admin"));
    ASSERT_TRUE(set.success()) << set.Dump();

    // The owner the kernel sees is the directory's uidNumber.
    struct stat st;
    ASSERT_EQ(lstat(folder_.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, kUser2Uid);

    CallResult got = Get("admin");
    ASSERT_TRUE(got.success()) << got.Dump();
    std::set<std::string> named;
    for (const auto &rule : got.data()["acl"])
        if (rule["level"].asInt() == 0) named.insert(rule["owner_type"].asString() + ":" + rule["owner_name"].asString());
    EXPECT_EQ(named, (std::set<std::string>{"user:user0000@example.com", "group:group00@example.com"})) << got.Dump();

    // user0001 holds write and read_perm through its LDAP group; user0000
    // its own read only; the owner its implicit rights.
    const unsigned W = KOVA_ACL_PERM_WRITE_DATA, R = KOVA_ACL_PERM_READ_DATA, C = KOVA_ACL_PERM_READ_ACL;
    auto mask = [&](const std::string &type, const std::string &name) { return Mask(Inspect(folder_, type, name)); };
    EXPECT_EQ(mask("user", "user0001@example.com"), W | C);
    EXPECT_EQ(mask("user", "user0000@example.com"), R);
    EXPECT_EQ(mask("group", "group00@example.com"), W | C);
    EXPECT_EQ(mask("user", "user0002@example.com") & KOVA_ACL_PERM_OWNER_IMPLICIT, KOVA_ACL_PERM_OWNER_IMPLICIT);
    EXPECT_EQ(Inspect(folder_, "user", "nobody@example.com").errorCode(), 6211);

    // Requests made as LDAP users carry their directory ids and groups: the
    // group's read_perm lets user0001 read the rules, user0000 has none.
    CallResult asMember = Get("user0001@example.com");
    EXPECT_TRUE(asMember.success()) << asMember.Dump();
    EXPECT_EQ(Get("user0000@example.com").errorCode(), 6205);
}
