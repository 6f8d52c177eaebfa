// Inheritance resolution (rules in inherit.h).
#include "inherit.h"

#include "acl-store.h"

namespace kova_acl {

namespace {
constexpr uint16_t kF = KOVA_ACL_INHERIT_FILE;
constexpr uint16_t kD = KOVA_ACL_INHERIT_DIR;
constexpr uint16_t kI = KOVA_ACL_INHERIT_ONLY;
constexpr uint16_t kN = KOVA_ACL_INHERIT_NO_PROPAGATE;
} // namespace

bool PassDown(const Ace &e, bool childIsDir, Ace &copy) {
    const bool f = e.inherit & kF, d = e.inherit & kD, n = e.inherit & kN;
    copy = e;
    if (!childIsDir) {
        if (!f) return false;
        copy.inherit = static_cast<uint16_t>(e.inherit & ~kI);
    } else if (d) {
        copy.inherit = static_cast<uint16_t>(e.inherit & ~kI);
    } else if (f && !n) {
        copy.inherit = static_cast<uint16_t>(e.inherit | kI);
    } else {
        return false;
    }
    if (n) copy.inherit = static_cast<uint16_t>(copy.inherit & ~(kF | kD));
    return true;
}

bool CollectInherited(const Target &t, std::vector<Ace> &out) {
    std::string cur = t.path;
    uint32_t level = 0;
    while (!(t.inShare && cur == t.shareRoot) && cur != "/") {
        std::string parent = ParentOf(cur);
        ++level;
        StoredAcl anc;
        bool present = false;
        if (!ReadStored(parent, anc, present)) return false;
        if (!present) break;
        // Carry each entry down through the folders between the ancestor
        // and the path, then into the path itself.
        for (const Ace &e : anc.entries) {
            Ace carried = e;
            bool reaches = true;
            for (uint32_t step = 1; step <= level && reaches; ++step) {
                bool childIsDir = step < level ? true : t.IsDir();
                Ace next;
                reaches = PassDown(carried, childIsDir, next);
                carried = next;
            }
            if (!reaches) continue;
            carried.level = level;
            out.push_back(carried);
        }
        if ((t.inShare && parent == t.shareRoot) || !anc.inherits) break;
        cur = parent;
    }
    return true;
}

} // namespace kova_acl
