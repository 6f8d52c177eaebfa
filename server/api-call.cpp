#include "api-call.h"

#include <stdlib.h>

#include "error-codes.h"
#include "frame.h"
#include "text-check.h"

namespace webd {

namespace {

bool ParseVersion(const Json::Value &v, int &out) {
    if (v.isInt()) {
        out = v.asInt();
        return true;
    }
    if (v.isString()) {
        const std::string s = v.asString();
        if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) return false;
        out = atoi(s.c_str());
        return true;
    }
    return false;
}

std::string Finish(const Json::Value &api, const Json::Value &version, const Json::Value &method, ApiCall &call) {
    if (!api.isString() || api.asString().empty()) return "\"api\" must be a non-empty string";
    if (!method.isString() || method.asString().empty()) return "\"method\" must be a non-empty string";
    if (!ParseVersion(version, call.version) || call.version < 1) return "\"version\" must be a positive integer";
    // Checked here once for every method: no NUL or broken UTF-8 reaches a
    // module, a log line or a reply.
    if (!IsCleanText(api.asString()) || !IsCleanText(method.asString()) || !IsCleanValue(call.params))
        return "every text of the call must be UTF-8 without NUL";
    call.api = api.asString();
    call.method = method.asString();
    return "";
}

std::string Fail(int *code, int value, const std::string &reason) {
    if (code && !reason.empty()) *code = value;
    return reason;
}

std::string TooDeep(int *code) {
    return Fail(code, kErrJsonTooDeep, "JSON nested deeper than " + std::to_string(kMaxRequestDepth) + " levels");
}

} // namespace

bool FieldValue(const std::string &text, Json::Value &out) {
    Json::Value v;
    switch (ParseRequestJson(text, v)) {
    case JsonParse::kOk: out = std::move(v); return true;
    case JsonParse::kTooDeep: return false;
    case JsonParse::kInvalid: break;
    }
    out = Json::Value(text);
    return true;
}

std::string ParseJsonCall(const std::string &body, ApiCall &call, int *code) {
    Json::Value root;
    switch (ParseRequestJson(body, root)) {
    case JsonParse::kOk: break;
    case JsonParse::kTooDeep: return TooDeep(code);
    case JsonParse::kInvalid: return Fail(code, kErrBadRequest, "the body is not valid JSON");
    }
    if (!root.isObject()) return Fail(code, kErrBadRequest, "the body must be a JSON object");
    const Json::Value &params = root["params"];
    if (!params.isNull() && !params.isObject()) return Fail(code, kErrBadRequest, "\"params\" must be an object");
    call.params = params.isObject() ? params : Json::Value(Json::objectValue);
    return Fail(code, kErrBadRequest, Finish(root["api"], root["version"], root["method"], call));
}

std::string ParseFieldCall(const std::multimap<std::string, std::string> &fields, ApiCall &call, int *code) {
    Json::Value api, version, method;
    call.params = Json::Value(Json::objectValue);
    for (const auto &f : fields) {
        if (f.first == "api") {
            api = f.second;
        } else if (f.first == "method") {
            method = f.second;
        } else if (f.first == "version") {
            version = f.second;
        } else if (f.first == "params") {
            Json::Value merged;
            if (!FieldValue(f.second, merged)) return TooDeep(code);
            if (!merged.isObject()) return Fail(code, kErrBadRequest, "\"params\" must be a JSON object");
            for (const std::string &k : merged.getMemberNames()) call.params[k] = merged[k];
        } else if (!FieldValue(f.second, call.params[f.first])) {
            return TooDeep(code);
        }
    }
    return Fail(code, kErrBadRequest, Finish(api, version, method, call));
}

} // namespace webd
