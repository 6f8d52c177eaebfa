// Parameter schemas: {"field": {"<name>": {"type": T, "necessary": bool}}}.
#include "kova/paramcheck.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/webapi.h"
#include "kova-internal/fault-point.h"

namespace {

bool TypeMatches(const Json::Value &v, int type) {
    // A null value stands for "present but empty": the method decides
    // what it means, so no type check refuses it.
    if (v.isNull()) return true;
    switch (type) {
    case KOVA_PARAM_TYPE_INT: return v.isInt();
    case KOVA_PARAM_TYPE_STRING: return v.isString();
    case KOVA_PARAM_TYPE_BOOL: return v.isBool();
    case KOVA_PARAM_TYPE_OBJECT: return v.isObject();
    case KOVA_PARAM_TYPE_ARRAY: return v.isArray();
    default: return false;
    }
}

bool KnownType(int type) {
    return type == KOVA_PARAM_TYPE_INT || type == KOVA_PARAM_TYPE_STRING || type == KOVA_PARAM_TYPE_BOOL ||
           type == KOVA_PARAM_TYPE_OBJECT || type == KOVA_PARAM_TYPE_ARRAY;
}

// Checks the whole schema before any value, so a malformed schema is
// refused whatever the parameters are.
bool SchemaValid(const Json::Value &schema) {
    if (!schema.isObject()) return false;
    const Json::Value &fields = schema["field"];
    if (!fields.isObject()) return false;
    for (auto it = fields.begin(); it != fields.end(); ++it) {
        const Json::Value &rule = *it;
        if (!rule.isObject()) return false;
        const Json::Value &type = rule["type"];
        if (!type.isInt() || !KnownType(type.asInt())) return false;
        const Json::Value &necessary = rule["necessary"];
        if (!necessary.isNull() && !necessary.isBool()) return false;
    }
    return true;
}

bool CheckObject(const Json::Value &value, const Json::Value &schema) {
    if (!SchemaValid(schema)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    if (!value.isObject()) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    const Json::Value &fields = schema["field"];
    for (auto it = fields.begin(); it != fields.end(); ++it) {
        std::string name = it.name();
        const Json::Value &rule = *it;
        const Json::Value *v = value.find(name.data(), name.data() + name.size());
        if (!v) {
            if (rule["necessary"].isBool() && rule["necessary"].asBool()) {
                KOVA_FAIL(KOVA_ERR_BADARG);
                return false;
            }
            continue;
        }
        if (!TypeMatches(*v, rule["type"].asInt())) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return false;
        }
    }
    return true;
}

} // namespace

bool ParameterChecker::check(KOVA::APIRequest *request, const Json::Value &schema) {
    KOVA_FAULT_POINT_BOOL("ParameterChecker::check");
    if (!request) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    try {
        return CheckObject(request->GetParams(), schema);
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
}

bool ParameterChecker::check(const Json::Value &value, const Json::Value &schema) {
    KOVA_FAULT_POINT_BOOL("ParameterChecker::check");
    try {
        return CheckObject(value, schema);
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
}
