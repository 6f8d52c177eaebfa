// The rule model: validation of rule objects, their conversion to platform
// entries and ACL text, and the letter strings back to JSON.
#include "acl-object.h"
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include "kova/acl.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>

namespace {

using kova_module_test::kInheritKeys;
using kova_module_test::kPermKeys;

// Masks in these tests count in table order (bit 0 "read_data" ... bit 12
// "take_ownership"), not in platform bits.

Json::Value Flags(const char *const *keys, size_t n, unsigned mask) {
    Json::Value obj(Json::objectValue);
    for (size_t i = 0; i < n; ++i) obj[keys[i]] = ((mask >> i) & 1) != 0;
    return obj;
}
Json::Value Perm(unsigned mask) { return Flags(kPermKeys, 13, mask); }
Json::Value Inherit(unsigned mask) { return Flags(kInheritKeys, 4, mask); }

Json::Value Rule(const std::string &type, const std::string &name, const std::string &access = "allow",
                 unsigned perm = 0x1FFF, unsigned inherit = 0xF) {
    Json::Value r(Json::objectValue);
    r["owner_type"] = type;
    r["owner_name"] = name;
    r["permission_type"] = access;
    r["permission"] = Perm(perm);
    r["inherit"] = Inherit(inherit);
    return r;
}

class RuleModel : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new kova_host::PlatformRoot();
        ASSERT_TRUE(root_->AddUser("alice")) << root_->lastError();
        ASSERT_TRUE(root_->AddGroup("staff")) << root_->lastError();
    }
    static void TearDownTestSuite() {
        delete root_;
        root_ = nullptr;
    }
    void SetUp() override { kova_host::StartLogCapture(); }
    void TearDown() override { kova_host::StopLogCapture(); }
    static kova_host::PlatformRoot *root_;
};
kova_host::PlatformRoot *RuleModel::root_ = nullptr;

TEST_F(RuleModel, ValidationAcceptsEveryOwnerTypeWithANonEmptyName) {
    for (const char *type : {"system", "authenticated_user", "owner", "everyone", "user", "group"}) {
        EXPECT_TRUE(ValidateRuleObj(Rule(type, "x"))) << type;
        EXPECT_FALSE(ValidateRuleObj(Rule(type, ""))) << type << " with an empty name";
    }
    EXPECT_TRUE(ValidateRuleObj(Rule("user", "alice", "deny", 0, 0)));
    Json::Value extra = Rule("user", "alice");
    extra["level"] = 3;
    extra["owner_is_internal"] = "anything";
    EXPECT_TRUE(ValidateRuleObj(extra)) << "unlisted keys are ignored";
    EXPECT_TRUE(kova_host::StopLogCapture().empty()) << "validation logs nothing";
}

TEST_F(RuleModel, ValidationRefusesWrongTypesValuesAndMissingKeys) {
    EXPECT_FALSE(ValidateRuleObj(Rule("User", "alice"))) << "owner types are case-sensitive";
    EXPECT_FALSE(ValidateRuleObj(Rule("admin", "alice")));
    EXPECT_FALSE(ValidateRuleObj(Rule("user", "alice", "Allow")));
    EXPECT_FALSE(ValidateRuleObj(Rule("user", "alice", "grant")));

    for (const char *key : {"owner_type", "owner_name", "permission_type", "permission", "inherit"}) {
        Json::Value r = Rule("user", "alice");
        r.removeMember(key);
        EXPECT_FALSE(ValidateRuleObj(r)) << "without " << key;
    }
    Json::Value r = Rule("user", "alice");
    r["owner_name"] = 5;
    EXPECT_FALSE(ValidateRuleObj(r)) << "non-string name";
    r = Rule("user", "alice");
    r["permission"] = Json::Value(Json::arrayValue);
    EXPECT_FALSE(ValidateRuleObj(r)) << "permission as an array";

    for (const char *key : kPermKeys) {
        Json::Value s = Rule("user", "alice");
        s["permission"][key] = "true";
        EXPECT_FALSE(ValidateRuleObj(s)) << key << " as the string \"true\"";
        s = Rule("user", "alice");
        s["permission"].removeMember(key);
        EXPECT_FALSE(ValidateRuleObj(s)) << "permission without " << key;
    }
    for (const char *key : kInheritKeys) {
        Json::Value s = Rule("user", "alice");
        s["inherit"][key] = 1;
        EXPECT_FALSE(ValidateRuleObj(s)) << key << " as a number";
        s = Rule("user", "alice");
        s["inherit"].removeMember(key);
        EXPECT_FALSE(ValidateRuleObj(s)) << "inherit without " << key;
    }
    EXPECT_FALSE(ValidateRuleObj(Json::Value("user:alice")));
    EXPECT_FALSE(ValidateRuleObj(Json::Value(Json::arrayValue)));
    EXPECT_FALSE(ValidateRuleObj(Json::Value()));
    EXPECT_TRUE(kova_host::StopLogCapture().empty()) << "validation logs nothing";
}

