// kova-admin share add|priv|list|show: share records and privileges.
#include "command.h"

#include "kova/account.h"
#include "kova-internal/paths.h"
#include "kova-internal/real-path.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

using kova_admin::Fail;
using kova_admin::FailPlain;

struct ShareDeleter {
    void operator()(KOVA_SHARE *p) const { KOVAShareFree(p); }
};
struct ListDeleter {
    void operator()(KLIBC_SZLIST *p) const { KLIBCSzListFree(p); }
};

bool ParsePriv(const std::string &text, int &out) {
    if (text == "none") out = KOVA_SHARE_PRIV_NONE;
    else if (text == "ro") out = KOVA_SHARE_PRIV_RO;
    else if (text == "rw") out = KOVA_SHARE_PRIV_RW;
    else return false;
    return true;
}

const char *PrivText(int p) {
    switch (p) {
    case KOVA_SHARE_PRIV_NONE: return "none";
    case KOVA_SHARE_PRIV_RO: return "ro";
    case KOVA_SHARE_PRIV_RW: return "rw";
    default: return "?";
    }
}

int RunAdd(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {"--path", "--acl-status", "--default-priv", "--comment", "--mode", "--owner"});
    if (pos.size() != 1) return FailPlain("usage: share add NAME [--path P] [options]");
    const std::string &name = pos[0];
    std::string path = kova_admin::Option(args, "--path");
    if (path.empty()) path = std::string(KLIBCRootGet()) + "/volumes/volume1/" + name;
    if (path[0] != '/') return FailPlain("the share path must be absolute: " + path);
    struct stat before;
    bool created = lstat(path.c_str(), &before) != 0;
    // A new folder is root's, mode 0755, unless asked otherwise: access is
    // granted by share privileges and ACLs, not by an open mode.
    std::string modeText = kova_admin::Option(args, "--mode"), ownerText = kova_admin::Option(args, "--owner");
    unsigned long mode = 0755;
    if (!modeText.empty()) {
        char *end = nullptr;
        mode = std::strtoul(modeText.c_str(), &end, 8);
        if (*end || mode > 07777) return FailPlain("--mode takes an octal mode such as 0750");
    }
    int ownerUid = 0, ownerGid = 0;
    if (!ownerText.empty() && KOVAUserGetUGID(ownerText.c_str(), &ownerUid, &ownerGid) < 0)
        return Fail("cannot use '" + ownerText + "' as the folder's owner");
    std::string aclStatus = kova_admin::Option(args, "--acl-status", "1");
    if (aclStatus != "0" && aclStatus != "1") return FailPlain("--acl-status takes 0 or 1");
    int defaultPriv;
    if (!ParsePriv(kova_admin::Option(args, "--default-priv", "rw"), defaultPriv))
        return FailPlain("--default-priv takes none, ro or rw");

    KOVA_SHARE share;
    std::memset(&share, 0, sizeof share);
    if (name.size() >= sizeof share.szName) return FailPlain("share name too long");
    std::snprintf(share.szName, sizeof share.szName, "%s", name.c_str());
    std::string comment = kova_admin::Option(args, "--comment");
    std::snprintf(share.szComment, sizeof share.szComment, "%s", comment.c_str());
    share.supportAcl = kova_admin::HasFlag(args, "--no-acl") ? 0 : 1;
    share.isReadOnly = kova_admin::HasFlag(args, "--read-only") ? 1 : 0;
    share.isEncrypted = kova_admin::HasFlag(args, "--encrypted") ? 1 : 0;
    share.aclStatus = aclStatus == "1" ? 1 : 0;
    share.defaultPriv = defaultPriv;

    if (!kova_internal::MakeDirs(path)) return FailPlain("cannot create " + path + ": " + std::strerror(errno));
    if (created || !modeText.empty() || !ownerText.empty()) {
        int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        bool ok = fd >= 0 && (!(created || !modeText.empty()) || fchmod(fd, static_cast<mode_t>(mode)) == 0) &&
                  (!(created || !ownerText.empty()) || fchown(fd, static_cast<uid_t>(ownerUid), static_cast<gid_t>(ownerGid)) == 0);
        if (fd >= 0) close(fd);
        if (!ok) return FailPlain("cannot set the mode or owner of " + path + ": " + std::strerror(errno));
    }
    std::string real;
    if (const int err = kova_internal::RealPathOf(path, real); err != 0)
        return FailPlain("cannot resolve " + path + ": " + std::strerror(err));
    if (real.size() >= sizeof share.szPath) return FailPlain("the share path is too long: " + real);
    std::snprintf(share.szPath, sizeof share.szPath, "%s", real.c_str());
    if (KOVAShareSet(&share) < 0) return Fail("cannot store share " + name);
    std::printf("share %s at %s\n", share.szName, share.szPath);
    return 0;
}

