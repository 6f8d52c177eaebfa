// The module's pure building blocks in-process, where the host cannot reach
// every combination: the rule model's flag mapping and the file-system
// verdicts. Validation, naming and logging are checked through the host.
#include "acl-object.h"
#include "acl.h"
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include "kova/acl.h"
#include "kova/fault.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// A rule of alice's from masks in table order (bit 0 "read_data" ... bit 12
// "take_ownership"; inherit bits: child_files, child_folders, this_folder,
// all_descendants), not platform bits.
Json::Value Rule(const std::string &access, unsigned perm, unsigned inherit) {
    std::string letters;
    for (unsigned i = 0; i < 13; ++i)
        if ((perm >> i) & 1) letters += kova_module_test::kPermLetters[i];
    const std::string flags = {(inherit & 1) ? 'f' : '-', (inherit & 2) ? 'd' : '-', (inherit & 4) ? '-' : 'i',
                               (inherit & 8) ? '-' : 'n'};
    return kova_module_test::RuleJson("user", "alice", access, letters, flags);
}

class ModelUnit : public kova_module_test::SharedRootTest {
protected:
    static void SetUpTestSuite() { NewRootWithDocs({"alice"}); }
    void TearDown() override { KLIBCFaultClearAll(); }
};

TEST_F(ModelUnit, FileSystemTypesAreJudgedInOrder) {
    KOVA::APIRequest request(Json::Value(Json::objectValue), "admin", "s");
    KOVA::APIResponse response;
    const std::string path = share_;

    struct Case {
        int fsType;
        bool checkSupport;
        long supportAnswer;  // armed for KOVAACLIsSupport; -2: not armed
        bool ok;
        int code;
    } cases[] = {
        {14, true, 0, false, 6212},   // refused before any support check
        {8, true, 0, false, 6212},    {9, true, 1, false, 6212}, {6, false, -2, false, 6212},
        {5, true, 0, false, 6201},    // support is checked before the outright refusal
        {5, false, -2, false, 6202},  {0, true, 1, false, 6202}, {18, false, -2, false, 6202},
        {10, false, -2, false, 6203}, {11, true, 1, false, 6203}, {12, false, -2, false, 6204},
        {13, false, -2, false, 6204}, {15, false, -2, false, 6204},
        {2, true, 0, false, 6201},    {2, true, -1, true, 6200},  // an error answer is not a "no"
        {2, true, -2, true, 6200},    {7, false, -2, true, 6200}, {3, true, -2, true, 6200},
    };
    for (const Case &c : cases) {
        KLIBCFaultClearAll();
        if (c.supportAnswer != -2) KLIBCFaultSet("KOVAACLIsSupport", 0, c.supportAnswer, 0x0D00);
        ACLHandler handler(&request, &response);
        EXPECT_EQ(c.ok, handler.CheckFsType(c.fsType, path, c.checkSupport)) << "type " << c.fsType;
        EXPECT_EQ(c.code, handler.errorCode()) << "type " << c.fsType;
    }
    EXPECT_FALSE(response.IsSet()) << "the checks never answer the request";
}

// Rule -> entry -> platform letters -> rule gives back the same flags, for
// every inherit combination and a spread of permission masks.
TEST_F(ModelUnit, FlagsSurviveARoundTripThroughThePlatform) {
    std::vector<unsigned> masks = {0x0, 0x1FFF, 0x1555, 0x0AAA};
    for (unsigned bit = 0; bit < 13; ++bit) masks.push_back(1u << bit);
    for (unsigned perm : masks) {
        for (unsigned inherit = 0; inherit < 16; ++inherit) {
            Json::Value rule = Rule((perm & 1) ? "allow" : "deny", perm, inherit);
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
