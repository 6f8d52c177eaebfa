// The set method: gathers the request into one task-parameter object,
// checks the path's share and file system, and starts the background task
// whose body checks the user's rights on the folder and applies the change.
#include "apply.h"

#include "module-log.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova/webapi.h"

#include <signal.h>

#include <memory>
#include <new>
#include <string>

namespace {

const char kLogFile[] = "acl";
enum : int {
    kLineFsTypeEnter = 760,
    kLineFsTypeLeave = 762,
    kLineFsType = 765,
    kLineStartEnter = 775,
    kLineStartLeave = 777,
    kLineFullPathBadArg = 812,
    kLineFullPathBadPath = 814,
    kLineFullPath = 816,
    kLineOutsideFolder = 822,
    kLineCheckPath = 828,
    kLinePrivilege = 868,
    kLineApply = 885,
};

void OnTerminate(int) { gSetAclStopRequested = 1; }

struct ShareDeleter {
    void operator()(KOVA_SHARE *share) const { KOVAShareFree(share); }
};
typedef std::unique_ptr<KOVA_SHARE, ShareDeleter> SharePtr;

// The code of a folder that cannot be named or resolved.
int FolderError() {
    switch (KLIBCErrGet()) {
    case KOVA_ERR_NOENT: return 6207;
    case KOVA_ERR_BADPATH: return 6206;
    default: return 6200;
    }
}

// True when `path` is `folder` or lies below it. The boundary is a whole
// path component: "/vol/pub2/x" does not lie in "/vol/pub", or every later
// share check would be made against the wrong share.
bool LiesIn(const std::string &path, const std::string &folder) {
    if (path.compare(0, folder.size(), folder) != 0) return false;
    if (path.size() == folder.size()) return true;
    return (!folder.empty() && folder.back() == '/') || path[folder.size()] == '/';
}

// Runs the task's checks and the apply; 0 when the task succeeded, else the
// task's error code. The share record, if got, is released on return.
int RunSetTask(KOVA::APIRequest *request, KOVA::APIResponse *response, Json::Value &params) {
    signal(SIGTERM, OnTerminate);
    // Whatever failed before the task began (in the request that started it
    // or in the polling facility) is not the task's error.
    KLIBCErrSetEx(0, nullptr, 0);

    std::string dirPaths = params["dirPaths"].asString();
    const std::string userName = params["username"].asString();
    if (userName.empty() || dirPaths.empty()) return FolderError();

    // A folder named with trailing slashes is the same folder; "/" alone stays.
    const std::string::size_type last = dirPaths.find_last_not_of('/');
    if (last != std::string::npos) dirPaths.erase(last + 1);
    if (dirPaths.empty()) return FolderError();

    PanoraFileShare fileShare;
    std::string realPath, shareName, shareRoot, allowedPath;
    if (fileShare.WfmFullPathGet(dirPaths, realPath, shareName, shareRoot, allowedPath, userName) != 0) {
        switch (fileShare.WfmLibGetErr()) {
        case KOVA_WFM_ERR_BADARG: KLIBCErrSetEx(KOVA_ERR_BADARG, kLogFile, kLineFullPathBadArg); break;
        case KOVA_WFM_ERR_BADPATH: KLIBCErrSetEx(KOVA_ERR_BADPATH, kLogFile, kLineFullPathBadPath); break;
        default: break;
        }
        KOVA_LOG(LOG_ERR, kLogFile, kLineFullPath, "Fail to get the Full Path, %s , %s",
                 params["dirPaths"].asString().c_str(), dirPaths.c_str());
        return FolderError();
    }

    const std::string filePath = params["file_path"].asString();
    if (!LiesIn(filePath, realPath)) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineOutsideFolder, "Invalid path:%s", filePath.c_str());
        return 6206;
    }
    if (fileShare.WfmCheckPath(filePath) != 0) {
        const int err = KLIBCErrGet();
        KOVA_LOG(LOG_ERR, kLogFile, kLineCheckPath, "Invalid path:%s, reason=[%X]", filePath.c_str(), err);
        switch (err) {
        case KOVA_ERR_PERM: return 6205;
        case KOVA_ERR_NOENT: return 6206;
        default: return 6200;
        }
    }

    const bool isHome = fileShare.IsDirUserHome(shareName, 0);
    if (isHome) shareName = "homes";
    const bool isAdmin = KLIBGroupIsAdminGroupMem(userName.c_str(), 0) == 1;

    PKOVA_SHARE rawShare = nullptr;
    const int shareResult = KOVAShareGet(shareName.c_str(), &rawShare);
    SharePtr share(rawShare);
    if (shareResult < 0 || !share) return 402;
    if (KOVAShareIsSupportAcl(share.get()) <= 0) return 3302;

    int encrypted = 0, readOnly = 0, aclStatus = 0;
    if (KLIBShareIsEncryptedGet(share.get(), &encrypted) != 0) return 6200;
    if (KLIBShareIsReadOnlyGet(share.get(), &readOnly) != 0) return 6200;
    if (KLIBShareACLStatusGet(share.get(), &aclStatus) != 0) return 6200;
    if (encrypted || aclStatus == 0) return 3302;
    // A read-only share still lets one path (its root) change its ACL.
    if (readOnly && filePath != allowedPath) return 6214;

    if (!isHome && !isAdmin) {
        int privilege = 0, flags = 0;
        const std::string sessionId = params["sessionid"].asString();
        if (fileShare.WfmLibGetPrivilege(dirPaths, userName, sessionId, &privilege, &flags) != 0) {
            const int err = fileShare.WfmLibGetErr();
            if (err == KOVA_WFM_ERR_BADPATH) return 6206;
            if (err == KOVA_WFM_ERR_PRIVILEGE) return 6208;
            KOVA_LOG(LOG_ERR, kLogFile, kLinePrivilege, "failed to check privilege of path %s, reason=[%d] ",
                     params["dirpath"].asString().c_str(), err);
            return 6200;
        }
        if (privilege != KOVA_SHARE_PRIV_RW || (flags & KOVA_WFM_PRIV_FLAG_READONLY) != 0) return 6209;
    }

    if (gSetAclStopRequested) return 6200;

    ACLHandler handler(request, response);
    const int applied = handler.ApplyACLFileProperty(response, params);
    if (applied != 0) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineApply, "failed to set acl file property");
        return applied;
    }
    return 0;
}

} // namespace

