// A request as the server hands it to a handler: parameters, login user and
// session, and the API triple it was addressed to.
#include "kova/webapi.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <deque>

namespace KOVA {

struct APIRequest::Impl {
    Json::Value params;
    std::string user;
    std::string session;
    std::string api;
    std::string method;
    int version = 0;
    // Defaults handed out by GetParamRef. A deque never moves its elements,
    // so references given out earlier stay valid as more are added.
    mutable std::deque<Json::Value> defaults;

    const Json::Value *Find(const std::string &name) const {
        if (!params.isObject()) return nullptr;
        return params.find(name.data(), name.data() + name.size());
    }
};

namespace {
// The check every handler-facing call makes first; when a test armed a
// fault, the call behaves as if the parameter or value were absent.
bool Faulted(const char *name) {
    long ignored;
    return KLIBCFaultHit(name, &ignored) != 0;
}
} // namespace

APIRequest::APIRequest(const Json::Value &params, const std::string &loginUser, const std::string &sessionId)
    : d_(new Impl) {
    d_->params = params;
    d_->user = loginUser;
    d_->session = sessionId;
}

APIRequest::~APIRequest() { delete d_; }

bool APIRequest::HasParam(const std::string &name) const {
    KOVA_FAULT_POINT_BOOL("APIRequest::HasParam");
    return d_->Find(name) != nullptr;
}

Json::Value APIRequest::GetParam(const std::string &name, const Json::Value &defaultValue) const {
    if (Faulted("APIRequest::GetParam")) return defaultValue;
    const Json::Value *v = d_->Find(name);
    return v ? *v : defaultValue;
}

const Json::Value &APIRequest::GetParamRef(const std::string &name, const Json::Value &defaultValue) const {
    if (!Faulted("APIRequest::GetParamRef")) {
        const Json::Value *v = d_->Find(name);
        if (v) return *v;
    }
    d_->defaults.push_back(defaultValue);
    return d_->defaults.back();
}

const Json::Value &APIRequest::GetParams() const {
    if (Faulted("APIRequest::GetParams")) {
        d_->defaults.emplace_back(Json::objectValue);
        return d_->defaults.back();
    }
    return d_->params;
}

std::string APIRequest::GetLoginUserName() const {
    if (Faulted("APIRequest::GetLoginUserName")) return std::string();
    return d_->user;
}

std::string APIRequest::GetSessionID() const {
    if (Faulted("APIRequest::GetSessionID")) return std::string();
    return d_->session;
}

// The API triple belongs to the server's own view of the exchange; these
// accessors are not fault points (a fault there would test the server's
// dispatch, not a handler).
void APIRequest::SetMethod(const std::string &api, int version, const std::string &method) {
    d_->api = api;
    d_->version = version;
    d_->method = method;
}

std::string APIRequest::GetAPIName() const { return d_->api; }
int APIRequest::GetAPIVersion() const { return d_->version; }
std::string APIRequest::GetMethodName() const { return d_->method; }

} // namespace KOVA
