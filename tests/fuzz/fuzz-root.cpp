#include "fuzz-root.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/acl.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova/accountdb.h"
#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova-internal/paths.h"

#include <dirent.h>
#include <signal.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kova_fuzz {

namespace {

[[noreturn]] void Die(const std::string &what) {
    std::fprintf(stderr, "fuzz root: %s (platform error 0x%04X)\n", what.c_str(), KLIBCErrGet());
    std::abort();
}

void MakeDirs(const std::string &path, mode_t mode) {
    if (!kova_internal::MakeDirs(path, mode)) Die("mkdir " + path);
}

void WriteFile(const std::string &path, const std::string &content) {
    if (!kova_internal::WriteAtomically(path, content, 0644, nullptr)) Die("cannot write " + path);
}

// "type:name:allow|deny:perm13:inherit4" entries ("-" for the fixed principals), names resolved now.
void SetAcl(const std::string &path, const std::vector<std::string> &entries, bool inherits) {
    PKOVA_ACL acl = KOVAACLAlloc(0);
    if (!acl) Die("KOVAACLAlloc");
    for (std::string text : entries) {
        const size_t from = text.find(':') + 1, to = text.find(':', from);
        const std::string type = text.substr(0, from - 1), name = text.substr(from, to - from);
        int id = -1;
        if ((type == "user" && KOVAUserGetUGID(name.c_str(), &id, nullptr) < 0) ||
            (type == "group" && KOVAGroupGetGID(name.c_str(), &id) < 0))
            Die(type + " " + name);
        text.replace(from, to - from, std::to_string(id));
        PKOVA_ACL_ENTRY ace = KOVAACLAceAlloc();
        if (!ace || KOVAACLAceParse(text.c_str(), ace) < 0 || KOVAACLAceAppend(acl, ace) < 0) Die("entry " + text);
    }
    acl->isInherited = inherits ? 1 : 0;
    if (KOVAACLSet(path.c_str(), -1, acl) < 0) Die("KOVAACLSet " + path);
    KOVAACLFree(acl);
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}

FuzzRoot *gRoot = nullptr;

void RemoveRoot() {
    if (gRoot && gRoot->path.size() > 5) nftw(gRoot->path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

// A run that found a crash ends without its exit handlers; the roots it left behind are removed by the next
// run, once their process is gone.
void RemoveStaleRoots() {
    DIR *dir = opendir("/tmp");
    if (!dir) return;
    while (struct dirent *e = readdir(dir)) {
        int pid = 0;
        if (std::sscanf(e->d_name, "kova-fuzz-%d-", &pid) != 1 || pid <= 0) continue;
        if (kill(pid, 0) == 0 || errno != ESRCH) continue;
        nftw((std::string("/tmp/") + e->d_name).c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    closedir(dir);
}

FuzzRoot *Create() {
    RemoveStaleRoots();
    std::string name = "/tmp/kova-fuzz-" + std::to_string(getpid()) + "-XXXXXX";
    std::vector<char> tmpl(name.begin(), name.end());
    tmpl.push_back('\0');
    if (!mkdtemp(tmpl.data())) Die("mkdtemp");
    auto *root = new FuzzRoot;
    root->path = tmpl.data();
    chmod(tmpl.data(), 0755);  // mkdtemp makes it 0700; the login users must reach the share
    setenv("KOVA_ROOT", tmpl.data(), 1);
    for (const char *dir : {"etc", "usr/share/strings/enu", "var/run/tasks", "var/log", "volumes/volume1"})
        MakeDirs(root->path + "/" + dir, 0755);
    chmod((root->path + "/var/run/tasks").c_str(), 0700);
    WriteFile(root->path + "/etc/kovainfo.conf", "filebrowserxferlog = \"no\"\n");

    // "admin" and "administrators" may come with the accounts library.
    int id = -1;
    if (KOVAGroupGetGID("administrators", &id) < 0 && KOVAGroupAdd("administrators", -1, nullptr) < 0)
        Die("group administrators");
    if (KOVAUserGetUGID("admin", &id, nullptr) < 0 && KOVAUserAdd("admin", -1, "Passw0rd!", nullptr, nullptr, 0) < 0)
        Die("user admin");
    KOVAGroupMemberAdd("administrators", "admin");
    for (const char *user : {"alice", "bob"})
        if (KOVAUserAdd(user, -1, "Passw0rd!", nullptr, nullptr, 0) < 0) Die(std::string("user ") + user);
    if (KOVAUserAdd("svc", 300, "Passw0rd!", nullptr, nullptr, 1) < 0) Die("user svc");
    if (KOVAGroupAdd("staff", -1, nullptr) < 0 || KOVAGroupMemberAdd("staff", "alice") < 0) Die("group staff");

    root->share = root->path + "/volumes/volume1/docs";
    MakeDirs(root->share, 0777);
    chmod(root->share.c_str(), 0777);
    KOVA_SHARE share;
    std::memset(&share, 0, sizeof share);
    std::snprintf(share.szName, sizeof share.szName, "docs");
    std::snprintf(share.szPath, sizeof share.szPath, "%s", root->share.c_str());
    share.supportAcl = 1;
    share.aclStatus = 1;
    share.defaultPriv = KOVA_SHARE_PRIV_RW;
    if (KOVAShareSet(&share) < 0) Die("KOVAShareSet");

    MakeDirs(root->share + "/project/sub", 0755);
    SetAcl(root->share + "/project",
           {"user:alice:allow:rwxpdDaARWcCo:fd--", "group:staff:deny:-w-----------:----",
            "everyone:-:allow:r---------c--:f---", "authenticated_user:-:allow:--------R----:---n",
            "system:-:allow:rwxpdDaARWcCo:fd--", "owner:-:allow:rwxpdDaARWcCo:fdi-"},
           false);
    WriteFile(root->share + "/project/report.txt", "text");
    SetAcl(root->share + "/project/report.txt", {"user:bob:allow:r------------:----"}, true);
    WriteFile(root->share + "/plain.txt", "plain");

    // A bound LDAP directory and a joined domain, each with a small account cache, so owner searches run
    // their clauses against real databases. Nothing is ever contacted: searches read only the caches.
    KovaLdapConfig ldap;
    ldap.bound = true;
    ldap.uri = "ldap://127.0.0.1:9";
    ldap.base = "dc=example,dc=com";
    ldap.suffix = "example.com";
    if (KovaDirsvc::LdapBind(ldap) < 0) Die("LdapBind");
    if (KovaDirsvc::DomainAdd("CORP") < 0 || KovaDirsvc::DomainSetFlag("joined", true) < 0 ||
        KovaDirsvc::DomainSetFlag("trusted", true) < 0)
        Die("domain");
    const std::vector<KovaCacheEntry> entries = {
        {false, "kx_ldap", "Head of Payroll", "alice@corp.example", "Alice Payroll", "uid=kx_ldap,ou=Sales,dc=corp,dc=example"},
        {false, "User001", "50% off \\ sale", "u1@example.com", "\xc3\x84rger \xc9\x90", "uid=User001,ou=IT,dc=corp,dc=example"},
        {true, "group01", "Team 01", "", "", "cn=group01,ou=Sales,dc=corp,dc=example"},
    };
    for (int selector : {KOVA_ACCOUNTDB_LDAP, KOVA_ACCOUNTDB_DOMAIN}) {
        auto builder = KovaAccountCacheBuilder::Begin(selector, "CORP");
        if (!builder) Die("cache builder");
        for (const KovaCacheEntry &e : entries)
            if (builder->Add(e) < 0) Die("cache entry");
        if (builder->Commit() < 0) Die("cache commit");
    }

    gRoot = root;
    std::atexit(RemoveRoot);
    // A set request must never leave a task process behind.
    if (KLIBCFaultSet("APIPolling::Start", 0, 0, KOVA_ERR_IO) < 0) Die("fault APIPolling::Start");
    return root;
}

} // namespace

const FuzzRoot &Root() {
    static FuzzRoot *root = Create();
    return *root;
}

std::string WithSharePath(std::string text) {
    static const std::string kToken = "@SHARE@";
    const std::string &share = Root().share;
    for (size_t pos = 0; (pos = text.find(kToken, pos)) != std::string::npos; pos += share.size())
        text.replace(pos, kToken.size(), share);
    return text;
}

} // namespace kova_fuzz