void ACLHandler::Set() {
    KOVA::APIPolling polling;
    polling.SetRequest(request_);
    polling.SetRemoveAttr(false);
    polling.SetPrefixAttr("setacl");

    Json::Value params(Json::objectValue);
    params["rules"] = request_->HasParam("rules") ? request_->GetParam("rules", Json::Value())
                                                  : Json::Value(Json::arrayValue);
    params["file_path"] = request_->GetParam("file_path", Json::Value());
    params["dirPaths"] = request_->GetParam("dirPaths", Json::Value());
    params["acl_recur"] = request_->GetParam("acl_recur", Json::Value());
    params["username"] = request_->GetLoginUserName();
    params["sessionid"] = request_->GetSessionID();
    params["change_acl"] = request_->GetParam("change_acl", false);
    params["inherited"] = request_->GetParam("inherited", false);
    params["change_acl_owner"] = request_->GetParam("change_acl_owner", false);
    params["acl_owner_type"] = request_->GetParam("acl_owner_type", "");
    params["acl_owner"] = request_->GetParam("acl_owner", "");
    params["acl_owner_recur"] = request_->GetParam("acl_owner_recur", false);

    const std::string filePath = params["file_path"].asString();
    if (!IsPathUnderSharedFolder(filePath)) {
        response_->SetError(403, Json::Value());
        return;
    }

    CriticalSection section;
    ENTERCriticalSection(section, kLineFsTypeEnter);
    const int fsType = KOVAGetFSType(filePath.c_str(), 0);
    LEAVECriticalSection(section, kLineFsTypeLeave);
    if (fsType < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineFsType, "Failed to get the file system statistics of '%s', errno: %m",
                 filePath.c_str());
        response_->SetError(error_, Json::Value());
        return;
    }
    if (!CheckFsType(fsType, filePath, false)) {
        response_->SetError(error_, Json::Value());
        return;
    }

    // The task starts with raised rights and lowers them to the requesting
    // user itself before it touches any file.
    ENTERCriticalSection(section, kLineStartEnter);
    const bool started = polling.Start(response_, SetACLChildFunc, &params);
    LEAVECriticalSection(section, kLineStartLeave);
    // Start answers with the task id; a start that failed without saying
    // so must still leave the response set.
    if (!started && !response_->IsSet()) response_->SetError(error_, Json::Value());
}

void ACLHandler::SetACLChildFunc(KOVA::APIRequest *request, KOVA::APIResponse *response, void *data) {
    // The task runs in its own process: nothing may escape it as an exception.
    try {
        Json::Value &params = *static_cast<Json::Value *>(data);
        const int result = RunSetTask(request, response, params);
        if (result == 0) {
            Json::Value done(Json::objectValue);
            done["finished"] = true;
            response->SetSuccess(done);
        } else {
            response->SetError(result, Json::Value());
        }
    } catch (const std::bad_alloc &) {
        response->SetError(2617, Json::Value());
    } catch (...) {
        response->SetError(6200, Json::Value());
    }
}
