#include "api-call.h"

#include <stdlib.h>

#include "frame.h"

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
    call.api = api.asString();
    call.method = method.asString();
    return "";
}

} // namespace

Json::Value FieldValue(const std::string &text) {
    Json::Value v;
    if (ParseJsonText(text, v)) return v;
    return Json::Value(text);
}

std::string ParseJsonCall(const std::string &body, ApiCall &call) {
    Json::Value root;
    if (!ParseJsonText(body, root)) return "the body is not valid JSON";
    if (!root.isObject()) return "the body must be a JSON object";
    const Json::Value &params = root["params"];
    if (!params.isNull() && !params.isObject()) return "\"params\" must be an object";
    call.params = params.isObject() ? params : Json::Value(Json::objectValue);
    return Finish(root["api"], root["version"], root["method"], call);
}

std::string ParseFieldCall(const std::multimap<std::string, std::string> &fields, ApiCall &call) {
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
            Json::Value merged = FieldValue(f.second);
            if (!merged.isObject()) return "\"params\" must be a JSON object";
            for (const std::string &k : merged.getMemberNames()) call.params[k] = merged[k];
        } else {
            call.params[f.first] = FieldValue(f.second);
        }
    }
    return Finish(api, version, method, call);
}

} // namespace webd
