// The request handler's frame: construction, the checks several methods
// share (file-system type, share of a path), the owner mapping and the
// privileged section.
#include "acl.h"
#include "module-log.h"

#include "kova/account.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

ACLHandler::ACLHandler(KOVA::APIRequest *request, KOVA::APIResponse *response)
    : request_(request), response_(response), error_(6200) {}

ACLHandler::~ACLHandler() {}

bool ACLHandler::CheckFsType(int fsType, const std::string &path, bool checkAclSupport) {
    // File systems that cannot hold ACLs at all.
    if (fsType == FSTYPE_EXFAT || fsType == FSTYPE_NTFS || fsType == FSTYPE_VFAT || fsType == FSTYPE_HFSPLUS) {
        error_ = 6212;
        return false;
    }
    if (checkAclSupport) {
        const int supported = PrivilegedIf(true, 99, 101, [&] {
            return KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_FS);
        });
        if (supported == 0) {
            error_ = 6201;
            return false;
        }
    }
    // Types never offered for ACL editing: unknown, pseudo and FUSE mounts.
    if (fsType == FSTYPE_UNKNOWN || fsType == FSTYPE_PSEUDO || fsType == FSTYPE_FUSE) {
        error_ = 6202;
        return false;
    }
    if (KOVAFSIsRemoteFS(fsType) == 1) {
        error_ = 6203;
        return false;
    }
    if (KOVAFSIsImageFS(fsType) == 1) {
        error_ = 6204;
        return false;
    }
    return true;
}

bool ACLHandler::IsPathUnderSharedFolder(const std::string &path, std::string &sharePath) {
    if (path.empty()) return false;
    char name[KOVA_SHARE_NAME_MAX];
    char root[4096];
    std::memset(name, 0, sizeof name);
    std::memset(root, 0, sizeof root);
    if (KOVAShareNamePathGet(path.c_str(), name, sizeof name, root, sizeof root) < 0) {
        KOVA_LOG(LOG_ERR, "acl", 1943, "failed to get share name from path");
        return false;
    }
    root[sizeof root - 1] = '\0';
    sharePath = root;
    return true;
}

bool ACLHandler::IsPathUnderSharedFolder(const std::string &path) {
    std::string scratch;
    return IsPathUnderSharedFolder(path, scratch);
}

bool Owner2AclId(const std::string &ownerType, const std::string &ownerName, KOVA_ACL_ID &out) {
    if (ownerType == "user") {
        PKOVA_USER user = nullptr;
        if (KOVAUserGet(ownerName.c_str(), &user) == 0 && user) {
            out.idType = KOVA_ACL_ID_USER;
            out.id = static_cast<int>(user->uid);
            KOVAUserFree(user);
            return true;
        }
        KOVAUserFree(user);
        KOVA_LOG(LOG_ERR, "acl", 130, "Failed to get user '%s' [0x%04X %s:%d]", ownerName.c_str(), KLIBCErrGet(),
                 KLIBCErrorGetFile(), KLIBCErrorGetLine());
        return false;
    }
    if (ownerType == "group") {
        // Group lookups report success as any non-negative result, unlike
        // user lookups (exactly 0).
        PKOVA_GROUP group = nullptr;
        if (KOVAGroupGet(ownerName.c_str(), &group) >= 0 && group) {
            out.idType = KOVA_ACL_ID_GROUP;
            out.id = static_cast<int>(group->gid);
            KOVAGroupFree(group);
            return true;
        }
        KOVAGroupFree(group);
        KOVA_LOG(LOG_ERR, "acl", 140, "Failed to load group '%s' [0x%04X %s:%d]", ownerName.c_str(), KLIBCErrGet(),
                 KLIBCErrorGetFile(), KLIBCErrorGetLine());
        return false;
    }
    if (ownerType == "everyone") {
        out.idType = KOVA_ACL_ID_EVERYONE;
        out.id = -1;
        return true;
    }
    if (ownerType == "authenticated_user") {
        out.idType = KOVA_ACL_ID_AUTHUSER;
        out.id = -1;
        return true;
    }
    if (ownerType == "system") {
        out.idType = KOVA_ACL_ID_SYSTEM;
        out.id = -1;
        return true;
    }
    return false;
}

