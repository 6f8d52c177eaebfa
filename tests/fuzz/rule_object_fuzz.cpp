// The module's rule model (module/acl-object.h), fed the input as JSON (what a client may send in "rules")
// and as text for the permission and inherit string parsers. Checked: validation and text conversion agree; a
// rule's strings read back to its flags; an entry built from a rule is valid and prints the same strings; the
// string parsers take exactly the table's length and write every key.
#include "acl-object.h"
#include "fuzz-check.h"
#include "fuzz-root.h"

#include "kova/acl.h"

namespace {

using kova_fuzz::Check;

// The letters the table gives an object's flags ('-' for the other state).
std::string Letters(const AclFlagRow *table, const Json::Value &obj) {
    std::string out;
    for (const AclFlagRow *row = table; row->key; ++row) {
        bool set = obj.isMember(row->key) && obj[row->key].asBool();
        out += set != row->inverted ? row->letter : '-';
    }
    return out;
}

size_t Rows(const AclFlagRow *table) {
    size_t n = 0;
    while (table[n].key) ++n;
    return n;
}

void CheckStringParser(bool (*parse)(const std::string &, Json::Value &), const AclFlagRow *table,
                       const std::string &text) {
    Json::Value obj(Json::objectValue);
    bool ok = parse(text, obj);
    Check(ok == (text.size() == Rows(table)), "flag string accepted at the wrong length");
    if (!ok) {
        Check(obj.empty(), "a refused flag string wrote into the object");
        return;
    }
    Check(obj.size() == Rows(table), "flag string parse missed a key");
    std::string expect = text;
    for (size_t i = 0; i < expect.size(); ++i)
        if (expect[i] != table[i].letter) expect[i] = '-';
    Check(Letters(table, obj) == expect, "flag string does not read back");
}

void CheckRule(const Json::Value &rule) {
    bool valid = ValidateRuleObj(rule);
    std::string text = "untouched";
    bool converted = RuleObj2AclStr(rule, text);
    Check(converted == (valid && rule.isObject()), "text conversion disagrees with validation");
    if (!converted) {
        Check(text == "untouched", "a refused rule changed the text");
    } else {
        std::string perm = Letters(kPermissionTable, rule["permission"]);
        std::string inherit = Letters(kInheritTable, rule["inherit"]);
        std::string tail = ":" + rule["permission_type"].asString() + ":" + perm + ":" + inherit;
        Check(text.size() > tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0,
              "rule text does not end with its access, permission and inherit fields");
        Check(text.compare(0, rule["owner_type"].asString().size() + 1, rule["owner_type"].asString() + ":") == 0,
              "rule text does not start with its owner type");
        Json::Value back;
        Check(PermissionStr2Obj(perm, back), "permission string of a rule refused");
        for (const AclFlagRow *row = kPermissionTable; row->key; ++row)
            Check(back[row->key].asBool() == rule["permission"][row->key].asBool(), "permission flag lost");
        back = Json::Value();
        Check(InheritStr2Obj(inherit, back), "inherit string of a rule refused");
        for (const AclFlagRow *row = kInheritTable; row->key; ++row)
            Check(back[row->key].asBool() == rule["inherit"][row->key].asBool(), "inherit flag lost");
    }

    std::unique_ptr<KOVA_ACL_ENTRY, void (*)(PKOVA_ACL_ENTRY)> ace(KOVAACLAceAlloc(), KOVAACLAceFree);
    Check(ace != nullptr, "KOVAACLAceAlloc");
    if (!RuleObj2AclAce(rule, ace.get())) return;
    Check(converted, "an entry was built from a rule that does not validate");
    unsigned int state = 0;
    Check(KOVAACLAceIsValid(ace.get(), &state) != 0, "an entry built from a valid rule is invalid");
    char buf[32];
    Check(KOVAACLAcePrintPermission(ace->permission, buf, sizeof buf) == 13 &&
              Letters(kPermissionTable, rule["permission"]) == buf,
          "entry permission differs from the rule");
    Check(KOVAACLAcePrintInherit(ace->inherit, buf, sizeof buf) == 4 && Letters(kInheritTable, rule["inherit"]) == buf,
          "entry inheritance differs from the rule");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    kova_fuzz::Root();  // names in rules resolve against its accounts
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = kova_fuzz::Text(data, size);
    CheckStringParser(PermissionStr2Obj, kPermissionTable, text);
    CheckStringParser(InheritStr2Obj, kInheritTable, text);
    Json::Value value;
    if (!kova_fuzz::ParseJson(text, value)) return 0;
    CheckRule(value);
    // "rules" is walked element by element: every element is a rule.
    if (value.isArray())
        for (const Json::Value &item : value) CheckRule(item);
    return 0;
}
