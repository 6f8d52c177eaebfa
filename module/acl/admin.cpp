// check_admin and get_ui_info: read-only answers for the ACL editor.
#include "acl.h"
#include "module-log.h"

#include "kova/account.h"
#include "kova/dirsvc.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

void ACLHandler::CheckAdmin() {
    const Json::Value null;
    const std::string ownerType = request_->GetParam("owner_type", null).asString();
    const std::string ownerName = request_->GetParam("owner_name", null).asString();
    if (ownerName.empty()) {
        response_->SetError(403, Json::Value());
        return;
    }
    bool isAdmin = false;
    if (ownerType == "group") {
        isAdmin = KOVAGroupIsAdminGroup(ownerName.c_str()) == 1;
    } else if (ownerType == "user") {
        CriticalSection section;
        ENTERCriticalSection(section, 1623);
        int r = KLIBGroupIsAdminGroupMem(ownerName.c_str(), 0);
        LEAVECriticalSection(section, 1625);
        isAdmin = r == 1;
    }
    Json::Value result(Json::objectValue);
    result["is_admin"] = isAdmin;
    response_->SetSuccess(result);
}

namespace {

Json::Value Item(const char *name, const char *detail) {
    Json::Value item(Json::objectValue);
    item["name"] = name;
    item["detail"] = detail;
    return item;
}

} // namespace

void ACLHandler::GetUIInfo() {
    Json::Value info(Json::objectValue);
    info["type"] = "none";
    info["items"] = Json::Value(Json::arrayValue);
    Json::Value result(Json::objectValue);

    if (KOVAWinsIsJoined() == 0) {
        result["directoryServiceInfo"] = info;
        response_->SetSuccess(result);
        return;
    }

    if (KOVAWinIsEnableTrustDomain() != 0) {
        PKLIBC_SZLIST list = KLIBCSzListAlloc(1024);
        if (!list) {
            KOVA_LOG(LOG_ERR, "acl", 1958, "out of memory");
            response_->SetError(2617, Json::Value());
            return;
        }
        // An unreachable directory, or our own directory server, is an
        // expected state: the editor just gets fewer items.
        if (KOVAWinsEnumAllDomains(&list) < 0 && KLIBCErrGet() != KOVA_ERR_DIRSVC && KOVAWinsIsKovaADS() == 0) {
            KOVA_LOG(LOG_ERR, "acl", 1967, "failed to get the domain list, kovaerr=[0x%04X %s:%d]", KLIBCErrGet(),
                     KLIBCErrorGetFile(), KLIBCErrorGetLine());
        }
        for (int i = 0; list && i < list->nItem; ++i) {
            const char *domain = KLIBCSzListGet(list, i);
            if (!domain) continue;
            info["items"].append(Item(domain, domain));
        }
        KLIBCSzListFree(list);
        info["type"] = "domain:domain";
        result["directoryServiceInfo"] = info;
        response_->SetSuccess(result);
        return;
    }

    bool allocated = true;
    PKLIBC_SZLIST names = KLIBCSzListAlloc(1024);
    PKLIBC_SZLIST details = nullptr;
    if (!names) {
        KOVA_LOG(LOG_ERR, "acl", 1996, "out of memory");
        allocated = false;
    } else {
        details = KLIBCSzListAlloc(1024);
        if (!details) {
            KOVA_LOG(LOG_ERR, "acl", 2000, "out of memory");
            allocated = false;
        }
    }
    if (allocated) {
        CriticalSection section;
        ENTERCriticalSection(section, 2004);
        if (KOVAWinsEnumOU(&names, &details) < 0) KOVA_LOG(LOG_ERR, "acl", 2007, "failed to get ou");
        LEAVECriticalSection(section, 2009);
        for (int i = 0; names && i < names->nItem; ++i) {
            const char *name = KLIBCSzListGet(names, i);
            if (!name) continue;
            const char *detail = KLIBCSzListGet(details, i);
            info["items"].append(Item(name, detail ? detail : ""));
        }
    }
    KLIBCSzListFree(names);
    KLIBCSzListFree(details);
    if (!allocated) {
        response_->SetError(2617, Json::Value());
        return;
    }
    info["type"] = "domain:ou";
    result["directoryServiceInfo"] = info;
    response_->SetSuccess(result);
}
