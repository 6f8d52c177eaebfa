/*
 * ParameterChecker (libwebapi-ParameterChecker.so): validates a request's
 * parameters, or a JSON value, against a schema.
 *
 * Schema: {"field": {"<name>": {"type": T, "necessary": bool}, ...}}.
 * Types: 1 integer (a JSON integer that fits in 32 bits, signed), 4 string,
 * 5 boolean, 7 object, 13 array (the elements are not checked here). check
 * is true when every necessary parameter is present and every present
 * listed parameter has its type; unlisted parameters are ignored. A
 * malformed schema, or a value form given a non-object, is false. Never
 * throws.
 */
#ifndef KOVA_PARAMCHECK_H
#define KOVA_PARAMCHECK_H

#include <json/json.h>

#include "kova/export.h"

KOVA_API_BEGIN

namespace KOVA { class APIRequest; }

#define KOVA_PARAM_TYPE_INT     1
#define KOVA_PARAM_TYPE_STRING  4
#define KOVA_PARAM_TYPE_BOOL    5
#define KOVA_PARAM_TYPE_OBJECT  7
#define KOVA_PARAM_TYPE_ARRAY   13

class ParameterChecker {
public:
    static bool check(KOVA::APIRequest *request, const Json::Value &schema);
    static bool check(const Json::Value &value, const Json::Value &schema);
};

KOVA_API_END

#endif
