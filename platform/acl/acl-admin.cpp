// The C administration interface (kova/acladmin.h) over the drift check and
// the propagation jobs.
#include "kova/acladmin.h"

#include "propagation.h"
#include "verify.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

extern "C" int KOVAACLVerifyTree(const char *szPath, int repair, KOVA_ACL_DRIFT_FN fn, void *pCtx,
                                 KOVA_ACL_VERIFY_COUNTS *pCounts) {
    KOVA_FAULT_POINT("KOVAACLVerifyTree", int);
    if (!szPath || !pCounts) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    kova_acl::VerifyCounts counts;
    const bool ok = kova_acl::VerifyTree(szPath, repair != 0, [&](const kova_acl::Drift &d) {
        if (!fn) return;
        const KOVA_ACL_DRIFT drift = {d.path.c_str(), d.kernel.c_str(), d.projection.c_str(), d.repaired ? 1 : 0};
        fn(&drift, pCtx);
    }, counts);
    *pCounts = {counts.checked, counts.differing, counts.repaired, counts.failed};
    return ok ? 0 : -1;
}

extern "C" void KOVAACLPropagationListFree(KOVA_ACL_PROPAGATION *pJobs, size_t count) {
    if (!pJobs) return;
    for (size_t i = 0; i < count; ++i) {
        std::free(pJobs[i].szPath);
        std::free(pJobs[i].szCurrent);
    }
    std::free(pJobs);
}

extern "C" int KOVAACLPropagationList(KOVA_ACL_PROPAGATION **ppJobs, size_t *pCount) {
    KOVA_FAULT_POINT("KOVAACLPropagationList", int);
    if (!ppJobs || !pCount) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    *ppJobs = nullptr;
    *pCount = 0;
    std::vector<kova_acl::PropagationJob> jobs;
    if (!kova_acl::ListPropagations(jobs)) return -1;
    if (jobs.empty()) return 0;
    auto *out = static_cast<KOVA_ACL_PROPAGATION *>(std::calloc(jobs.size(), sizeof(KOVA_ACL_PROPAGATION)));
    if (!out) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return -1;
    }
    for (size_t i = 0; i < jobs.size(); ++i) {
        const kova_acl::PropagationJob &j = jobs[i];
        out[i].szPath = strdup(j.path.c_str());
        out[i].szCurrent = strdup(j.current.c_str());
        out[i].szState = kova_acl::JobStateName(j.state);
        out[i].visited = j.visited;
        out[i].rewritten = j.rewritten;
        out[i].failed = j.failed;
        out[i].beyondDepth = j.beyondDepth;
        if (!out[i].szPath || !out[i].szCurrent) {
            KOVAACLPropagationListFree(out, i + 1);
            KOVA_FAIL(KOVA_ERR_NOMEM);
            return -1;
        }
    }
    *ppJobs = out;
    *pCount = jobs.size();
    return 0;
}

extern "C" int KOVAACLPropagationStop(const char *szPath) {
    KOVA_FAULT_POINT("KOVAACLPropagationStop", int);
    return kova_acl::StopPropagation(szPath) ? 0 : -1;
}

extern "C" int KOVAACLPropagationResume(size_t *pCount) {
    KOVA_FAULT_POINT("KOVAACLPropagationResume", int);
    if (!pCount) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    return kova_acl::ResumePropagations(*pCount) ? 0 : -1;
}

extern "C" int KOVAACLPropagationRunnerAlive(void) { return kova_acl::PropagationRunnerAlive() ? 1 : 0; }
