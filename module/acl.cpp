// The method table of "KOVA.Core.ACL" and its entry functions: each one
// checks the request against its method's schema, pre-validates rule
// objects where the method takes them, and hands the request to one
// ACLHandler.
#include "acl.h"
#include "acl-object.h"
#include "request-text.h"

#include "kova/klibc.h"
#include "kova/module.h"
#include "kova/paramcheck.h"

#include <new>

namespace {

const Json::Value kNull;

// Adds one parameter to a schema under "field", keeping insertion order.
void AddField(Json::Value &schema, const char *name, int type, bool necessary) {
    Json::Value field(Json::objectValue);
    field["type"] = type;
    field["necessary"] = necessary;
    schema["field"][name] = field;
}

Json::Value NewSchema() {
    Json::Value schema(Json::objectValue);
    schema["field"] = Json::Value(Json::objectValue);
    return schema;
}

// Walks "rules" element by element; false at the first invalid rule.
bool RulesAreValid(KOVA::APIRequest *request) {
    if (!request->HasParam("rules")) return true;
    const Json::Value rules = request->GetParam("rules", kNull);
    for (Json::Value::const_iterator it = rules.begin(); it != rules.end(); ++it) {
        if (!ValidateRuleObj(*it)) return false;
    }
    return true;
}

// A string with a NUL or invalid UTF-8 anywhere in the request (nested in
// rules and search options too, parameters outside the schema included) is
// a bad parameter before anything reads it.
bool CheckOrReject(KOVA::APIRequest *request, KOVA::APIResponse *response, const Json::Value &schema) {
    if (IsCleanJson(request->GetParams()) && ParameterChecker::check(request, schema)) return true;
    response->SetError(403, kNull);
    return false;
}

// Runs an entry function's body so that nothing throws across the module
// boundary: a JSON type error is a bad request, running out of memory is
// 2617, anything else the generic failure.
//
// The platform's last error is per thread and a worker serves one request
// after another: cleared here, it can only name a failure of this request.
template <typename Body>
void Guarded(KOVA::APIResponse *response, Body body) {
    KLIBCErrSetEx(0, nullptr, 0);
    try {
        body();
    } catch (const Json::LogicError &) {
        response->SetError(403, kNull);
    } catch (const std::bad_alloc &) {
        response->SetError(2617, kNull);
    } catch (...) {
        response->SetError(6200, kNull);
    }
}

} // namespace

extern "C" {

void Get_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "file_path", 4, true);
        AddField(schema, "type", 4, true);
        if (CheckOrReject(request, response, schema)) handler.Get();
    });
}

void Set_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        bool changeAcl = false;
        if (request->HasParam("change_acl")) changeAcl = request->GetParam("change_acl", false).asBool();
        bool changeOwner = false;
        if (request->HasParam("change_acl_owner")) changeOwner = request->GetParam("change_acl_owner", false).asBool();

        Json::Value schema = NewSchema();
        AddField(schema, "file_path", 4, true);
        AddField(schema, "change_acl", 5, true);
        AddField(schema, "inherited", 5, changeAcl);
        AddField(schema, "rules", 13, changeAcl);
        AddField(schema, "acl_recur", 5, false);
        AddField(schema, "change_acl_owner", 5, false);
        AddField(schema, "acl_owner_type", 4, changeOwner);
        AddField(schema, "acl_owner", 4, changeOwner);
        AddField(schema, "acl_owner_recur", 5, false);
        if (!CheckOrReject(request, response, schema)) return;
        if (!RulesAreValid(request)) {
            response->SetError(403, kNull);
            return;
        }
        handler.Set();
    });
}

void Status_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "task_id", 4, true);
        if (CheckOrReject(request, response, schema)) handler.Status();
    });
}

void Stop_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "task_id", 4, true);
        if (CheckOrReject(request, response, schema)) handler.Stop();
    });
}

void ListOwners_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "include_everyone", 5, false);
        AddField(schema, "include_owner", 5, false);
        AddField(schema, "include_builtin", 5, false);
        AddField(schema, "include_internal", 5, false);
        AddField(schema, "offset", 1, false);
        AddField(schema, "limit", 1, false);
        AddField(schema, "prefix", 4, false);
        AddField(schema, "auth_type", 4, false);
        if (CheckOrReject(request, response, schema)) handler.ListOwners();
    });
}

void ListOwners_v2(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "offset", 1, false);
        AddField(schema, "limit", 1, false);
        AddField(schema, "keyword", 4, false);
        AddField(schema, "keywordFields", 7, true);
        AddField(schema, "searchScope", 13, true);
        if (CheckOrReject(request, response, schema)) handler.ListOwnersv2();
    });
}

void Inspect_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "file_path", 4, true);
        AddField(schema, "owner_type", 4, true);
        AddField(schema, "owner_name", 4, true);
        if (CheckOrReject(request, response, schema)) handler.Inspect();
    });
}

void CheckAdmin_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        Json::Value schema = NewSchema();
        AddField(schema, "owner_type", 4, true);
        AddField(schema, "owner_name", 4, true);
        if (CheckOrReject(request, response, schema)) handler.CheckAdmin();
    });
}

void CheckSelfDenied_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        bool changeAcl = request->GetParam("change_acl", false).asBool();
        Json::Value schema = NewSchema();
        AddField(schema, "file_path", 4, true);
        AddField(schema, "change_acl", 5, true);
        AddField(schema, "rules", 13, changeAcl);
        AddField(schema, "inherited", 5, changeAcl);
        if (!CheckOrReject(request, response, schema)) return;
        if (!RulesAreValid(request)) {
            response->SetError(403, kNull);
            return;
        }
        handler.CheckSelfDenied();
    });
}

void GetUIInfo_v1(KOVA::APIRequest *request, KOVA::APIResponse *response) {
    Guarded(response, [&] {
        ACLHandler handler(request, response);
        handler.GetUIInfo();
    });
}

__attribute__((visibility("default"))) KOVA_API_ENTRY gTable[] = {
    {"KOVA.Core.ACL", 1, "get", Get_v1},
    {"KOVA.Core.ACL", 1, "set", Set_v1},
    {"KOVA.Core.ACL", 1, "status", Status_v1},
    {"KOVA.Core.ACL", 1, "stop", Stop_v1},
    {"KOVA.Core.ACL", 1, "list_owners", ListOwners_v1},
    {"KOVA.Core.ACL", 2, "list_owners", ListOwners_v2},
    {"KOVA.Core.ACL", 1, "inspect", Inspect_v1},
    {"KOVA.Core.ACL", 1, "check_admin", CheckAdmin_v1},
    {"KOVA.Core.ACL", 1, "check_self_denied", CheckSelfDenied_v1},
    {"KOVA.Core.ACL", 1, "get_ui_info", GetUIInfo_v1},
    {nullptr, 0, nullptr, nullptr},
};

__attribute__((visibility("default"))) const KOVA_API_ENTRY *GetAPITable(void) { return gTable; }

} // extern "C"
