// Calling identity and the root scope of the platform libraries.
#include "kova-internal/identity.h"

#include <unistd.h>

#include <algorithm>

namespace kova_internal {

Caller Caller::Current() {
    Caller c;
    c.uid = geteuid();
    c.gid = getegid();
    int n = getgroups(0, nullptr);
    if (n > 0) {
        c.groups.resize(static_cast<size_t>(n));
        n = getgroups(n, c.groups.data());
        c.groups.resize(n > 0 ? static_cast<size_t>(n) : 0);
    }
    return c;
}

bool Caller::InGroup(gid_t g) const {
    return g == gid || std::find(groups.begin(), groups.end(), g) != groups.end();
}

RootScope::RootScope() : uid_(geteuid()), gid_(getegid()), ok_(true) {
    if (uid_ != 0 && setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) {
        ok_ = false;
        return;
    }
    if (gid_ != 0 && setresgid(static_cast<gid_t>(-1), 0, static_cast<gid_t>(-1)) != 0) {
        if (uid_ != 0) (void)setresuid(static_cast<uid_t>(-1), uid_, static_cast<uid_t>(-1));
        ok_ = false;
    }
}

RootScope::~RootScope() {
    if (!ok_) return;
    // The gid first: only root may change it.
    if (gid_ != 0) (void)setresgid(static_cast<gid_t>(-1), gid_, static_cast<gid_t>(-1));
    if (uid_ != 0) (void)setresuid(static_cast<uid_t>(-1), uid_, static_cast<uid_t>(-1));
}

} // namespace kova_internal
