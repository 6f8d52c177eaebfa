// ApplyACLFileProperty and its companions: the owner change, the ACL
// replacement and the recursive walk that the set task performs once for
// the request's path.
#include "apply.h"
#include "tree-walk.h"

#include "acl-object.h"
#include "module-log.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova/stringbundle.h"
#include "kova/webapi.h"
#include "kova/xferlog.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>

volatile sig_atomic_t gSetAclStopRequested = 0;

namespace {

// Log lines of this family carry the handler's file name and a fixed line.
const char kLogFile[] = "acl";
enum : int {
    kLineXferLog = 1120,
    kLineOpenDir = 1180,
    kLineOwnerEnter = 1230,
    kLineOwnerLeave = 1232,
    kLineConvert = 1290,
    kLineCheckAce = 1296,
    kLineDupAce = 1302,
    kLineAppendAce = 1308,
    kLineUgid = 1325,
    kLineOwner = 1345,
    kLineSetAcl = 1358,
};

// Children are reported every this many entries, starting with the first.
const uint64_t kProgressEvery = 500;

const char *ErrFile() {
    const char *file = KLIBCErrorGetFile();
    return file ? file : "";
}

struct AclDeleter {
    void operator()(KOVA_ACL *acl) const { KOVAACLFree(acl); }
};
typedef std::unique_ptr<KOVA_ACL, AclDeleter> AclPtr;

void PublishProgress(KOVA::APIResponse *response, const std::string &path) {
    Json::Value progress(Json::objectValue);
    progress["applypath"] = path;
    progress["finished"] = false;
    response->SetSuccess(progress);
}

// Appends the rules to `acl` in their order; 0 or the request's error code.
int BuildAcl(const Json::Value &rules, KOVA_ACL *acl) {
    unsigned int state = 0;
    for (Json::Value::const_iterator it = rules.begin(); it != rules.end(); ++it) {
        KOVA_ACL_ENTRY ace;
        memset(&ace, 0, sizeof(ace));
        if (!RuleObj2AclAce(*it, &ace)) {
            const int err = KLIBCErrGet();
            KOVA_LOG(LOG_ERR, kLogFile, kLineConvert, "failed to convert acl str[0x%04X %s:%d]", err, ErrFile(),
                     KLIBCErrorGetLine());
            return (err == KOVA_ERR_NOGROUP || err == KOVA_ERR_NOUSER) ? 6211 : 6200;
        }
        if (KOVAACLAceIsValid(&ace, &state) == 0) {
            KOVA_LOG(LOG_ERR, kLogFile, kLineCheckAce, "failed to check acl[0x%04X %s:%d]", KLIBCErrGet(), ErrFile(),
                     KLIBCErrorGetLine());
            return 6200;
        }
        PKOVA_ACL_ENTRY copy = KOVAACLAceDup(&ace);
        if (!copy) {
            KOVA_LOG(LOG_ERR, kLogFile, kLineDupAce, "failed to dup acl[0x%04X %s:%d]", KLIBCErrGet(), ErrFile(),
                     KLIBCErrorGetLine());
            return 6200;
        }
        if (KOVAACLAceAppend(acl, copy) < 0) {
            // A refused entry stays ours to free.
            KOVAACLAceFree(copy);
            KOVA_LOG(LOG_ERR, kLogFile, kLineAppendAce, "failed to append ace[0x%04X %s:%d]", KLIBCErrGet(),
                     ErrFile(), KLIBCErrorGetLine());
            return 6200;
        }
    }
    return 0;
}

// Gives one walked entry an empty ACL that inherits everything from above.
void ResetToInheriting(const std::string &path) {
    AclPtr empty(KOVAACLAlloc(0));
    if (!empty) return;
    empty->isInherited = 1;
    // A child that refuses keeps what it had; the walk goes on.
    (void)KOVAACLSet(path.c_str(), -1, empty.get());
}

void ApplyToEntry(ApplyState &state, uint64_t &counter, KOVA::APIResponse *response) {
    int ownerResult = 0;
    if (state.ownerRecursive) ownerResult = ChangeOwner(state.path, state.owner);
    if (state.aclRecursive && ownerResult == 0) ResetToInheriting(state.path);
    if (counter % kProgressEvery == 0) PublishProgress(response, state.path);
    ++counter;
}

bool SkippedName(const char *name) {
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return true;
    if (KOVAEAIsHiddenDir(name) != 0) return true;
    return strcmp(name, "#recycle") == 0;
}

} // namespace

int ChangeOwner(const std::string &path, const KOVA_ACL_ID &owner) {
    CriticalSection section;
    ENTERCriticalSection(section, kLineOwnerEnter);
    const int inAclMode = KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_MODE);
    LEAVECriticalSection(section, kLineOwnerLeave);

    AclPtr dumped;
    if (inAclMode == 0) {
        PKOVA_ACL fromMode = nullptr;
        const int dumpResult = KOVAACLDumpFromMode(path.c_str(), -1, &fromMode);
        dumped.reset(fromMode);
        if (dumpResult != 0 || !dumped) return 6200;
        if (KOVAACLSet(path.c_str(), -1, dumped.get()) != 0) return 6200;
    }
    if (KOVAACLOwnerIdSet(path.c_str(), &owner) != 0) {
        switch (KLIBCErrGet()) {
        case KOVA_ERR_PERM: return 6209;
        case KOVA_ERR_OWNER_CHANGE: return 6213;
        default: return 6200;
        }
    }
    return 0;
}

