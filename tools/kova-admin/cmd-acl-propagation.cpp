// kova-admin acl propagation [list | stop PATH | resume]: the background
// propagations of inherited ACLs (docs/platform/enforcement.md). "list"
// prints each job (state, entries looked at and rewritten, the folder being
// walked); "stop" leaves a folder's job at its resume point; "resume" takes
// up stopped jobs and jobs whose runner died (killed, or the machine went
// down) where they stopped.
#include "command.h"

#include "kova/acladmin.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

int List(const std::vector<std::string> &args) {
    if (!kova_admin::Positionals(args, {}).empty()) return kova_admin::FailPlain("usage: acl propagation [list]");
    KOVA_ACL_PROPAGATION *jobs = nullptr;
    size_t count = 0;
    if (KOVAACLPropagationList(&jobs, &count) < 0) return kova_admin::Fail("cannot read the propagation jobs");
    for (size_t i = 0; i < count; ++i) {
        const KOVA_ACL_PROPAGATION &j = jobs[i];
        std::printf("%s %s visited %llu rewritten %llu failed %llu", j.szState, j.szPath, j.visited, j.rewritten,
                    j.failed);
        if (j.beyondDepth) std::printf(" beyond-depth %llu", j.beyondDepth);
        if (*j.szCurrent) std::printf(" at %s", j.szCurrent);
        std::printf("\n");
    }
    KOVAACLPropagationListFree(jobs, count);
    return 0;
}

int Stop(const std::vector<std::string> &args) {
    const std::vector<std::string> paths = kova_admin::Positionals(args, {});
    if (paths.size() != 1) return kova_admin::FailPlain("usage: acl propagation stop PATH");
    if (KOVAACLPropagationStop(paths[0].c_str()) < 0) return kova_admin::Fail("no propagation to stop for " + paths[0]);
    std::printf("stopped %s\n", paths[0].c_str());
    return 0;
}

int Resume(const std::vector<std::string> &args) {
    if (!kova_admin::Positionals(args, {}).empty()) return kova_admin::FailPlain("usage: acl propagation resume");
    size_t count = 0;
    if (KOVAACLPropagationResume(&count) < 0) return kova_admin::Fail("cannot resume the propagations");
    std::printf("%zu propagation(s) waiting or running\n", count);
    return 0;
}

const kova_admin::Registration kList({"acl propagation", "acl propagation [list]",
                                      "show the background propagations of inherited ACLs", List});
const kova_admin::Registration kListWord({"acl propagation list", "acl propagation list",
                                          "show the background propagations of inherited ACLs", List});
const kova_admin::Registration kStop({"acl propagation stop", "acl propagation stop PATH",
                                      "stop the propagation below a folder, keeping where it was", Stop});
const kova_admin::Registration kResume({"acl propagation resume", "acl propagation resume",
                                        "resume stopped and interrupted propagations", Resume});

} // namespace
