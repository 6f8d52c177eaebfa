// Parameter schemas: type codes, necessary parameters, nulls, unlisted keys, bad schemas.
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "kova/paramcheck.h"
#include "kova/webapi.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

Json::Value J(const std::string &text) {
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    Json::Value v;
    std::string errs;
    EXPECT_TRUE(r->parse(text.data(), text.data() + text.size(), &v, &errs)) << text;
    return v;
}

// {"field": {"p": {"type": T, "necessary": N}}}
Json::Value One(int type, bool necessary) {
    Json::Value s;
    s["field"]["p"]["type"] = type;
    s["field"]["p"]["necessary"] = necessary;
    return s;
}

bool Check(const std::string &value, int type) { return ParameterChecker::check(J(value), One(type, true)); }

} // namespace

TEST(ParameterChecker, TypeCodes) {
    EXPECT_TRUE(Check(R"({"p": 5})", KOVA_PARAM_TYPE_INT));
    EXPECT_TRUE(Check(R"({"p": -2147483648})", KOVA_PARAM_TYPE_INT));
    EXPECT_FALSE(Check(R"({"p": 2147483648})", KOVA_PARAM_TYPE_INT));  // beyond 32 bits
    EXPECT_FALSE(Check(R"({"p": 1.5})", KOVA_PARAM_TYPE_INT));
    EXPECT_FALSE(Check(R"({"p": "5"})", KOVA_PARAM_TYPE_INT));
    EXPECT_FALSE(Check(R"({"p": true})", KOVA_PARAM_TYPE_INT));

    EXPECT_TRUE(Check(R"({"p": ""})", KOVA_PARAM_TYPE_STRING));
    EXPECT_FALSE(Check(R"({"p": 1})", KOVA_PARAM_TYPE_STRING));
    EXPECT_FALSE(Check(R"({"p": ["a"]})", KOVA_PARAM_TYPE_STRING));

    EXPECT_TRUE(Check(R"({"p": false})", KOVA_PARAM_TYPE_BOOL));
    EXPECT_FALSE(Check(R"({"p": 0})", KOVA_PARAM_TYPE_BOOL));
    EXPECT_FALSE(Check(R"({"p": "true"})", KOVA_PARAM_TYPE_BOOL));

    EXPECT_TRUE(Check(R"({"p": {}})", KOVA_PARAM_TYPE_OBJECT));
    EXPECT_FALSE(Check(R"({"p": []})", KOVA_PARAM_TYPE_OBJECT));

    // 13: any array, elements unchecked.
    EXPECT_TRUE(Check(R"({"p": []})", KOVA_PARAM_TYPE_ARRAY));
    EXPECT_TRUE(Check(R"({"p": [1, "x", {}]})", KOVA_PARAM_TYPE_ARRAY));
    EXPECT_FALSE(Check(R"({"p": {}})", KOVA_PARAM_TYPE_ARRAY));
    EXPECT_FALSE(Check(R"({"p": "[]"})", KOVA_PARAM_TYPE_ARRAY));
}

TEST(ParameterChecker, PresenceNullAndUnlistedKeys) {
    EXPECT_FALSE(ParameterChecker::check(J("{}"), One(KOVA_PARAM_TYPE_STRING, true)));
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    EXPECT_TRUE(ParameterChecker::check(J("{}"), One(KOVA_PARAM_TYPE_STRING, false)));
    // A null counts as present and passes every type.
    for (int t : {1, 4, 5, 7, 13}) EXPECT_TRUE(Check(R"({"p": null})", t)) << t;
    // Keys the schema does not list are not looked at.
    EXPECT_TRUE(ParameterChecker::check(J(R"({"p": "x", "q": [1]})"), One(KOVA_PARAM_TYPE_STRING, true)));
    // Without "necessary" a parameter is optional.
    EXPECT_TRUE(ParameterChecker::check(J("{}"), J(R"({"field": {"p": {"type": 4}}})")));

    // Several parameters: one wrong type anywhere fails the whole check.
    Json::Value schema = J(R"({"field": {"a": {"type": 4, "necessary": true},
                                         "b": {"type": 5, "necessary": false},
                                         "c": {"type": 13, "necessary": true}}})");
    EXPECT_TRUE(ParameterChecker::check(J(R"({"a": "x", "c": []})"), schema));
    EXPECT_FALSE(ParameterChecker::check(J(R"({"a": "x", "b": 1, "c": []})"), schema));
    EXPECT_FALSE(ParameterChecker::check(J(R"({"a": "x", "b": true})"), schema));
}

TEST(ParameterChecker, MalformedSchemaOrValue) {
    Json::Value ok = J(R"({"p": 1})");
    for (const char *bad : {R"(null)", R"([])", R"({})", R"({"field": []})", R"({"field": {"p": 1}})",
                            R"({"field": {"p": {}}})", R"({"field": {"p": {"type": "1"}}})",
                            R"({"field": {"p": {"type": 2}}})",
                            R"({"field": {"p": {"type": 1, "necessary": "yes"}}})",
                            R"({"field": {"q": {"type": 99, "necessary": false}}})"})
        EXPECT_FALSE(ParameterChecker::check(ok, J(bad))) << bad;
    // A value that is not an object fails, even against an empty field list.
    EXPECT_FALSE(ParameterChecker::check(J("[1]"), J(R"({"field": {}})")));
    EXPECT_TRUE(ParameterChecker::check(J("{}"), J(R"({"field": {}})")));
}

TEST(ParameterChecker, ChecksRequestParameters) {
    KOVA::APIRequest req(J(R"({"task_id": "setacl-1", "extra": 1})"), "alice", "s");
    EXPECT_TRUE(ParameterChecker::check(&req, J(R"({"field": {"task_id": {"type": 4, "necessary": true}}})")));
    EXPECT_FALSE(ParameterChecker::check(&req, J(R"({"field": {"task_id": {"type": 1, "necessary": true}}})")));
    EXPECT_FALSE(ParameterChecker::check(static_cast<KOVA::APIRequest *>(nullptr), J(R"({"field": {}})")));

    KLIBCFaultSet("ParameterChecker::check", 1, 0, KOVA_ERR_FAULT);
    EXPECT_FALSE(ParameterChecker::check(&req, J(R"({"field": {}})")));
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_FAULT);
    KLIBCFaultClearAll();
}
