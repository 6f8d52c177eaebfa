// The module's chief header: the request handler of the WebAPI
// "KOVA.Core.ACL" and the helpers its methods share.
//
// One ACLHandler lives on the stack of each entry function (acl.cpp) for one
// request. Its methods (module/acl/*.cpp, one file per method family) set
// the response themselves; a failure ends with SetError(error code, data).
#ifndef KOVA_MODULE_ACL_H
#define KOVA_MODULE_ACL_H

#include "acl/rights.h"
#include "kova/acl.h"
#include "kova/webapi.h"

#include <json/json.h>
#include <sys/types.h>

#include <string>
#include <vector>

class ACLHandler {
public:
    ACLHandler(KOVA::APIRequest *request, KOVA::APIResponse *response);
    ~ACLHandler();
    ACLHandler(const ACLHandler &) = delete;
    ACLHandler &operator=(const ACLHandler &) = delete;

    // WebAPI methods
    void Get();
    void Set();
    void Status();
    void Stop();
    void ListOwners();
    void ListOwnersv2();
    void Inspect();
    void CheckAdmin();
    void CheckSelfDenied();
    void GetUIInfo();

    // Shared checks; on false the reason is left in the error code.
    bool CheckFsType(int fsType, const std::string &path, bool checkAclSupport);
    bool IsPathUnderSharedFolder(const std::string &path, std::string &sharePath);
    bool IsPathUnderSharedFolder(const std::string &path);

    // The set task: its body, and the per-path work it does once.
    static void SetACLChildFunc(KOVA::APIRequest *request, KOVA::APIResponse *response, void *data);
    int ApplyACLFileProperty(KOVA::APIResponse *response, Json::Value &property);

    int errorCode() const { return error_; }

private:
    KOVA::APIRequest *request_;
    KOVA::APIResponse *response_;
    int error_;  // reported on failure; 6200 until a step stores a particular code
};

// Maps an owner type and name of a request to an ACL identity: "user" (uid),
// "group" (gid), "everyone", "authenticated_user", "system". "owner" and
// every other type are refused.
bool Owner2AclId(const std::string &ownerType, const std::string &ownerName, KOVA_ACL_ID &out);

// The privileged section: raises the effective gid and uid to 0 and restores
// them, logging each change with the source line it stands at. Every ENTER
// is paired with exactly one LEAVE on the same path.
struct CriticalSection {
    uid_t savedUid;
    gid_t savedGid;
};
void ENTERCriticalSection(CriticalSection &section, int line);
void LEAVECriticalSection(CriticalSection &section, int line);

// Runs `call` inside the privileged section (logging the two lines) when
// `elevate` is set, under the caller's own ids otherwise; returns its result.
template <class Call>
auto PrivilegedIf(bool elevate, int enterLine, int leaveLine, Call call) -> decltype(call()) {
    if (!elevate) return call();
    CriticalSection section;
    ENTERCriticalSection(section, enterLine);
    const auto result = call();
    LEAVECriticalSection(section, leaveLine);
    return result;
}

// Inputs of the rights evaluation (acl/rights.h) shared by inspect and
// check_self_denied: a user's groups, and whether a principal owns a path.
bool LoadUserGroupIds(const std::string &userName, std::vector<unsigned int> &gids);
bool IsPathOwner(const std::string &path, const KOVA_ACL_ID &principal,
                 const std::vector<unsigned int> &gids, int &errorCode);
// The WebAPI code for a failed owner lookup, from the platform's last error.
int OwnerLookupErrorCode(int lastError);

#endif
