// ACLHandler::Get: a path's rules as rule objects, whether it is in ACL mode
// and inherits, and what the caller may edit.
#include "acl.h"
#include "acl-holder.h"
#include "entry-rules.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <string>

namespace {

const Json::Value kNull;

// What "type" asks for: the path's own rules ("all"), or only the entries
// it inherits ("inherite", spelt so by the WebAPI).
enum class Reading { kOwn, kInherited };

bool ParseReading(const std::string &type, Reading &reading) {
    if (type == "all") {
        reading = Reading::kOwn;
        return true;
    }
    if (type == "inherite") {
        reading = Reading::kInherited;
        return true;
    }
    return false;
}

// Reads the ACL the answer lists and records "is_acl" and "is_inherited":
// the inherited entries, the stored ACL of a path in ACL mode, or the
// entries the mode bits of any other path stand for. The reads run
// privileged when `elevate` is set. On failure `error` becomes 6205 for a
// refused read and is kept otherwise.
bool ReadAcl(const std::string &path, Reading reading, bool aclMode, bool elevate, AclHolder &acl,
             Json::Value &result, int &error) {
    result["is_acl"] = false;
    result["is_inherited"] = false;
    auto refused = [&error] {
        if (KLIBCErrGet() == KOVA_ERR_PERM) error = 6205;
        return false;
    };
    if (reading == Reading::kInherited) {
        const int rc = PrivilegedIf(elevate, 219, 221, [&] {
            return KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_INHERITED, acl.out());
        });
        return (rc < 0 || !acl.get()) ? refused() : true;
    }
    if (!aclMode) {
        const int rc = PrivilegedIf(elevate, 257, 259, [&] { return KOVAACLDumpFromMode(path.c_str(), -1, acl.out()); });
        return rc == 0 && acl.get();
    }
    result["is_acl"] = true;
    const int rc = PrivilegedIf(elevate, 239, 241, [&] {
        return KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, acl.out());
    });
    if (rc < 0 || !acl.get()) return refused();
    result["is_inherited"] = acl.get()->isInherited != 0;
    return true;
}

// Whether the caller may change the permissions of a path in ACL mode.
// A plain refusal (last error KOVA_ERR_PERM) is a "no"; any other failure
// of the check returns false.
bool MayChangePermission(const std::string &path, bool isAdmin, bool &may) {
    may = false;
    KOVA_ACL_ENTRY mask = {};
    if (KOVAACLAceParsePermission("C", &mask) < 0 || mask.permission == 0) return false;
    if (isAdmin) {
        may = true;
        return true;
    }
    const int rc = KOVAACLPermCheck(path.c_str(), mask.permission);
    if (rc > 0) {
        may = true;
        return true;
    }
    return rc == 0 && KLIBCErrGet() == KOVA_ERR_PERM;
}

} // namespace

void ACLHandler::Get() {
    const std::string type = request_->GetParam("type", kNull).asString();
    const std::string path = request_->GetParam("file_path", kNull).asString();
    // Only a definite yes makes an administrator: a failed lookup (negative)
    // must not read as one.
    const bool isAdmin = KLIBGroupIsAdminGroupMem(request_->GetLoginUserName().c_str(), 0) == 1;
    auto fail = [&] { response_->SetError(error_, kNull); };

    Reading reading = Reading::kOwn;
    if (!IsPathUnderSharedFolder(path) || !ParseReading(type, reading)) {
        error_ = 403;
        return fail();
    }

    // A negative (error) answer counts as ACL mode on purpose: the read
    // below then reports the real failure.
    const bool aclMode = PrivilegedIf(true, 210, 212, [&] {
        return KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_MODE) != 0;
    });

    Json::Value result(Json::objectValue);
    AclHolder acl;
    if (!ReadAcl(path, reading, aclMode, isAdmin, acl, result, error_)) return fail();
    result["acl"] = RulesFromAcl(*acl.get());
    result["change_permission"] = false;
    result["acl_editable"] = true;

    if (aclMode) {
        bool may = false;
        if (!MayChangePermission(path, isAdmin, may)) return fail();
        result["change_permission"] = may;
    } else {
        // Whether the editor may turn the path to ACL mode: for others than
        // administrators, a file system that cannot hold ACLs, or cannot be
        // told, says no. A code the check stores is not reported: the answer
        // itself succeeds.
        const int fsType = KOVAGetFSType(path.c_str(), 0);
        if (!isAdmin) result["acl_editable"] = fsType >= 0 && CheckFsType(fsType, path, true);
    }
    response_->SetSuccess(result);
}
