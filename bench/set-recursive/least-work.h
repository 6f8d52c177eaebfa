// The least kernel work a recursive set with projection can do, as a
// reference beside setfacl -R: a walk through folder descriptors that, for
// every entry, makes one statx (its type and mount, which the set's walk
// must know before it touches an entry) and writes the same attributes the
// set leaves on it (record, access ACL and, on folders, default ACL), with
// no judging, no reading and no encoding. Whatever our set costs above
// this is our own; what this costs above setfacl is the price of the
// second attribute.
#ifndef KOVA_BENCH_LEAST_WORK_H
#define KOVA_BENCH_LEAST_WORK_H

#include "tree-bench.h"

#include <string>
#include <utility>
#include <vector>

namespace kova_bench {

// The attributes (name, value) to write, read from one file and one folder
// of a tree our set has finished with.
struct LeastWorkAttrs {
    std::vector<std::pair<std::string, std::string>> file;
    std::vector<std::pair<std::string, std::string>> folder;
};
LeastWorkAttrs ReadSetAttrs(const std::string &file, const std::string &folder);

// Runs the walk over top in a child process and reports its wall and CPU
// time; dies on any failure.
ProcessRun RunLeastWork(const std::string &top, const LeastWorkAttrs &attrs);

} // namespace kova_bench

#endif