TEST_F(RuleModel, TextFormUsesDisplayNamesForFixedPrincipals) {
    const struct {
        Json::Value rule;
        const char *text;
    } cases[] = {
        {Rule("everyone", "whatever", "allow", 0x1FFF, 0xF), "everyone:Everyone:allow:rwxpdDaARWcCo:fd--"},
        {Rule("owner", "x", "deny", 0, 0), "owner:Owner:deny:-------------:--in"},
        {Rule("authenticated_user", "x", "allow", 0x1, 0xF),
         "authenticated_user:Authenticated Users:allow:r------------:fd--"},
        {Rule("system", "x", "allow", 0x400 | 0x800, 0x1), "system:SYSTEM:allow:----------cC-:f-in"},
        {Rule("user", "Alice Smith", "allow", 0x801, 0x4), "user:Alice Smith:allow:r----------C-:---n"},
        {Rule("group", "staff", "deny", 0x2, 0x8), "group:staff:deny:-w-----------:--i-"},
    };
    std::string text;
    for (const auto &c : cases) {
        ASSERT_TRUE(RuleObj2AclStr(c.rule, text)) << c.text;
        EXPECT_EQ(c.text, text);
    }

    text = "untouched";
    EXPECT_FALSE(RuleObj2AclStr(Rule("everyone", ""), text));
    EXPECT_EQ("untouched", text);
    EXPECT_FALSE(RuleObj2AclStr(Json::Value("x"), text));
    EXPECT_EQ("untouched", text);
}

TEST_F(RuleModel, LetterStringsBecomeFlagObjects) {
    // "---n" is what get substitutes for an entry without flags.
    for (const auto &c : std::vector<std::pair<const char *, unsigned>>{{"fdin", 0x3}, {"----", 0xC}, {"---n", 0x4}}) {
        Json::Value inherit(Json::objectValue);
        ASSERT_TRUE(InheritStr2Obj(c.first, inherit)) << c.first;
        EXPECT_EQ(Inherit(c.second), inherit) << c.first;
    }
    Json::Value obj(Json::objectValue);
    ASSERT_TRUE(PermissionStr2Obj("rwxpdDaARWcCo", obj));
    EXPECT_EQ(Perm(0x1FFF), obj);
    obj = Json::Value(Json::objectValue);
    ASSERT_TRUE(PermissionStr2Obj("Rwxpd-aARWcCo", obj));
    EXPECT_FALSE(obj["read_data"].asBool()) << "letters compare exactly: R is not r";
    EXPECT_FALSE(obj["delete_sub"].asBool());
    EXPECT_TRUE(obj["write_data"].asBool());
    EXPECT_TRUE(kova_host::StopLogCapture().empty());
}

TEST_F(RuleModel, WrongLengthStringsAreLoggedAndWriteNothing) {
    Json::Value obj(Json::objectValue);
    obj["marker"] = 1;
    const Json::Value before = obj;
    EXPECT_FALSE(PermissionStr2Obj("rwxpdDaARWcC", obj));
    EXPECT_FALSE(PermissionStr2Obj("rwxpdDaARWcCoo", obj));
    EXPECT_FALSE(InheritStr2Obj("fdi", obj));
    EXPECT_FALSE(InheritStr2Obj("", obj));
    EXPECT_EQ(before, obj);
    std::vector<kova_host::LogLine> logs = kova_host::StopLogCapture();
    ASSERT_EQ(4u, logs.size());
    EXPECT_EQ(LOG_ERR, logs[0].priority);
    EXPECT_EQ("acl-object:108 Incorrect input string 'rwxpdDaARWcC'", logs[0].text);
    EXPECT_EQ("acl-object:108 Incorrect input string 'rwxpdDaARWcCoo'", logs[1].text);
    EXPECT_EQ("acl-object:108 Incorrect input string 'fdi'", logs[2].text);
    EXPECT_EQ("acl-object:108 Incorrect input string ''", logs[3].text);
}

