// What the tree benchmarks (set-recursive, propagation) share: the platform
// root with its ACL share, the 50 x 20 x N tree, and timing a baseline tool.
// Every helper ends the program with a message on failure: a benchmark has
// nothing to measure once its setup failed.
#ifndef KOVA_BENCH_TREE_BENCH_H
#define KOVA_BENCH_TREE_BENCH_H

#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kova_bench {

[[noreturn]] void Die(const std::string &what);

// The tree benchmarks' command line: [FILES] [--dir BASE] [--keep]. Dies
// unless FILES is a multiple of 10000 and the program runs as root; makes
// the program the subreaper of what it starts (so their CPU time counts).
struct TreeBenchArgs {
    long files = 1000000;
    std::string base = "/var/tmp";
    bool keep = false;
};
TreeBenchArgs ParseTreeBenchArgs(int argc, char **argv);

// mkdir (an existing folder is fine), then chmod to mode.
void MakeDir(const std::string &path, mode_t mode);

// A fresh platform root below base (KOVA_ROOT set to it) with the ACL share
// "bench" at <root>/volumes/volume1/bench (mode 0777).
std::string MakeBenchRoot(const std::string &base);

// 50 x 20 x perLeaf files below top, created through folder descriptors;
// with a record, every entry below top holds it as its stored ACL.
void BuildTree(const std::string &top, int perLeaf, const std::string &record = std::string());

struct ProcessRun {
    double seconds = 0;
    double cpuSeconds = -1;  // user + system time
    long maxRssKb = -1;
};

double CpuOf(const struct rusage &ru);

// Runs argv to its end; dies when it fails.
ProcessRun RunTool(const std::vector<std::string> &argv);

} // namespace kova_bench

#endif
