// The share the ACL benchmarks work in: ACL support and ACLs on, read and
// write for everyone by default.
#ifndef KOVA_BENCH_ACL_SHARE_H
#define KOVA_BENCH_ACL_SHARE_H

#include <string>

namespace kova_bench {

// Records the share `name` at `path` (which must exist); false when the
// share library refused.
bool AddAclShare(const std::string &name, const std::string &path);

} // namespace kova_bench

#endif
