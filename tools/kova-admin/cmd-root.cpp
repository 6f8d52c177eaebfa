// kova-admin init: lays out a platform root. Running it again adds what is
// missing and keeps what is there (settings already made stay as they are).
#include "command.h"
#include "kova-internal/paths.h"

#include "kova/account.h"
#include "kova/klibc.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

bool WriteIfMissing(const std::string &path, const std::string &content) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) return true;
    std::ofstream out(path, std::ios::binary);
    out << content;
    out.close();
    return static_cast<bool>(out);
}

// The accounts a new root starts with; `init --empty` leaves them out.
const char *const kDefaultUsers[] = {"admin", "guest", "kova-sys", "httpd"};

int RunInit(const std::vector<std::string> &args) {
    bool empty = kova_admin::HasFlag(args, "--empty");
    if (!kova_admin::Positionals(args, {}).empty() || args.size() > (empty ? 1u : 0u))
        return kova_admin::FailPlain("usage: init [--empty]");
    std::string root = KLIBCRootGet();
    struct stat accounts;
    // Only a root without accounts yet may start empty: on an existing one
    // "admin" may be a real administrator's account.
    if (empty && lstat((root + "/etc/accounts.db").c_str(), &accounts) == 0)
        return kova_admin::FailPlain("init --empty: " + root + " already has accounts; remove unwanted ones with user del");
    for (const char *dir : {"etc", "usr/share/strings/enu", "var/run/tasks", "var/log", "volumes/volume1"})
        if (!kova_internal::MakeDirs(root + "/" + dir, 0755)) return kova_admin::Fail(std::string("cannot create ") + root + "/" + dir);
    // Task records hold other users' results: only root reads them.
    chmod((root + "/var/run/tasks").c_str(), 0700);

    char value[64];
    if (KLIBCFileGetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", value, sizeof(value)) < 0 &&
        KLIBCFileSetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "no") < 0)
        return kova_admin::Fail("cannot write etc/kovainfo.conf");
    if (!WriteIfMissing(root + "/usr/share/strings/enu/module-3.ini",
                        "[property]\nprivilege_recursive = \"Apply to this folder, sub-folders and files\"\n"))
        return kova_admin::Fail("cannot write usr/share/strings/enu/module-3.ini");
    if (empty) {
        // The built-in groups stay (administrators marks administrators).
        for (const char *user : kDefaultUsers)
            if (KOVAUserDelete(user) != 0)
                return kova_admin::Fail(std::string("cannot remove the default user '") + user + "'");
    }
    std::printf("initialised %s%s\n", root.c_str(), empty ? " without default users" : "");
    return 0;
}

// The transfer log of file property changes (key "filebrowserxferlog").
int RunXferlog(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {});
    if (pos.size() > 1 || (pos.size() == 1 && pos[0] != "on" && pos[0] != "off"))
        return kova_admin::FailPlain("usage: xferlog [on|off]");
    if (pos.empty()) {
        char value[64] = "";
        if (KLIBCFileGetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", value, sizeof(value)) < 0) std::strcpy(value, "no");
        std::printf("%s\n", std::strcmp(value, "yes") == 0 ? "on" : "off");
        return 0;
    }
    if (KLIBCFileSetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", pos[0] == "on" ? "yes" : "no") < 0)
        return kova_admin::Fail("cannot write etc/kovainfo.conf");
    return 0;
}

kova_admin::Registration init({"init", "init [--empty]",
                               "create (or complete) the platform root; --empty: a new root without default users", RunInit});
kova_admin::Registration xferlog({"xferlog", "xferlog [on|off]", "show or switch the transfer log of file property changes",
                                  RunXferlog});

} // namespace
