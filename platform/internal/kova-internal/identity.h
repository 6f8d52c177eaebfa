// The calling identity of a platform call, and the scope in which a platform
// library acts as root after it has checked that identity's rights.
#ifndef KOVA_INTERNAL_IDENTITY_H
#define KOVA_INTERNAL_IDENTITY_H

#include <sys/types.h>
#include <vector>

namespace kova_internal {

// Effective uid, gid and supplementary groups of the process right now.
struct Caller {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;   // supplementary groups, egid not repeated

    static Caller Current();
    bool IsRoot() const { return uid == 0; }
    bool InGroup(gid_t g) const;
};

// Raises the effective uid and gid to 0 for its lifetime and restores the
// previous effective ids on destruction. Needs a saved uid of 0 (the server
// and tasks keep it); when raising fails, ok() is false and nothing changes.
class RootScope {
public:
    RootScope();
    ~RootScope();
    RootScope(const RootScope &) = delete;
    RootScope &operator=(const RootScope &) = delete;
    bool ok() const { return ok_; }

private:
    uid_t uid_;
    gid_t gid_;
    bool ok_;
};

} // namespace kova_internal

#endif