int RunPriv(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {"--user", "--group"});
    std::string user = kova_admin::Option(args, "--user"), group = kova_admin::Option(args, "--group");
    int priv;
    if (pos.size() != 2 || user.empty() == group.empty() || !ParsePriv(pos[1], priv))
        return FailPlain("usage: share priv NAME (--user U|--group G) none|ro|rw");
    if (!user.empty() && KOVAUserGetUGID(user.c_str(), nullptr, nullptr) < 0) return Fail("no such user " + user);
    int gid = -1;
    if (!group.empty() && KOVAGroupGetGID(group.c_str(), &gid) < 0) return Fail("no such group " + group);
    if (KOVASharePrivSet(pos[0].c_str(), user.empty() ? 4 : 1, user.empty() ? group.c_str() : user.c_str(), priv) < 0)
        return Fail("cannot set the privilege on " + pos[0]);
    return 0;
}

int RunList(const std::vector<std::string> &args) {
    std::unique_ptr<KLIBC_SZLIST, ListDeleter> list(KLIBCSzListAlloc(256));
    if (!list) return Fail("out of memory");
    PKLIBC_SZLIST raw = list.release();
    int n = KOVAShareEnum(&raw);
    list.reset(raw);
    if (n < 0) return Fail("cannot list shares");
    for (int i = 0; i < list->nItem; ++i) {
        const char *name = KLIBCSzListGet(list.get(), i);
        PKOVA_SHARE s = nullptr;
        if (!name || KOVAShareGet(name, &s) < 0) return Fail(std::string("cannot read share ") + (name ? name : ""));
        std::unique_ptr<KOVA_SHARE, ShareDeleter> owned(s);
        std::printf("%s\t%s\n", s->szName, s->szPath);
    }
    return 0;
}

int RunShow(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: share show NAME");
    PKOVA_SHARE s = nullptr;
    if (KOVAShareGet(pos[0].c_str(), &s) < 0) return Fail("no such share " + pos[0]);
    std::unique_ptr<KOVA_SHARE, ShareDeleter> owned(s);
    std::printf("name: %s\npath: %s\ncomment: %s\nacl: %d\nacl_status: %d\nread_only: %d\nencrypted: %d\n"
                "default_priv: %s\n",
                s->szName, s->szPath, s->szComment, s->supportAcl, s->aclStatus, s->isReadOnly, s->isEncrypted,
                PrivText(s->defaultPriv));
    return 0;
}

kova_admin::Registration add({"share add",
                              "share add NAME [--path P] [--no-acl] [--read-only] [--encrypted] [--acl-status 0|1] "
                              "[--default-priv none|ro|rw] [--comment C] [--mode OCTAL] [--owner USER]",
                              "create or replace a share", RunAdd});
kova_admin::Registration priv({"share priv", "share priv NAME (--user U|--group G) none|ro|rw",
                               "set a user's or group's privilege on a share", RunPriv});
kova_admin::Registration list({"share list", "share list", "list shares (name, path)", RunList});
kova_admin::Registration show({"share show", "share show NAME", "show a share record", RunShow});

} // namespace
