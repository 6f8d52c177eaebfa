// Drift check and repair (see verify.h).
#include "verify.h"

#include "acl-store.h"
#include "descriptor-walk.h"
#include "inherit.h"
#include "kernel-acl.h"
#include "path-state.h"
#include "projection.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <vector>

namespace kova_acl {

namespace {

// Beyond what a propagation walks (kWalkDepth), within the descriptors a
// process may hold.
constexpr unsigned kVerifyDepth = 1000;

std::string Text(const PosixAcl &a) {
    static const char *kRwx[] = {"---", "--x", "-w-", "-wx", "r--", "r-x", "rw-", "rwx"};
    std::string s;
    for (const PosixEntry &e : a.entries) {
        if (!s.empty()) s += ",";
        switch (e.tag) {
        case kUserObj: s += "u::"; break;
        case kUser: s += "u:" + std::to_string(e.id) + ":"; break;
        case kGroupObj: s += "g::"; break;
        case kGroup: s += "g:" + std::to_string(e.id) + ":"; break;
        case kMask: s += "m::"; break;
        case kOther: s += "o::"; break;
        default: s += "?:"; break;
        }
        s += kRwx[e.perm & 7];
    }
    return s;
}

// The kernel's access ACL as it acts: the attribute, or the mode bits.
bool CurrentAccess(const Target &t, PosixAcl &out) {
    bool present = false;
    if (!ReadKernelAcl(t, kPosixAccess, out, present)) return false;
    if (!present) out = PosixAcl::FromMode(t.st.st_mode & 0777);
    return true;
}

// The projection an entry's record calls for, as a minimal ACL stands in
// the kernel (mode bits).
PosixAcl Canonical(const PosixAcl &a) { return a.MinimalForm() ? PosixAcl::FromMode(a.ModeBits()) : a; }

// Checks one entry; false when it could not be read or repaired.
bool CheckEntry(Target &t, bool repair, const std::function<void(const Drift &)> &report, VerifyCounts &counts) {
    if (!(S_ISREG(t.st.st_mode) || S_ISDIR(t.st.st_mode))) return true;
    StoredAcl own;
    bool present = false;
    if (!ReadStored(t, own, present)) return false;
    if (!present) return true;
    ++counts.checked;
    std::vector<Ace> complete;
    if (!CompleteEntries(t, own, false, complete)) return false;
    const OwnerId owner = ProjectionOwner(own, t.st);
    const Projection p = Project(complete, owner, t.st.st_uid, t.st.st_gid, t.IsDir(), t.BelowShareRoot(), t.inShare);
    PosixAcl access, deflt;
    bool hasDefault = false;
    if (!CurrentAccess(t, access)) return false;
    if (t.IsDir() && !ReadKernelAcl(t, kPosixDefault, deflt, hasDefault)) return false;
    // The coarse form is what is written when the full one has no room.
    const bool accessOk = access == Canonical(p.access) || access == Canonical(p.coarse);
    const bool defaultOk = !t.IsDir() || (hasDefault == p.hasDefault && (!hasDefault || deflt == p.deflt));
    if (accessOk && defaultOk) return true;
    ++counts.differing;
    Drift d;
    d.path = t.path;
    d.kernel = Text(access) + (hasDefault ? " default " + Text(deflt) : "");
    d.projection = Text(Canonical(p.access)) + (p.hasDefault ? " default " + Text(p.deflt) : "");
    if (repair) {
        if (!WriteProjection(t, p)) {
            report(d);
            return false;
        }
        d.repaired = true;
        ++counts.repaired;
    }
    report(d);
    return true;
}

} // namespace

bool VerifyTree(const char *szPath, bool repair, const std::function<void(const Drift &)> &report,
                VerifyCounts &counts) {
    counts = VerifyCounts();
    Elevation root;
    Target top;
    if (!root.ok() || !ResolveTarget(szPath, top)) return false;
    if (!CheckEntry(top, repair, report, counts)) ++counts.failed;
    if (!top.IsDir()) return true;
    WalkFolder first;
    if (!DescriptorWalk::OpenTop(top, first)) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    // Deeper than a propagation goes, since it leaves what lies below its
    // depth to --repair; folders beyond are counted as failed.
    DescriptorWalk walk(top.st.st_dev, kVerifyDepth);
    walk.failed = walk.beyondDepth = [&counts] { ++counts.failed; };
    walk.visit = [&](WalkEntry &e) {
        Target child = e.AsTarget(top);
        if (!CheckEntry(child, repair, report, counts)) ++counts.failed;
        return true;
    };
    walk.Walk(std::move(first));
    return true;
}

} // namespace kova_acl
