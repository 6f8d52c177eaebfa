// kova-admin user commands: local users in <root>/etc/accounts.db.
#include "command.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace kova_admin;

namespace {

const std::vector<std::string> kValueOptions = {"--uid", "--password", "--desc", "--email", "--gid", "--disabled", "--name"};

const char *OptOrNull(const std::vector<std::string> &args, const std::string &key, std::string &store) {
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == key) {
            store = args[i + 1];
            return store.c_str();
        }
    return nullptr;
}

bool ParseId(const std::string &text, int &out) {
    char *end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end || v < 0 || v > 0x7FFFFFFF) return false;
    out = static_cast<int>(v);
    return true;
}

int UserAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, kValueOptions);
    if (pos.size() != 1) return FailPlain("usage: user add NAME [--uid N] [--password P] [--desc D] [--email E] [--internal]");
    int uid = -1;
    std::string uidText = Option(args, "--uid");
    if (!uidText.empty() && !ParseId(uidText, uid)) return FailPlain("invalid uid '" + uidText + "'");
    std::string pw, desc, email;
    if (KOVAUserAdd(pos[0].c_str(), uid, OptOrNull(args, "--password", pw), OptOrNull(args, "--desc", desc),
                    OptOrNull(args, "--email", email), HasFlag(args, "--internal") ? 1 : 0) != 0) {
        if (KLIBCErrGet() != KOVA_ERR_EXIST) return Fail("cannot add user '" + pos[0] + "'");
        int existing = -1;
        if (KOVAUserGetUGID(pos[0].c_str(), &existing, nullptr) == 0) return FailPlain("user '" + pos[0] + "' already exists");
        return FailPlain("cannot add user '" + pos[0] + "': uid " + uidText +
                         " is taken (by another account or a domain's id range)");
    }
    return 0;
}

const char *Source(const std::string &name) {
    if (name.find('\\') != std::string::npos) return "domain";
    if (name.find('@') != std::string::npos) return "ldap";
    return "local";
}

// One account in full: where it comes from, its ids, flags and groups.
int UserShow(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: user show NAME");
    PKOVA_USER u = nullptr;
    if (KOVAUserGet(pos[0].c_str(), &u) != 0) return Fail("cannot show user '" + pos[0] + "'");
    std::printf("name: %s\nsource: %s\nuid: %u\ngid: %u\ninternal: %s\ndisabled: %s\ndescription: %s\nemail: %s\n",
                u->szName, Source(u->szName), u->uid, u->gid, u->isInternal ? "yes" : "no", u->isDisabled ? "yes" : "no",
                u->szDesc ? u->szDesc : "", u->szEmail ? u->szEmail : "");
    KOVAUserFree(u);
    PKLIBC_SZLIST groups = KLIBGroupInfoListGet(pos[0].c_str(), 0);
    if (!groups) return Fail("cannot read the groups of '" + pos[0] + "'");
    std::string line;
    for (int i = 0; i < groups->nItem; ++i) {
        const char *g = KLIBCSzListGet(groups, i);
        if (!g) continue;
        PKOVA_GROUP grp = nullptr;
        std::string shown = g;
        if (KOVAGroupGetByGID(static_cast<unsigned>(std::strtoul(g, nullptr, 10)), &grp) >= 0 && grp)
            shown = std::string(grp->szName) + " (" + g + ")";
        KOVAGroupFree(grp);
        line += (line.empty() ? "" : ", ") + shown;
    }
    KLIBCSzListFree(groups);
    std::printf("groups: %s\n", line.c_str());
    return 0;
}