TEST_F(RuleModel, RulesBecomePlatformEntries) {
    KOVA_ACL_ENTRY ace;
    std::memset(&ace, 0, sizeof ace);
    ASSERT_TRUE(RuleObj2AclAce(Rule("user", "alice", "allow", 0x1FFF, 0xF), &ace));
    EXPECT_EQ(KOVA_ACL_ID_USER, ace.idType);
    EXPECT_EQ(root_->Uid("alice"), ace.id);
    EXPECT_EQ(KOVA_ACL_ALLOW, ace.accessType);
    EXPECT_EQ(KOVA_ACL_PERM_ALL, ace.permission);
    EXPECT_EQ(KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_DIR, ace.inherit);

    std::memset(&ace, 0, sizeof ace);
    ASSERT_TRUE(RuleObj2AclAce(Rule("group", "staff", "deny", 0x1, 0x0), &ace));
    EXPECT_EQ(KOVA_ACL_ID_GROUP, ace.idType);
    EXPECT_EQ(root_->Gid("staff"), ace.id);
    EXPECT_EQ(KOVA_ACL_DENY, ace.accessType);
    EXPECT_EQ(KOVA_ACL_PERM_READ_DATA, ace.permission);
    EXPECT_EQ(KOVA_ACL_INHERIT_ONLY | KOVA_ACL_INHERIT_NO_PROPAGATE, ace.inherit) << "all four false";

    const struct {
        const char *type;
        int idType;
    } fixed[] = {{"owner", KOVA_ACL_ID_OWNER},
                 {"everyone", KOVA_ACL_ID_EVERYONE},
                 {"authenticated_user", KOVA_ACL_ID_AUTHUSER},
                 {"system", KOVA_ACL_ID_SYSTEM}};
    for (const auto &f : fixed) {
        std::memset(&ace, 0, sizeof ace);
        ace.id = 77;
        ASSERT_TRUE(RuleObj2AclAce(Rule(f.type, "ignored"), &ace)) << f.type;
        EXPECT_EQ(f.idType, ace.idType) << f.type;
        EXPECT_EQ(-1, ace.id) << f.type;
    }
}

TEST_F(RuleModel, UnknownPrincipalsRecordTheirOwnErrors) {
    KOVA_ACL_ENTRY ace;
    std::memset(&ace, 0, sizeof ace);
    EXPECT_FALSE(RuleObj2AclAce(Rule("user", "nobody-here"), &ace));
    EXPECT_EQ(0x1D00, KLIBCErrGet());
    EXPECT_STREQ("acl-object", KLIBCErrorGetFile());
    EXPECT_EQ(206, KLIBCErrorGetLine());

    EXPECT_FALSE(RuleObj2AclAce(Rule("group", "no-such-group"), &ace));
    EXPECT_EQ(0x1800, KLIBCErrGet());
    EXPECT_STREQ("acl-object", KLIBCErrorGetFile());
    EXPECT_EQ(212, KLIBCErrorGetLine());

    KLIBCErrSetEx(0, "", 0);
    EXPECT_FALSE(RuleObj2AclAce(Rule("everyone", ""), &ace)) << "invalid rules are refused before any lookup";
    EXPECT_EQ(0, KLIBCErrGet());
}

// Rule -> entry -> platform letters -> rule gives back the same flags, for
// every inherit combination and a spread of permission masks.
TEST_F(RuleModel, FlagsSurviveARoundTripThroughThePlatform) {
    std::vector<unsigned> masks = {0x0, 0x1FFF, 0x1555, 0x0AAA};
    for (unsigned bit = 0; bit < 13; ++bit) masks.push_back(1u << bit);
    for (unsigned perm : masks) {
        for (unsigned inherit = 0; inherit < 16; ++inherit) {
            Json::Value rule = Rule("user", "alice", (perm & 1) ? "allow" : "deny", perm, inherit);
            KOVA_ACL_ENTRY ace;
            std::memset(&ace, 0, sizeof ace);
            ASSERT_TRUE(RuleObj2AclAce(rule, &ace));
            char permText[256] = {0};
            char inheritText[256] = {0};
            ASSERT_GE(KOVAACLAcePrintPermission(ace.permission, permText, sizeof permText), 0);
            ASSERT_GE(KOVAACLAcePrintInherit(ace.inherit, inheritText, sizeof inheritText), 0);
            Json::Value permObj(Json::objectValue), inheritObj(Json::objectValue);
            ASSERT_TRUE(PermissionStr2Obj(permText, permObj));
            ASSERT_TRUE(InheritStr2Obj(inheritText, inheritObj));
            EXPECT_EQ(rule["permission"], permObj) << "mask " << perm;
            EXPECT_EQ(rule["inherit"], inheritObj) << "inherit " << inherit;

            std::string text;
            ASSERT_TRUE(RuleObj2AclStr(rule, text));
            EXPECT_EQ(std::string("user:alice:") + ((perm & 1) ? "allow" : "deny") + ":" + permText + ":" + inheritText,
                      text);
        }
    }
}

} // namespace
