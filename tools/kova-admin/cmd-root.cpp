// kova-admin init: lays out a platform root. Running it again adds what is
// missing and keeps what is there (settings already made stay as they are).
#include "command.h"

#include "kova/klibc.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

bool MakeDirs(const std::string &path, mode_t mode) {
    for (size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        std::string cur = path.substr(0, pos);
        if (mkdir(cur.c_str(), mode) != 0 && errno != EEXIST) return false;
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool WriteIfMissing(const std::string &path, const std::string &content) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) return true;
    std::ofstream out(path, std::ios::binary);
    out << content;
    out.close();
    return static_cast<bool>(out);
}

int RunInit(const std::vector<std::string> &args) {
    if (!kova_admin::Positionals(args, {}).empty()) return kova_admin::Fail("init takes no arguments");
    std::string root = KLIBCRootGet();
    for (const char *dir : {"etc", "usr/share/strings/enu", "var/run/tasks", "var/log", "volumes/volume1"})
        if (!MakeDirs(root + "/" + dir, 0755)) return kova_admin::Fail(std::string("cannot create ") + root + "/" + dir);
    // Task records hold other users' results: only root reads them.
    chmod((root + "/var/run/tasks").c_str(), 0700);

    char value[64];
    if (KLIBCFileGetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", value, sizeof(value)) < 0 &&
        KLIBCFileSetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "no") < 0)
        return kova_admin::Fail("cannot write etc/kovainfo.conf");
    if (!WriteIfMissing(root + "/usr/share/strings/enu/module-3.ini",
                        "[property]\nprivilege_recursive = \"Apply to this folder, sub-folders and files\"\n"))
        return kova_admin::Fail("cannot write usr/share/strings/enu/module-3.ini");
    std::printf("initialised %s\n", root.c_str());
    return 0;
}

kova_admin::Registration init({"init", "init", "create (or complete) the platform root", RunInit});

} // namespace
