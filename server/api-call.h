// Turns an HTTP request into an API call (api, version, method, params).
// Two shapes are accepted: a JSON body {"api", "version", "method",
// "params": {...}}, or form/query fields, where every field other than api,
// version and method is a parameter whose value is the JSON the text parses
// as, or the text itself when it is not JSON (so "1" is a number and
// "/share/a" a string). A field "params" holding a JSON object is merged in.
#ifndef KOVA_WEBD_API_CALL_H
#define KOVA_WEBD_API_CALL_H

#include <json/json.h>

#include <map>
#include <string>

namespace webd {

struct ApiCall {
    std::string api;
    int version = 0;
    std::string method;
    Json::Value params{Json::objectValue};
};

// Both return "" on success, else what is wrong with the request, and set
// *code to the error to answer: kErrJsonTooDeep for nesting deeper than
// kMaxRequestDepth (frame.h), else kErrBadRequest. Every string and member
// name of the call must be UTF-8 without NUL (text-check.h).
std::string ParseJsonCall(const std::string &body, ApiCall &call, int *code = nullptr);
std::string ParseFieldCall(const std::multimap<std::string, std::string> &fields, ApiCall &call,
                           int *code = nullptr);

// A field's value: its JSON value when the text is JSON, else the text.
// false only when the text is JSON nested too deep.
bool FieldValue(const std::string &text, Json::Value &out);

} // namespace webd

#endif
