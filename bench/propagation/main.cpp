// propagation-bench: times the background propagation that follows a
// non-recursive change of a folder's inheritable entries against setfacl -R
// on a copy of the same tree, and reports the runner's CPU time and peak
// memory on the full tree and on one ten times smaller.
//
// Usage: propagation-bench [FILES] [--dir BASE] [--keep]
//   FILES  files in the tree, a multiple of 10000 (default 1000000): the tree
//          is 50 folders x 20 sub-folders x FILES/1000 files, as for
//          set-recursive-bench; every entry below the top holds a record
//          that inherits (what a recursive set leaves).
//   BASE   where the temporary platform root is made (default /var/tmp).
// KOVA_PROPAGATION_THREADS sets the runner's worker threads (default: four
// per core). Must run as root.
#include "timing.h"
#include "tree-bench.h"

#include "kova/acl.h"
#include "kova/account.h"

#include "../../platform/acl/acl-record.h"
#include "../../platform/acl/propagation-job.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using kova_bench::BuildTree;
using kova_bench::CpuOf;
using kova_bench::Die;
using kova_bench::RunTool;

std::string InheritingRecord() {
    kova_acl::StoredAcl acl;
    acl.inherits = true;
    std::string bytes;
    if (!kova_acl::EncodeRecord(acl, bytes)) Die("cannot encode a record");
    return bytes;
}

struct RunResult {
    double seconds = 0;
    double cpuSeconds = -1;
    long maxRssKb = -1;
    unsigned long long visited = 0, rewritten = 0, failed = 0;
};

// Gone, or a zombie (this process is its subreaper and has not reaped it).
bool Dead(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return true;
    const size_t close = line.rfind(')');
    return close == std::string::npos || close + 2 >= line.size() || line[close + 2] == 'Z';
}

// A non-recursive set of the top folder's entries as root, then the
// propagation it starts, polled until done. The runner is reaped here (this
// process is its subreaper), so its rusage tells its CPU time and memory.
RunResult Propagate(const std::string &top, int uid) {
    PKOVA_ACL acl = KOVAACLAlloc(0);
    PKOVA_ACL_ENTRY e = KOVAACLAceAlloc();
    const std::string text = "user:" + std::to_string(uid) + ":allow:rwxpdDaARWcCo:fd--";
    if (!acl || !e || KOVAACLAceParse(text.c_str(), e) < 0 || KOVAACLAceAppend(acl, e) < 0) Die("cannot build the ACL");
    acl->isInherited = 0;
    RunResult out;
    const double start = kova_bench::Seconds();
    if (KOVAACLSet(top.c_str(), -1, acl) != 0) Die("the set failed");
    KOVAACLFree(acl);
    long long runner = 0;
    for (;;) {
        std::vector<kova_acl::PropagationJob> jobs;
        if (!kova_acl::ListPropagations(jobs)) Die("cannot read the jobs");
        bool done = false;
        for (const auto &j : jobs) {
            if (j.path != top) continue;
            if (j.pid > 0) runner = j.pid;
            if (j.state == kova_acl::JobState::kDone) {
                done = true;
                out.visited = j.visited;
                out.rewritten = j.rewritten;
                out.failed = j.failed;
            } else if (j.state == kova_acl::JobState::kGone || j.state == kova_acl::JobState::kStopped) {
                Die("the propagation ended as " + std::string(kova_acl::JobStateName(j.state)));
            }
        }
        if (done) break;
        // A runner that died leaves its job "running": nothing would end.
        if (runner > 0 && Dead(static_cast<pid_t>(runner))) Die("the runner died");
        usleep(5000);
    }
    out.seconds = kova_bench::Seconds() - start;
    int st = 0;
    struct rusage ru;
    if (runner > 0 && wait4(static_cast<pid_t>(runner), &st, 0, &ru) == runner) {
        out.maxRssKb = ru.ru_maxrss;
        out.cpuSeconds = CpuOf(ru);
    }
    return out;
}

} // namespace

int main(int argc, char **argv) {
    const kova_bench::TreeBenchArgs args = kova_bench::ParseTreeBenchArgs(argc, argv);
    const long files = args.files;
    const std::string &base = args.base;
    const bool keep = args.keep;

    const std::string root = kova_bench::MakeBenchRoot(base);
    const std::string share = root + "/volumes/volume1/bench";
    const long dirs = 50 + 50 * 20;
    std::printf("platform root %s\n", root.c_str());
    std::printf("building trees: %ld files + %ld folders each (50 x 20 x %ld), plus a tree of %ld files\n", files,
                dirs, files / 1000, files / 10);
    std::fflush(stdout);
    const double buildStart = kova_bench::Seconds();
    const std::string record = InheritingRecord();
    BuildTree(share + "/ours", static_cast<int>(files / 1000), record);
    BuildTree(share + "/copy", static_cast<int>(files / 1000));
    BuildTree(share + "/small", static_cast<int>(files / 10000), record);
    sync();
    std::printf("built in %.1f s\n", kova_bench::Seconds() - buildStart);
    std::fflush(stdout);
    // The share library keeps no table read within two seconds of a write
    // to the share database: the timed runs measure the settled state.
    sleep(3);

    const int uidA = 1030, uidB = 1031;
    const long entries = files + dirs;
    RunResult small = Propagate(share + "/small", uidA);
    // The first change projects every entry; the second rewrites them all,
    // as any later change of the top's inheritable entries does.
    RunResult first = Propagate(share + "/ours", uidA);
    RunResult ours = Propagate(share + "/ours", uidB);
    if (ours.rewritten != static_cast<unsigned long long>(entries) || ours.failed != 0)
        Die("the propagation rewrote " + std::to_string(ours.rewritten) + " entries, failed " +
            std::to_string(ours.failed) + ", expected " + std::to_string(entries));
    const kova_bench::ProcessRun setfacl = RunTool({"setfacl", "-R", "-m", "u:" + std::to_string(uidB) + ":rwx", share + "/copy"});

    const char *threads = std::getenv("KOVA_PROPAGATION_THREADS");
    std::printf("\nentries                      %ld (runner threads: %s)\n", entries, threads ? threads : "four per core");
    std::printf("ours, first change           %8.2f s  %9.0f entries/s\n", first.seconds, entries / first.seconds);
    std::printf("ours, propagation            %8.2f s  %9.0f entries/s\n", ours.seconds, entries / ours.seconds);
    std::printf("setfacl -R -m u:%d:rwx     %8.2f s  %9.0f entries/s\n", uidB, setfacl.seconds,
                entries / setfacl.seconds);
    std::printf("ratio ours/setfacl           %8.3f  (goal <= 1.0)\n", ours.seconds / setfacl.seconds);
    std::printf("cpu ours / setfacl           %8.2f s / %.2f s  (%.2f us / %.2f us an entry)\n", ours.cpuSeconds,
                setfacl.cpuSeconds, ours.cpuSeconds * 1e6 / entries, setfacl.cpuSeconds * 1e6 / entries);
    std::printf("peak memory of the runner    %ld KiB (%ld entries), %ld KiB (%ld entries)\n", ours.maxRssKb, entries,
                small.maxRssKb, files / 10 + dirs);
    std::printf("peak memory setfacl          %ld KiB\n", setfacl.maxRssKb);

    if (!keep) {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
        if (ec) std::fprintf(stderr, "could not remove %s: %s\n", root.c_str(), ec.message().c_str());
    }
    return 0;
}
