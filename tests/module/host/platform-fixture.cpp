#include "platform-fixture.h"

#include "kova/account.h"
#include "kova/acl.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-dirsvc-admin.h"
#include "run-admin.h"
#include "share-fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

namespace kova_host {

namespace {

std::string AdminTool() { return kova_test::BuildDir() + "/bin/kova-admin"; }

std::string LastPlatformError() {
    std::ostringstream out;
    out << "[0x" << std::hex << KLIBCErrGet() << std::dec << ' ' << (KLIBCErrorGetFile() ? KLIBCErrorGetFile() : "")
        << ':' << KLIBCErrorGetLine() << ']';
    return out.str();
}

// The five fields of an entry's text, or fewer or more when malformed.
std::vector<std::string> Fields(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text + ":");
    for (std::string field; std::getline(in, field, ':');) out.push_back(field);
    return out;
}

using AclPtr = std::unique_ptr<KOVA_ACL, decltype(&KOVAACLFree)>;
using AcePtr = std::unique_ptr<KOVA_ACL_ENTRY, decltype(&KOVAACLAceFree)>;

} // namespace

PlatformRoot::PlatformRoot() {
    if (access(AdminTool().c_str(), X_OK) == 0 && Admin({"init"}) == 0) return;
    for (const char *dir : {"etc", "volumes/volume1", "var/run/tasks", "var/log"}) kova_test::MakeDirs(At(dir));
    chmod(At("var/run/tasks").c_str(), 0700);
    kova_test::WriteFile(At("etc/kovainfo.conf"), "filebrowserxferlog = \"no\"\n");
}

bool PlatformRoot::Fail(const std::string &what) {
    error_ = what;
    return false;
}

int PlatformRoot::Admin(const std::vector<std::string> &args, std::string *output) {
    std::vector<std::string> all = {"--root", path()};
    all.insert(all.end(), args.begin(), args.end());
    std::string text;
    const int rc = kova_test::RunAdmin(all, &text);
    if (output) *output = text;
    if (rc != 0) {
        std::string cmd = "kova-admin";
        for (const auto &a : args) cmd += " " + a;
        error_ = cmd + " failed (" + std::to_string(rc) + "): " + text;
    }
    return rc;
}

bool PlatformRoot::AddUser(const std::string &name, int uid, bool internal, const std::string &password) {
    if (KOVAUserAdd(name.c_str(), uid, password.c_str(), nullptr, nullptr, internal ? 1 : 0) < 0)
        return Fail("KOVAUserAdd " + name + " " + LastPlatformError());
    return true;
}

bool PlatformRoot::AddGroup(const std::string &name, int gid) {
    if (KOVAGroupAdd(name.c_str(), gid, nullptr) < 0) return Fail("KOVAGroupAdd " + name + " " + LastPlatformError());
    return true;
}

bool PlatformRoot::AddMember(const std::string &group, const std::string &user) {
    if (KOVAGroupMemberAdd(group.c_str(), user.c_str()) < 0)
        return Fail("KOVAGroupMemberAdd " + group + " " + user + " " + LastPlatformError());
    return true;
}

bool PlatformRoot::DeleteUser(const std::string &name) {
    if (KOVAUserDelete(name.c_str()) < 0) return Fail("KOVAUserDelete " + name + " " + LastPlatformError());
    return true;
}

bool PlatformRoot::DeleteGroup(const std::string &name) {
    if (KOVAGroupDelete(name.c_str()) < 0) return Fail("KOVAGroupDelete " + name + " " + LastPlatformError());
    return true;
}

int PlatformRoot::Uid(const std::string &user) const {
    int uid = -1;
    if (KOVAUserGetUGID(user.c_str(), &uid, nullptr) < 0) return -1;
    return uid;
}

int PlatformRoot::Gid(const std::string &group) const {
    int gid = -1;
    if (KOVAGroupGetGID(group.c_str(), &gid) < 0) return -1;
    return gid;
}

bool PlatformRoot::SetDomainFlag(const std::string &flag, bool value) {
    if (KovaDirsvc::DomainSetFlag(flag, value) < 0) return Fail("domain flag " + flag + " " + LastPlatformError());
    return true;
}

