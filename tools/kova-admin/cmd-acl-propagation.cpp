// kova-admin acl propagation [list | stop PATH | resume]: the background
// propagations of inherited ACLs (docs/platform/enforcement.md). "list"
// prints each job (state, entries looked at and rewritten, the folder being
// walked); "stop" leaves a folder's job at its resume point; "resume" takes
// up stopped jobs and jobs whose runner died (killed, or the machine went
// down) where they stopped.
#include "command.h"

#include "../../platform/acl/propagation.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

using kova_acl::PropagationJob;

int List(const std::vector<std::string> &args) {
    if (!kova_admin::Positionals(args, {}).empty()) return kova_admin::FailPlain("usage: acl propagation [list]");
    std::vector<PropagationJob> jobs;
    if (!kova_acl::ListPropagations(jobs)) return kova_admin::Fail("cannot read the propagation jobs");
    for (const PropagationJob &j : jobs) {
        std::printf("%s %s visited %llu rewritten %llu failed %llu", kova_acl::JobStateName(j.state), j.path.c_str(),
                    static_cast<unsigned long long>(j.visited), static_cast<unsigned long long>(j.rewritten),
                    static_cast<unsigned long long>(j.failed));
        if (j.beyondDepth) std::printf(" beyond-depth %llu", static_cast<unsigned long long>(j.beyondDepth));
        if (!j.current.empty()) std::printf(" at %s", j.current.c_str());
        std::printf("\n");
    }
    return 0;
}

int Stop(const std::vector<std::string> &args) {
    const std::vector<std::string> paths = kova_admin::Positionals(args, {});
    if (paths.size() != 1) return kova_admin::FailPlain("usage: acl propagation stop PATH");
    if (!kova_acl::StopPropagation(paths[0].c_str()))
        return kova_admin::Fail("no propagation to stop for " + paths[0]);
    std::printf("stopped %s\n", paths[0].c_str());
    return 0;
}

int Resume(const std::vector<std::string> &args) {
    if (!kova_admin::Positionals(args, {}).empty()) return kova_admin::FailPlain("usage: acl propagation resume");
    size_t count = 0;
    if (!kova_acl::ResumePropagations(count)) return kova_admin::Fail("cannot resume the propagations");
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
