// acl-set-bench: the per-entry cost of KOVAACLSet as a recursive set pays
// it (KOVAACLAlloc, KOVAACLSet of an empty inheriting ACL, KOVAACLFree),
// for four callers: root, an administrator, an administrator's background
// task (which keeps CAP_SYS_ADMIN), and a plain user whose right comes from
// an entry inherited from the top folder (the caller whose check must read
// the ancestors' records).
//
// Usage: acl-set-bench [FILES] [--dir BASE] [--passes N] [--only root|admin|task|user]
//   FILES  files in the tree (default 100000): 100 folders of FILES/100.
//   BASE   where the temporary platform root is made (default /var/tmp).
// Must run as root (the library raises to root and needs a saved uid 0).
#include "kova/acl.h"
#include "acl-share.h"
#include "timing.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

const uid_t kAdminUid = 5000;
const uid_t kUserUid = 5001;
const gid_t kAdminGid = 101;

[[noreturn]] void Die(const std::string &what) {
    std::fprintf(stderr, "acl-set-bench: %s\n", what.c_str());
    std::exit(1);
}

void MakeDir(const std::string &path) {
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) Die("mkdir " + path + ": " + std::strerror(errno));
}

// Effective set of CAP_SYS_ADMIN alone, as a task's identity switch
// (PanoraFileShare::WfmLibUGIDSet) leaves it.
void KeepSysAdmin() {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) Die("capget");
    data[0].effective = data[1].effective = 0;
    data[CAP_SYS_ADMIN / 32].effective = 1u << (CAP_SYS_ADMIN % 32);
    if (syscall(SYS_capset, &header, data) != 0) Die("capset");
}

// The caller's identity for one pass: effective ids only, saved uid stays 0.
struct As {
    As(uid_t uid, gid_t gid, const std::vector<gid_t> &groups, bool task) {
        if (setgroups(groups.size(), groups.data()) != 0 || setegid(gid) != 0 || seteuid(uid) != 0)
            Die("cannot switch identity");
        if (task) KeepSysAdmin();
    }
    ~As() {
        if (seteuid(0) != 0 || setegid(0) != 0 || setgroups(0, nullptr) != 0) std::abort();
    }
};

// User plus system time of this process: less disturbed than the wall
// clock when other work shares the machine.
double CpuNow() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double Pass(const std::vector<std::string> &paths, long &failures, double &cpu) {
    failures = 0;
    const double start = kova_bench::Seconds(), cpuStart = CpuNow();
    for (const std::string &p : paths) {
        PKOVA_ACL acl = KOVAACLAlloc(0);
        if (!acl) Die("KOVAACLAlloc");
        acl->isInherited = 1;
        if (KOVAACLSet(p.c_str(), -1, acl) != 0) ++failures;
        KOVAACLFree(acl);
    }
    cpu = CpuNow() - cpuStart;
    return kova_bench::Seconds() - start;
}

} // namespace

int main(int argc, char **argv) {
    long files = 100000;
    int passes = 1;
    std::string base = "/var/tmp", only;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--dir" && i + 1 < argc) base = argv[++i];
        else if (arg == "--passes" && i + 1 < argc) passes = std::atoi(argv[++i]);
        else if (arg == "--only" && i + 1 < argc) only = argv[++i];
        else files = std::atol(arg.c_str());
    }
    if (files < 100 || files % 100 != 0) Die("FILES must be a multiple of 100");
    if (geteuid() != 0) Die("run as root");

    std::string pattern = base + "/kova-aclset-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) Die("mkdtemp in " + base);
    const std::string root = buf.data();
    chmod(root.c_str(), 0755);
    setenv("KOVA_ROOT", root.c_str(), 1);
    for (const char *dir : {"/etc", "/volumes", "/volumes/volume1", "/volumes/volume1/bench"}) MakeDir(root + dir);
    const std::string share = root + "/volumes/volume1/bench";
    if (!kova_bench::AddAclShare("bench", share)) Die("cannot create the share");

    // 100 folders below top, FILES/100 files in each.
    const std::string top = share + "/top";
    MakeDir(top);
    std::vector<std::string> paths;
    paths.reserve(static_cast<size_t>(files + 100));
    for (int d = 0; d < 100; ++d) {
        const std::string dir = top + "/d" + std::to_string(d);
        MakeDir(dir);
        paths.push_back(dir);
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
        if (fd < 0) Die("open " + dir);
        for (long f = 0; f < files / 100; ++f) {
            const std::string name = "f" + std::to_string(f);
            int file = openat(fd, name.c_str(), O_CREAT | O_WRONLY, 0644);
            if (file < 0) Die("create " + dir + "/" + name);
            close(file);
            paths.push_back(dir + "/" + name);
        }
        close(fd);
    }

    // The plain user may change permissions on everything below top
    // through one inherited entry.
    PKOVA_ACL grant = KOVAACLAlloc(0);
    PKOVA_ACL_ENTRY ace = KOVAACLAceAlloc();
    if (!grant || !ace) Die("alloc");
    ace->idType = KOVA_ACL_ID_USER;
    ace->id = static_cast<int>(kUserUid);
    ace->accessType = KOVA_ACL_ALLOW;
    ace->permission = KOVA_ACL_PERM_ALL;
    ace->inherit = KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_DIR;
    if (KOVAACLAceAppend(grant, ace) != 0) Die("append");
    grant->isInherited = 1;
    if (KOVAACLSet(top.c_str(), -1, grant) != 0) Die("cannot set the top folder's ACL");
    KOVAACLFree(grant);

    // The share library does not keep a table read within two seconds of a
    // database write; the timed passes measure the settled state.
    sleep(3);
    std::printf("platform root %s, %zu entries\n", root.c_str(), paths.size());
    struct Caller {
        const char *name;
        uid_t uid;
        gid_t gid;
        std::vector<gid_t> groups;
        bool task;  // a background task: keeps CAP_SYS_ADMIN
    };
    const std::vector<Caller> callers = {
        {"root", 0, 0, {}, false},
        {"admin", kAdminUid, kAdminGid, {kAdminGid}, false},
        {"task", kAdminUid, kAdminGid, {kAdminGid}, true},
        {"user", kUserUid, kUserUid, {}, false},
    };
    int status = 0;
    for (int pass = 0; pass < passes; ++pass) {
        for (const Caller &c : callers) {
            if (!only.empty() && only != c.name) continue;
            long failures = 0;
            double seconds, cpu = 0;
            {
                As as(c.uid, c.gid, c.groups, c.task);
                seconds = Pass(paths, failures, cpu);
            }
            const double n = static_cast<double>(paths.size());
            std::printf("%-6s %8.3f s  %7.2f us/entry wall  %7.2f us/entry cpu  %ld failed\n", c.name, seconds,
                        seconds * 1e6 / n, cpu * 1e6 / n, failures);
            std::fflush(stdout);
            if (failures) status = 1;
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return status;
}
