// kova-admin acl verify [--repair] PATH: reports every file and folder
// under PATH whose kernel ACL or mode differs from the projection of its
// stored ACL (programs may chmod or setfacl behind the platform's back),
// and writes the projection again with --repair. Exit status 0 when
// nothing differs (or everything was repaired), 1 otherwise.
#include "command.h"

#include "../../platform/acl/verify.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

int Verify(const std::vector<std::string> &args) {
    const std::vector<std::string> paths = kova_admin::Positionals(args, {});
    if (paths.size() != 1) return kova_admin::Fail("usage: acl verify [--repair] PATH");
    const bool repair = kova_admin::HasFlag(args, "--repair");
    kova_acl::VerifyCounts counts;
    const bool ok = kova_acl::VerifyTree(
        paths[0].c_str(), repair,
        [](const kova_acl::Drift &d) {
            std::printf("%s %s\n  kernel:     %s\n  projection: %s\n", d.repaired ? "repaired" : "differs",
                        d.path.c_str(), d.kernel.c_str(), d.projection.c_str());
        },
        counts);
    if (!ok) return kova_admin::Fail("cannot verify " + paths[0]);
    std::printf("checked %zu, differing %zu, repaired %zu, failed %zu\n", counts.checked, counts.differing,
                counts.repaired, counts.failed);
    return counts.failed == 0 && counts.differing == counts.repaired ? 0 : 1;
}

const kova_admin::Registration kVerify({"acl verify", "acl verify [--repair] PATH",
                                        "report (and repair) kernel ACLs that differ from the stored ACLs", Verify});

} // namespace
