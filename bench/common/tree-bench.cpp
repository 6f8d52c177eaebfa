// The tree benchmarks' shared setup (see tree-bench.h).
#include "tree-bench.h"

#include "acl-share.h"
#include "timing.h"

#include "../../platform/acl/acl-record.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace kova_bench {

TreeBenchArgs ParseTreeBenchArgs(int argc, char **argv) {
    TreeBenchArgs a;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--dir" && i + 1 < argc) a.base = argv[++i];
        else if (arg == "--keep") a.keep = true;
        else a.files = std::atol(arg.c_str());
    }
    if (a.files < 10000 || a.files % 10000 != 0) Die("FILES must be a multiple of 10000 (the small tree is FILES/10)");
    if (geteuid() != 0) Die("run as root");
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    return a;
}

void Die(const std::string &what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::exit(1);
}

void MakeDir(const std::string &path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) Die("mkdir " + path + ": " + std::strerror(errno));
    chmod(path.c_str(), mode);
}

std::string MakeBenchRoot(const std::string &base) {
    std::string pattern = base + "/kova-bench-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) Die("mkdtemp in " + base + ": " + std::strerror(errno));
    const std::string root = buf.data();
    chmod(root.c_str(), 0755);
    setenv("KOVA_ROOT", root.c_str(), 1);
    for (const char *dir : {"/etc", "/var", "/var/run", "/var/log", "/volumes", "/volumes/volume1"})
        MakeDir(root + dir, 0755);
    MakeDir(root + "/var/run/tasks", 0700);
    std::ofstream(root + "/etc/kovainfo.conf") << "filebrowserxferlog = \"no\"\n";
    const std::string sharePath = root + "/volumes/volume1/bench";
    MakeDir(sharePath, 0777);
    if (!AddAclShare("bench", sharePath)) Die("cannot create the bench share");
    return root;
}

void BuildTree(const std::string &top, int perLeaf, const std::string &record) {
    auto mark = [&](int dirFd, const char *name) {
        if (record.empty()) return;
        const std::string proc = "/proc/self/fd/" + std::to_string(dirFd) + "/" + name;
        if (lsetxattr(proc.c_str(), kova_acl::kAttrName, record.data(), record.size(), 0) != 0)
            Die(std::string("record on ") + name + ": " + std::strerror(errno));
    };
    MakeDir(top, 0777);
    const int topFd = open(top.c_str(), O_RDONLY | O_DIRECTORY);
    if (topFd < 0) Die("open " + top);
    for (int d = 0; d < 50; ++d) {
        const std::string dname = "d" + std::to_string(d);
        MakeDir(top + "/" + dname, 0755);
        mark(topFd, dname.c_str());
        const int dFd = open((top + "/" + dname).c_str(), O_RDONLY | O_DIRECTORY);
        if (dFd < 0) Die("open " + top + "/" + dname);
        for (int s = 0; s < 20; ++s) {
            const std::string sname = "s" + std::to_string(s);
            const std::string sub = top + "/" + dname + "/" + sname;
            MakeDir(sub, 0755);
            mark(dFd, sname.c_str());
            const int fd = open(sub.c_str(), O_RDONLY | O_DIRECTORY);
            if (fd < 0) Die("open " + sub);
            for (int f = 0; f < perLeaf; ++f) {
                char name[32];
                std::snprintf(name, sizeof name, "f%d", f);
                const int file = openat(fd, name, O_CREAT | O_WRONLY | O_TRUNC, 0644);
                if (file < 0) Die("create " + sub + "/" + name + ": " + std::strerror(errno));
                if (!record.empty() && fsetxattr(file, kova_acl::kAttrName, record.data(), record.size(), 0) != 0)
                    Die("record on " + sub + "/" + name);
                close(file);
            }
            close(fd);
        }
        close(dFd);
    }
    close(topFd);
}

double CpuOf(const struct rusage &ru) {
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

ProcessRun RunTool(const std::vector<std::string> &argv) {
    ProcessRun out;
    const double start = Seconds();
    const pid_t pid = fork();
    if (pid < 0) Die("fork");
    if (pid == 0) {
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int st = 0;
    struct rusage ru;
    if (wait4(pid, &st, 0, &ru) != pid || !WIFEXITED(st) || WEXITSTATUS(st) != 0) Die(argv[0] + " failed");
    out.seconds = Seconds() - start;
    out.maxRssKb = ru.ru_maxrss;
    out.cpuSeconds = CpuOf(ru);
    return out;
}

} // namespace kova_bench