bool PlatformRoot::AddDomain(const std::string &name) {
    if (KovaDirsvc::DomainAdd(name) < 0) return Fail("domain add " + name + " " + LastPlatformError());
    return true;
}

bool PlatformRoot::AddOu(const std::string &name, const std::string &detail) {
    if (KovaDirsvc::OuAdd(name, detail) < 0) return Fail("ou add " + name + " " + LastPlatformError());
    return true;
}

std::string PlatformRoot::AddShare(const std::string &name, bool readOnly, bool supportAcl) {
    std::string dir = At("volumes/volume1/" + name);
    if (!kova_test::MakeDirs(dir) || chmod(dir.c_str(), 0777) != 0) {
        Fail("cannot create " + dir);
        return "";
    }
    KOVA_SHARE share = kova_share_test::Make(name, dir);
    share.supportAcl = supportAcl ? 1 : 0;
    share.isReadOnly = readOnly ? 1 : 0;
    share.aclStatus = supportAcl ? 1 : 0;
    share.defaultPriv = KOVA_SHARE_PRIV_RW;
    if (KOVAShareSet(&share) < 0) {
        Fail("KOVAShareSet " + name + " " + LastPlatformError());
        return "";
    }
    return dir;
}

bool PlatformRoot::MakeDir(const std::string &path, mode_t mode, uid_t uid, gid_t gid) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !kova_test::MakeDirs(path.substr(0, slash)))
        return Fail("cannot create the parents of " + path);
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return Fail("mkdir " + path + ": " + std::strerror(errno));
    if (chmod(path.c_str(), mode) != 0 || chown(path.c_str(), uid, gid) != 0)
        return Fail("chmod/chown " + path + ": " + std::strerror(errno));
    return true;
}

bool PlatformRoot::MakeFile(const std::string &path, const std::string &content, mode_t mode, uid_t uid, gid_t gid) {
    if (!kova_test::WriteFile(path, content)) return Fail("cannot write " + path);
    if (chmod(path.c_str(), mode) != 0 || chown(path.c_str(), uid, gid) != 0)
        return Fail("chmod/chown " + path + ": " + std::strerror(errno));
    return true;
}

bool PlatformRoot::SetAcl(const std::string &path, const std::vector<std::string> &entries, bool inheritFromParent) {
    AclPtr acl(KOVAACLAlloc(0), &KOVAACLFree);
    if (!acl) return Fail("KOVAACLAlloc " + LastPlatformError());
    for (const auto &text : entries) {
        const std::vector<std::string> f = Fields(text);
        if (f.size() != 5) return Fail("malformed entry '" + text + "'");
        AcePtr ace(KOVAACLAceAlloc(), &KOVAACLAceFree);
        if (!ace) return Fail("KOVAACLAceAlloc " + LastPlatformError());
        bool ok = KOVAACLAceParseIDType(f[0].c_str(), ace.get()) >= 0;
        ace->id = -1;
        if (ok && (ace->idType == KOVA_ACL_ID_USER || ace->idType == KOVA_ACL_ID_GROUP)) {
            const bool raw = !f[1].empty() && f[1][0] == '#';
            ace->id = raw ? std::atoi(f[1].c_str() + 1) : ace->idType == KOVA_ACL_ID_USER ? Uid(f[1]) : Gid(f[1]);
            ok = ace->id >= 0;
        }
        ok = ok && KOVAACLAceParseAccessType(f[2].c_str(), ace.get()) >= 0 &&
             KOVAACLAceParsePermission(f[3].c_str(), ace.get()) >= 0 && KOVAACLAceParseInherit(f[4].c_str(), ace.get()) >= 0;
        if (!ok) return Fail("cannot build entry '" + text + "' " + LastPlatformError());
        if (KOVAACLAceAppend(acl.get(), ace.get()) < 0) return Fail("KOVAACLAceAppend " + LastPlatformError());
        ace.release();  // the ACL owns it now
    }
    acl->isInherited = inheritFromParent ? 1 : 0;
    if (KOVAACLSet(path.c_str(), -1, acl.get()) < 0) return Fail("KOVAACLSet " + path + " " + LastPlatformError());
    return true;
}

} // namespace kova_host
