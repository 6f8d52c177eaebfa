// kova-admin acl verify [--repair] PATH: reports every file and folder
// under PATH whose kernel ACL or mode differs from the projection of its
// stored ACL (programs may chmod or setfacl behind the platform's back),
// and writes the projection again with --repair. Exit status 0 when
// nothing differs (or everything was repaired), 1 otherwise.
#include "command.h"

#include "kova/acladmin.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

int Verify(const std::vector<std::string> &args) {
    const std::vector<std::string> paths = kova_admin::Positionals(args, {});
    if (paths.size() != 1) return kova_admin::Fail("usage: acl verify [--repair] PATH");
    const bool repair = kova_admin::HasFlag(args, "--repair");
    KOVA_ACL_VERIFY_COUNTS counts = {};
    const int rc = KOVAACLVerifyTree(
        paths[0].c_str(), repair ? 1 : 0,
        [](const KOVA_ACL_DRIFT *d, void *) {
            std::printf("%s %s\n  kernel:     %s\n  projection: %s\n", d->repaired ? "repaired" : "differs", d->szPath,
                        d->szKernel, d->szProjection);
        },
        nullptr, &counts);
    if (rc < 0) return kova_admin::Fail("cannot verify " + paths[0]);
    std::printf("checked %zu, differing %zu, repaired %zu, failed %zu\n", counts.checked, counts.differing,
                counts.repaired, counts.failed);
    return counts.failed == 0 && counts.differing == counts.repaired ? 0 : 1;
}

const kova_admin::Registration kVerify({"acl verify", "acl verify [--repair] PATH",
                                        "report (and repair) kernel ACLs that differ from the stored ACLs", Verify});

} // namespace