int UserSet(const std::vector<std::string> &args) {
    auto pos = Positionals(args, kValueOptions);
    if (pos.size() != 1)
        return FailPlain("usage: user set NAME [--name NEW] [--gid N] [--desc D] [--email E] [--password P] [--disabled yes|no] "
                    "[--internal|--no-internal]");
    PKOVA_USER user = nullptr;
    if (KOVAUserGet(pos[0].c_str(), &user) != 0) return Fail("cannot change user '" + pos[0] + "'");
    if (std::string(user->szName).find_first_of("@\\") != std::string::npos) {
        std::string name = user->szName;
        KOVAUserFree(user);
        return FailPlain("'" + name + "' is a directory account: change it in its directory");
    }
    // Build the changed record on the side; the stored one is replaced in one call.
    std::string name = Option(args, "--name", user->szName);
    std::string desc, email, gidText, disabled, pw;
    const char *d = OptOrNull(args, "--desc", desc);
    const char *e = OptOrNull(args, "--email", email);
    KOVA_USER changed = *user;
    changed.szName = const_cast<char *>(name.c_str());
    if (d) changed.szDesc = const_cast<char *>(d);
    if (e) changed.szEmail = const_cast<char *>(e);
    int rc = 0;
    if (OptOrNull(args, "--gid", gidText)) {
        int gid = 0;
        if (!ParseId(gidText, gid)) rc = FailPlain("invalid gid '" + gidText + "'");
        changed.gid = static_cast<unsigned>(gid);
    }
    if (!rc && OptOrNull(args, "--disabled", disabled)) {
        if (disabled != "yes" && disabled != "no") rc = FailPlain("--disabled takes yes or no");
        changed.isDisabled = disabled == "yes";
    }
    if (HasFlag(args, "--internal")) changed.isInternal = 1;
    if (HasFlag(args, "--no-internal")) changed.isInternal = 0;
    if (!rc && KOVAUserSet(&changed) != 0) rc = Fail("cannot change user '" + pos[0] + "'");
    if (!rc && OptOrNull(args, "--password", pw) && KOVAUserPasswordSet(name.c_str(), pw.c_str()) != 0)
        rc = Fail("cannot set the password of '" + name + "'");
    KOVAUserFree(user);
    return rc;
}

int UserPasswd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 2) return FailPlain("usage: user passwd NAME PASSWORD");
    if (KOVAUserPasswordSet(pos[0].c_str(), pos[1].c_str()) != 0) return Fail("cannot set the password of '" + pos[0] + "'");
    return 0;
}

int UserDel(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: user del NAME");
    if (KOVAUserDelete(pos[0].c_str()) != 0) return Fail("cannot delete user '" + pos[0] + "'");
    return 0;
}

int PrintUser(const KLIB_USER_INFO *u, void *, void *) {
    std::printf("%s\t%u\t%u\t%s\t%s%s\n", u->szName, u->uid, u->gid, u->szDesc ? u->szDesc : "", u->szEmail ? u->szEmail : "",
                u->isInternal ? "\tinternal" : "");
    return 0;
}

int UserList(const std::vector<std::string> &args) {
    // Ordinary users, then internal accounts (marked).
    if (KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, PrintUser, nullptr) < 0) return Fail("cannot list users");
    if (HasFlag(args, "--internal") &&
        KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "", 0, 0, PrintUser, nullptr) < 0)
        return Fail("cannot list internal accounts");
    return 0;
}

Registration r1({"user add", "user add NAME [--uid N] [--password P] [--desc D] [--email E] [--internal]",
                 "add a local user; --internal: a service account (uid below 1024, never signs in)", UserAdd});
Registration r2({"user set", "user set NAME [--name N] [--gid N] [--desc D] [--email E] [--password P] [--disabled yes|no] [--internal|--no-internal]",
                 "change a local user", UserSet});
Registration r3({"user passwd", "user passwd NAME PASSWORD", "set a user's password", UserPasswd});
Registration r4({"user del", "user del NAME", "delete a local user", UserDel});
Registration r6({"user show", "user show NAME", "show a user (local, LDAP name@suffix or DOMAIN\\name): ids, flags, groups",
                 UserShow});
Registration r5({"user list", "user list [--internal]", "list local users (name uid gid desc email)", UserList});

} // namespace
