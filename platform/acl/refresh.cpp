// The descendants' refresh (see refresh.h).
#include "refresh.h"

#include "acl-store.h"
#include "descriptor-walk.h"
#include "kernel-acl.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <string>
#include <vector>

namespace kova_acl {

namespace {

bool Inheritable(const Ace &e) { return (e.inherit & (KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_DIR)) != 0; }

std::vector<Ace> PassedPart(const StoredAcl &a) {
    std::vector<Ace> out;
    for (const Ace &e : a.entries)
        if (Inheritable(e)) out.push_back(e);
    return out;
}

bool SameAce(const Ace &a, const Ace &b) {
    return a.idType == b.idType && a.id == b.id && a.permission == b.permission && a.inherit == b.inherit &&
           a.access == b.access;
}

} // namespace

bool PassesDownTheSame(bool hadOld, const StoredAcl &old, bool hasNew, const StoredAcl &next) {
    // Without a record a folder ends its children's walk up and passes
    // nothing; a record that does not inherit and passes no entry is the same.
    const bool oldPasses = hadOld && (old.inherits || !PassedPart(old).empty());
    const bool newPasses = hasNew && (next.inherits || !PassedPart(next).empty());
    if (!oldPasses || !newPasses) return oldPasses == newPasses;
    if (old.inherits != next.inherits) return false;
    const std::vector<Ace> a = PassedPart(old), b = PassedPart(next);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (!SameAce(a[i], b[i])) return false;
    return true;
}

bool RefreshDescendants(const Target &t, size_t &visited) {
    bool complete = false;
    return RefreshDescendants(t, kRefreshLimit, visited, complete);
}

bool RefreshDescendants(const Target &t, size_t limit, size_t &visited, bool &complete) {
    visited = 0;
    complete = false;
    WalkFolder top;
    if (!DescriptorWalk::OpenTop(t, top)) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    bool cut = false;
    DescriptorWalk walk(t.st.st_dev, kRefreshDepth, limit);
    walk.failed = walk.beyondDepth = [&cut] { cut = true; };
    walk.visit = [&t](WalkEntry &e) {
        Target child = e.AsTarget(t);
        StoredAcl own;
        bool present = false;
        if (!ReadStored(child, own, present) || !present || !own.inherits) return false;
        (void)ProjectStored(child, own);
        return true;
    };
    const WalkEnd end = walk.Walk(std::move(top));
    visited = walk.Looked();
    complete = end == WalkEnd::kFinished && !cut;
    return true;
}

} // namespace kova_acl