bool ApplyToChildren(ApplyState &state, uint64_t &counter, KOVA::APIResponse *response) {
    if (state.path.empty()) return false;
    // The one path string is shared by the whole walk, so memory stays flat
    // in tree size; the walk rewrites it for every entry.
    TreeWalk walk(state.path);
    if (!walk.Start()) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineOpenDir, "Failed to open %s. reason: %s", state.path.c_str(),
                 strerror(walk.error()));
        return false;
    }
    for (;;) {
        TreeWalk::Kind kind = TreeWalk::Kind::kPlain;
        switch (walk.Next(SkippedName, kind)) {
        case TreeWalk::Step::kEnd:
            return true;
        case TreeWalk::Step::kFailed:
            // One folder that cannot be opened anywhere ends the walk.
            if (walk.openFailed())
                KOVA_LOG(LOG_ERR, kLogFile, kLineOpenDir, "Failed to open %s. reason: %s", state.path.c_str(),
                         strerror(walk.error()));
            return false;
        case TreeWalk::Step::kEntry:
            break;
        }
        // Links are neither changed nor followed.
        if (kind != TreeWalk::Kind::kLink) ApplyToEntry(state, counter, response);
        if (gSetAclStopRequested) return false;
    }
}

void AddXferLog(const std::string &userName, const std::string &loggedPath, mode_t mode, off_t size) {
    const char *remote = getenv("REMOTE_ADDR");
    if (!remote) remote = "unknown";
    const bool isDir = S_ISDIR(mode);
    const unsigned long long logged = isDir ? 0ULL : static_cast<unsigned long long>(size);
    if (KOVALogXferLog(remote, userName.c_str(), "property set", logged, loggedPath.c_str(), isDir ? 1 : 0, 3) == -1) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineXferLog, "Failed to add the File Browser log for %s", loggedPath.c_str());
    }
}

int ACLHandler::ApplyACLFileProperty(KOVA::APIResponse *response, Json::Value &property) {
    AclPtr acl(KOVAACLAlloc(0));
    StringBundle bundle(3, "property");
    PanoraFileShare fileShare;
    if (!acl) return 6200;

    const std::string filePath = property["file_path"].asString();
    const std::string userName = property["username"].asString();
    const std::string sessionId = property["sessionid"].asString();

    PublishProgress(response, filePath);

    ApplyState state;
    state.changeOwner = property["change_acl_owner"].asBool();
    if (state.changeOwner) {
        const std::string ownerType = property["acl_owner_type"].asString();
        if (ownerType.empty()) return 6211;
        const std::string ownerName = property["acl_owner"].asString();
        if (ownerName.empty()) return 6211;
        if (!Owner2AclId(ownerType, ownerName, state.owner)) return 6211;
        // Only a user or a group can own a path.
        if (state.owner.idType != KOVA_ACL_ID_USER && state.owner.idType != KOVA_ACL_ID_GROUP) return 6211;
        state.ownerRecursive = property["acl_owner_recur"].asBool();
    }

    state.changeAcl = property["change_acl"].asBool();
    if (state.changeAcl) {
        const int built = BuildAcl(property["rules"], acl.get());
        if (built != 0) return built;
        acl->isInherited = property["inherited"].asBool() ? 1 : 0;
    }
    state.acl = acl.get();

    struct stat st;
    if (lstat(filePath.c_str(), &st) != 0) return 6200;

    if (fileShare.WfmLibUGIDSet(sessionId, userName) != 0) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineUgid, "Failed to set UGID for id=%s of user=%s", sessionId.c_str(),
                 userName.c_str());
        return 6200;
    }

    state.aclRecursive = property["acl_recur"].asBool();
    state.path = filePath;
    const bool isDir = S_ISDIR(st.st_mode);
    const bool recursive = isDir && (state.aclRecursive || state.ownerRecursive);

    if (KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "yes", 0) != 0) {
        std::string loggedPath = filePath;
        if (recursive) loggedPath += "/ **" + bundle.Text("privilege_recursive", "") + "**";
        AddXferLog(userName, loggedPath, st.st_mode, st.st_size);
    }

    // An owner changed successfully turns the later unmapped failures into
    // success: the request did what it could on the path itself.
    int ownerResult = 6200;
    if (state.changeOwner) {
        ownerResult = ChangeOwner(state.path, state.owner);
        if (ownerResult != 0) {
            KOVA_LOG(LOG_ERR, kLogFile, kLineOwner, "failed to change acl owner[0x%04X %s:%d]", KLIBCErrGet(),
                     ErrFile(), KLIBCErrorGetLine());
            return ownerResult;
        }
    }

    if (state.changeAcl) {
        if (KOVAACLGetMaxACECount() < acl->aceCount) return 6215;
        if (KOVAACLSet(state.path.c_str(), -1, acl.get()) != 0) {
            KOVA_LOG(LOG_ERR, kLogFile, kLineSetAcl, "Failed to set acl %s, errno: %m", state.path.c_str());
            switch (KLIBCErrGet()) {
            case KOVA_ERR_ACL_DENIED: return 6205;
            case KOVA_ERR_ACL_NOSPACE: return 6216;
            case KOVA_ERR_ACL_NOTSUP: return 6201;
            default: return ownerResult;
            }
        }
    }

    if (recursive) {
        uint64_t counter = 0;
        if (!ApplyToChildren(state, counter, response)) return ownerResult;
    }
    return 0;
}
