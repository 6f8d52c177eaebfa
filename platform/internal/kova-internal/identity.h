// The calling identity of a platform call, and the scope in which a platform
// library acts as root after it has checked that identity's rights.
#ifndef KOVA_INTERNAL_IDENTITY_H
#define KOVA_INTERNAL_IDENTITY_H

#include <linux/capability.h>
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

// The calling thread's capability sets as the kernel reports them. Moving
// the effective uid from 0 to another id empties the effective set, so a
// scope that raises the uid and drops it again reads them before and puts
// them back after: a thread that held a capability on entry (a background
// task keeps CAP_SYS_ADMIN, see kova/fileshare.h) holds it again on exit.
class ThreadCapabilities {
public:
    // capget; false (and nothing known) on failure.
    bool Read();
    // capset of what Read saw; the kernel refuses an effective capability
    // that is no longer permitted.
    bool Apply() const;
    bool AnyEffective() const { return read_ && (data_[0].effective | data_[1].effective) != 0; }
    bool Effective(unsigned cap) const;
    // Effective set of `cap` alone, the other sets unchanged; false when
    // `cap` is not permitted.
    bool KeepOnly(unsigned cap);

private:
    struct __user_cap_data_struct data_[_LINUX_CAPABILITY_U32S_3] = {};
    bool read_ = false;
};

// True when the calling thread has `cap` in its effective set now.
bool HoldsCapability(unsigned cap);

// Raises the effective uid alone to 0 for its lifetime (nothing to do when
// it is 0 already) and gives back, on destruction or Drop, the previous
// uid and the effective capabilities held before. With uid 0 the thread
// holds its capabilities again, which is all trusted attributes, lstat and
// lchown need. Needs a saved uid of 0 (the server and tasks keep it); when
// raising fails, ok() is false and nothing changes.
class UidScope {
public:
    // `currentEuid`: the caller's effective uid, when it has just read it.
    explicit UidScope(uid_t currentEuid);
    UidScope();
    ~UidScope() { Drop(); }
    UidScope(const UidScope &) = delete;
    UidScope &operator=(const UidScope &) = delete;
    bool ok() const { return ok_; }
    // Gives the uid and capabilities back now; the destructor then does nothing.
    void Drop();

private:
    uid_t uid_;
    bool ok_ = true;
    bool raised_ = false;
    ThreadCapabilities caps_;
};

// Raises the effective uid and gid to 0 for its lifetime and restores the
// previous effective ids, and the effective capabilities held before, on
// destruction. Needs a saved uid of 0 (the server and tasks keep it); when
// raising fails, ok() is false and nothing changes.
class RootScope {
public:
    RootScope();
    ~RootScope();
    RootScope(const RootScope &) = delete;
    RootScope &operator=(const RootScope &) = delete;
    bool ok() const { return ok_; }

private:
    UidScope uid_;   // given back after the gid: only root may change that
    gid_t gid_;
    bool ok_;
};

} // namespace kova_internal

#endif
