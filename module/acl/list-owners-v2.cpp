// list_owners version 2: runs the sources named in "searchScope" in order
// and pages across them as one list.
#include "acl.h"
#include "module-log.h"

#include "usergroup-enumerator/builtin-enumerator.h"
#include "usergroup-enumerator/domain-enumerator.h"
#include "usergroup-enumerator/ldap-group-enumerator.h"
#include "usergroup-enumerator/ldap-user-enumerator.h"
#include "usergroup-enumerator/local-group-enumerator.h"
#include "usergroup-enumerator/like-clause.h"
#include "usergroup-enumerator/local-user-enumerator.h"

#include "kova/dirsvc.h"
#include "kova/klibc.h"

#include <cstring>
#include <functional>
#include <map>

namespace {

typedef std::function<void(Json::Value const &keywordFields, Json::Value const &config,
                           internal::EnumeratorList &list)>
    EnumeratorCreator;

const char *Text(const char *s) { return s ? s : ""; }

void CreateBuiltin(Json::Value const &keywordFields, Json::Value const &config, internal::EnumeratorList &list) {
    internal::BuiltinEnumerator::Option option;
    internal::Deserialize(keywordFields, config, option);
    list.emplace_back(new internal::BuiltinEnumerator(option));
}

void CreateInternal(Json::Value const &keywordFields, Json::Value const &config, internal::EnumeratorList &list) {
    internal::LocalUserEnumerator::Option option;
    internal::Deserialize(keywordFields, config, option);
    option.users = false;
    option.internalUsers = true;
    list.emplace_back(new internal::LocalUserEnumerator(option));
}

void CreateLocal(Json::Value const &keywordFields, Json::Value const &config, internal::EnumeratorList &list) {
    internal::LocalUserEnumerator::Option users;
    internal::Deserialize(keywordFields, config, users);
    users.users = true;
    users.internalUsers = false;
    list.emplace_back(new internal::LocalUserEnumerator(users));

    internal::LocalGroupEnumerator::Option groups;
    internal::Deserialize(keywordFields, config, groups);
    list.emplace_back(new internal::LocalGroupEnumerator(groups));
}

void CreateLdap(Json::Value const &keywordFields, Json::Value const &config, internal::EnumeratorList &list) {
    if (KOVALDAPIsBinded() == 0) {
        KOVA_LOG(LOG_DEBUG, "acl", 1220, "ldap is not bound");
        return;
    }
    char suffix[1024];
    memset(suffix, 0, sizeof(suffix));
    if (KOVALDAPLoginSuffixGet(suffix, sizeof(suffix)) < 0) {
        KOVA_LOG(LOG_ERR, "acl", 1225, "KOVALDAPLoginSuffixGet failed");
        return;
    }
    const std::string qualified = std::string("@") + suffix;
    internal::LdapUserEnumerator::Option users;
    internal::Deserialize(keywordFields, config, users);
    internal::LdapGroupEnumerator::Option groups;
    internal::Deserialize(keywordFields, config, groups);
    list.emplace_back(new internal::LdapUserEnumerator(qualified, users));
    list.emplace_back(new internal::LdapGroupEnumerator(qualified, groups));
}

void CreateDomain(Json::Value const &keywordFields, Json::Value const &config, internal::EnumeratorList &list) {
    if (KOVAWinsIsJoined() == 0) {
        KOVA_LOG(LOG_DEBUG, "acl", 1240, "domain is not joined");
        return;
    }
    internal::DomainEnumerator::Option option;
    internal::Deserialize(keywordFields, config, option);
    list.emplace_back(new internal::DomainEnumerator(false, option));
    list.emplace_back(new internal::DomainEnumerator(true, option));
}

// Built per request: nothing of the registry outlives it.
std::map<std::string, EnumeratorCreator> GetEnumeratorCreatorRoute() {
    return {
        {"builtin", CreateBuiltin}, {"internal", CreateInternal}, {"local", CreateLocal},
        {"ldap", CreateLdap},       {"domain", CreateDomain},
    };
}

// A scope's "type": scalars as text, anything else as "" (which no source
// is registered under).
std::string ScopeType(Json::Value const &scope) {
    if (!scope.isObject() || !scope.isMember("type")) return "";
    Json::Value const &type = scope["type"];
    if (type.isArray() || type.isObject()) return "";
    return type.asString();
}

Json::Value ScopeConfig(Json::Value const &scope) {
    if (!scope.isObject()) return Json::Value(Json::objectValue);
    return scope.get("config", Json::Value(Json::objectValue));
}

} // namespace

void ACLHandler::ListOwnersv2() {
    Json::Value const &params = request_->GetParams();
    Json::Value const keywordFields = params.get("keywordFields", Json::Value());
    Json::Value const searchScope = params.get("searchScope", Json::Value());

    const int offset = params.get("offset", 0).asInt();
    const int limit = params.get("limit", -1).asInt();
    internal::SearchOption option;
    if (offset > 0) option.offset = static_cast<uint64_t>(offset);
    if (limit >= 0) option.limit = static_cast<uint64_t>(limit);
    option.keyword = params.get("keyword", "").asString();

    // The whole keyword, however much longer upper-casing makes it: a cut
    // one would match names the client did not ask for.
    if (!internal::ToUnicodeUpper(option.keyword, option.keywordUpper)) {
        KOVA_LOG(LOG_ERR, "acl", 1282, "KLIBCUnicodeUTF8StrUpper(%s) failed[0x%04X %s:%d]", option.keyword.c_str(),
                 KLIBCErrGet(), Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
    }

    const std::map<std::string, EnumeratorCreator> route = GetEnumeratorCreatorRoute();
    internal::EnumeratorList enumerators;
    for (Json::ArrayIndex i = 0; i < searchScope.size(); ++i) {
        Json::Value const &scope = searchScope[i];
        const Json::Value config = ScopeConfig(scope);
        const std::string type = ScopeType(scope);
        auto creator = route.find(type);
        if (creator == route.end()) {
            Json::Value data(Json::objectValue);
            data["name"] = "searchScope[" + std::to_string(i) + "].type";
            data["value"] = type;
            response_->SetError(403, data);
            return;
        }
        creator->second(keywordFields, config, enumerators);
    }

    internal::SearchResult running;
    for (auto &enumerator : enumerators) {
        internal::SearchResult sub = enumerator->Enumerate(option);
        internal::AdjustPagingWindow(sub, option);
        internal::MergeSubresult(running, sub);
    }

    Json::Value owners(Json::arrayValue);
    for (internal::UserGroup const &entry : running.items) {
        Json::Value item(Json::objectValue);
        if (internal::Serialize(entry, item)) owners.append(item);
    }
    Json::Value result(Json::objectValue);
    result["owners"] = owners;
    result["total"] = Json::Value(static_cast<Json::UInt64>(running.total));
    response_->SetSuccess(result);
}
