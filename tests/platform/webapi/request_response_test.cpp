// Request parameters, response JSON, and task records written as root for any caller.
#include "as-identity.h"
#include "temp-root.h"

#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "kova/webapi.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

using KOVA::APIRequest;
using KOVA::APIResponse;

using kova_test::ReadFile;

namespace {

Json::Value Parse(const std::string &text) {
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    Json::Value v;
    std::string errs;
    if (!r->parse(text.data(), text.data() + text.size(), &v, &errs)) return Json::Value("<invalid>");
    return v;
}

} // namespace

TEST(APIRequest, ParametersDefaultsAndAbsence) {
    Json::Value params = Parse(R"({"path": "/s/a", "n": 3, "rules": null})");
    APIRequest req(params, "alice", "sid-1");
    EXPECT_EQ(req.GetLoginUserName(), "alice");
    EXPECT_EQ(req.GetSessionID(), "sid-1");
    EXPECT_TRUE(req.HasParam("path"));
    EXPECT_TRUE(req.HasParam("rules"));  // a null parameter is still present
    EXPECT_FALSE(req.HasParam("missing"));
    EXPECT_EQ(req.GetParam("n", 0).asInt(), 3);
    EXPECT_EQ(req.GetParam("missing", "dflt").asString(), "dflt");
    EXPECT_TRUE(req.GetParam("rules", Json::Value(Json::arrayValue)).isNull());

    // A present parameter is handed out in place, not copied.
    EXPECT_EQ(&req.GetParamRef("path", Json::Value()), &req.GetParams()["path"]);

    // Defaults outlive later calls: each reference still reads its own value.
    std::vector<const Json::Value *> refs;
    for (int i = 0; i < 200; ++i) refs.push_back(&req.GetParamRef("absent", Json::Value(i)));
    for (int i = 0; i < 200; ++i) ASSERT_EQ(refs[static_cast<size_t>(i)]->asInt(), i);

    req.SetMethod("KOVA.Core.ACL", 2, "list_owners");
    EXPECT_EQ(req.GetAPIName(), "KOVA.Core.ACL");
    EXPECT_EQ(req.GetAPIVersion(), 2);
    EXPECT_EQ(req.GetMethodName(), "list_owners");

    // Parameters that are not an object, and a read that fails, read as absent.
    APIRequest list(Json::Value(Json::arrayValue), "bob", "");
    EXPECT_FALSE(list.HasParam("x"));
    EXPECT_EQ(list.GetParam("x", 7).asInt(), 7);
    EXPECT_EQ(list.GetParamRef("x", "d").asString(), "d");
    KLIBCFaultSet("APIRequest::GetParam", 1, 0, KOVA_ERR_IO);
    EXPECT_EQ(req.GetParam("n", 9).asInt(), 9);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    EXPECT_EQ(req.GetParam("n", 9).asInt(), 3);  // one-shot fault is spent
    KLIBCFaultClearAll();
}

TEST(APIResponse, JsonFormsAndAFailedSet) {
    APIResponse r;
    EXPECT_FALSE(r.IsSet());

    r.SetSuccess(Parse(R"({"a": 1})"));
    EXPECT_TRUE(r.IsSet());
    EXPECT_TRUE(r.IsSuccess());
    EXPECT_EQ(r.GetErrorCode(), 0);
    EXPECT_EQ(r.ToJson(), Parse(R"({"success": true, "data": {"a": 1}})"));

    r.SetError(6201);
    EXPECT_FALSE(r.IsSuccess());
    EXPECT_EQ(r.GetErrorCode(), 6201);
    EXPECT_EQ(r.ToJson(), Parse(R"({"success": false, "error": {"code": 6201}})"));

    r.SetError(117, 3);
    EXPECT_EQ(r.ToJson(), Parse(R"({"success": false, "error": {"code": 117, "data": 3}})"));

    // The last call wins, also back to success.
    r.SetSuccess();
    EXPECT_EQ(r.ToJson(), Parse(R"({"success": true, "data": null})"));
    EXPECT_TRUE(r.GetErrorData().isNull());

    // A set that fails leaves the response as it was.
    r.SetSuccess(1);
    KLIBCFaultSet("APIResponse::SetError", 1, 0, KOVA_ERR_NOMEM);
    r.SetError(6200);
    KLIBCFaultClearAll();
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOMEM);
    EXPECT_TRUE(r.IsSuccess());
    EXPECT_EQ(r.GetData().asInt(), 1);
}

TEST(APIResponse, BoundRecordIsWrittenAsRootForAUser) {
    kova_test::TempRoot root;
    std::string dir = root.At("var/run/tasks");
    std::string path = dir + "/t1";

    // The writer acts as a user that could not enter the folder on its own.
    int rc = kova_test::RunAs({1500, 1500, {1500}}, [&] {
        APIResponse r;
        Json::Value owner(Json::objectValue);
        owner["owner"] = "alice";
        owner["pid"] = 42;
        r.BindTaskRecord("t1", owner);
        r.SetSuccess(Parse(R"({"applypath": "/v/s", "finished": false})"));
        if (geteuid() != 1500) return 3;  // ids restored after the write
        r.SetError(6205, "why");
        return 0;
    });
    ASSERT_EQ(rc, 0);
    Json::Value rec = Parse(ReadFile(path));
    EXPECT_EQ(rec["owner"].asString(), "alice");
    EXPECT_EQ(rec["pid"].asInt(), 42);
    EXPECT_FALSE(rec["success"].asBool());
    EXPECT_EQ(rec["error"]["code"].asInt(), 6205);
    EXPECT_EQ(rec["error"]["data"].asString(), "why");
    EXPECT_FALSE(rec["finished"].asBool());

    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_mode & 077, 0u);
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    // Replacement leaves no temporary files behind.
    EXPECT_EQ(kova_test::ListDir(dir), std::vector<std::string>{"t1"});
}

TEST(APIResponse, UnwritableRecordStillSetsResponse) {
    kova_test::TempRoot root;
    // The task folder is a link elsewhere: never written through.
    ASSERT_TRUE(kova_test::MakeDirs(root.At("var/run")));
    ASSERT_TRUE(kova_test::MakeDirs(root.At("elsewhere")));
    ASSERT_EQ(symlink(root.At("elsewhere").c_str(), root.At("var/run/tasks").c_str()), 0);
    APIResponse r;
    r.BindTaskRecord("t1", Json::Value(Json::objectValue));
    r.SetSuccess(5);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    EXPECT_TRUE(r.IsSuccess());
    EXPECT_EQ(r.GetData().asInt(), 5);
    EXPECT_TRUE(kova_test::ListDir(root.At("elsewhere")).empty());

    // An id that is not a plain record name binds nothing.
    APIResponse bad;
    bad.BindTaskRecord("../t1", Json::Value(Json::objectValue));
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    bad.SetSuccess(6);
    EXPECT_TRUE(bad.IsSuccess());
    EXPECT_TRUE(kova_test::ListDir(root.At("elsewhere")).empty());
}