// ---- privileged section -----------------------------------------------

namespace {

const int kWarningPriority = LOG_AUTH | LOG_DEBUG;
const int kErrorPriority = LOG_AUTH | LOG_ERR;

// strerror_r comes in two shapes: the GNU one returns the text (which may
// not be in the buffer), the XSI one fills the buffer and returns 0.
[[maybe_unused]] const char *ErrorText(char *result, const char *) { return result; }
[[maybe_unused]] const char *ErrorText(int result, const char *buffer) { return result == 0 ? buffer : "Unknown error"; }

void LogIdChange(int line, const char *which, int real, int effective, int saved) {
    KOVA_LOG(kWarningPriority, "acl", line, "WARNING: set%s(%d, %d, %d)", which, real, effective, saved);
}

// Logs a failed id change with the error text of errno, then marks the
// section as failed (errno 1) and logs which bracket failed.
void LogIdFailure(int line, const char *bracket, const char *which, int real, int effective, int saved) {
    char buffer[1024];
    std::memset(buffer, 0, sizeof buffer);
    const char *text = ErrorText(strerror_r(errno, buffer, sizeof buffer), buffer);
    KOVA_LOG(kErrorPriority, "acl", line, "ERROR: set%s(%d, %d, %d) [%s]", which, real, effective, saved, text);
    errno = 1;
    KOVA_LOG(kErrorPriority, "acl", line, "ERROR: %s", bracket);
}

} // namespace

void ENTERCriticalSection(CriticalSection &section, int line) {
    static const char kBracket[] = "ENTERCriticalSection";
    section.savedUid = geteuid();
    section.savedGid = getegid();
    if (section.savedGid != 0) {
        if (setresgid(static_cast<gid_t>(-1), 0, static_cast<gid_t>(-1)) != 0) {
            LogIdFailure(line, kBracket, "resgid", -1, 0, -1);
            return;
        }
        LogIdChange(line, "resgid", -1, 0, -1);
    }
    if (section.savedUid != 0) {
        if (setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) {
            LogIdFailure(line, kBracket, "resuid", -1, 0, -1);
            return;
        }
        LogIdChange(line, "resuid", -1, 0, -1);
    }
    errno = 0;
}

void LEAVECriticalSection(CriticalSection &section, int line) {
    static const char kBracket[] = "LEAVECriticalSection";
    const uid_t currentUid = geteuid();
    const gid_t currentGid = getegid();
    const bool uidChanged = currentUid != section.savedUid;
    const bool gidChanged = currentGid != section.savedGid;
    const int savedUid = static_cast<int>(section.savedUid);
    const int savedGid = static_cast<int>(section.savedGid);

    if (uidChanged) {
        // Root first: only root may put the group back.
        if (setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) {
            LogIdFailure(line, kBracket, "resuid", -1, 0, -1);
            return;
        }
        LogIdChange(line, "resuid", -1, 0, -1);
    } else if (!gidChanged) {
        errno = 0;
        return;
    }
    if (!uidChanged || gidChanged) {
        if (setresgid(static_cast<gid_t>(-1), section.savedGid, static_cast<gid_t>(-1)) != 0) {
            LogIdFailure(line, kBracket, "resgid", -1, savedGid, -1);
            return;
        }
        if (section.savedGid == 0) LogIdChange(line, "resgid", -1, savedGid, -1);
        if (!uidChanged) {
            errno = 0;
            return;
        }
    }
    if (setresuid(static_cast<uid_t>(-1), section.savedUid, static_cast<uid_t>(-1)) != 0) {
        LogIdFailure(line, kBracket, "resuid", -1, savedUid, -1);
        return;
    }
    if (section.savedUid == 0) LogIdChange(line, "resuid", -1, savedUid, -1);
    errno = 0;
}
