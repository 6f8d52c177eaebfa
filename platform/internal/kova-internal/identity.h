// The platform's one identity component: the calling identity of a platform
// call, the scopes in which a library acts as root after it has checked that
// identity's rights, and the switch of a whole process (a server worker, a
// background task, a test's child) to a user and back to root.
//
// Every id and capability change goes through the system-call table
// (sys-calls.h), so a test can refuse any one of them. A switch that fails
// half-way puts back what it had changed; giving root back up is never
// allowed to fail silently: when the kernel refuses to lower the ids again,
// the process ends (abort) rather than go on as root on a user's behalf.
#ifndef KOVA_INTERNAL_IDENTITY_H
#define KOVA_INTERNAL_IDENTITY_H

#include <linux/capability.h>
#include <sys/types.h>

#include <cstdint>
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
    // Bit n set when capability n is effective (0 when not read).
    uint64_t EffectiveMask() const;
    // Effective set of `cap` alone, the other sets unchanged; false when
    // `cap` is not permitted.
    bool KeepOnly(unsigned cap);
    // The same for every capability n whose bit n is set in `mask`; false
    // when one of them is not permitted.
    bool KeepOnlyMask(uint64_t mask);

private:
    struct __user_cap_data_struct data_[_LINUX_CAPABILITY_U32S_3] = {};
    bool read_ = false;
};

// True when the calling thread has `cap` in its effective set now.
bool HoldsCapability(unsigned cap);
// Leaves `cap` alone in the calling thread's effective set (the permitted
// set is kept, so a later raise of the uid gives the rest back); false when
// the kernel refused or `cap` is not permitted.
bool KeepOnlyCapability(unsigned cap);
// The same for the capabilities whose bits are set in `mask` (bit n:
// capability n).
bool KeepOnlyCapabilities(uint64_t mask);

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

// Changes whenever SwitchToUser or RestoreRoot set the supplementary
// groups: a copy of the groups taken under one value is current while the
// value is the same and the process changes its groups through them alone
// (a background task does, kova-internal/task-end.h).
uint64_t GroupsGeneration();

// The process's supplementary groups right now (empty on failure).
std::vector<gid_t> CurrentGroups();

// Makes the process act as a user: supplementary groups `groups`, then
// effective gid, then effective uid; real and saved ids 0, so platform code
// can still raise itself and the caller can return to root. Needs an
// effective or saved uid of 0. False with errno of the refused call, the
// former effective ids and groups put back.
bool SwitchToUser(uid_t uid, gid_t gid, const std::vector<gid_t> &groups);

// Every id 0 and the supplementary groups `rootGroups` (uid first: only root
// may change groups and gids). False when any id is not 0 afterwards (a
// handler dropped its saved id): the process cannot act for anyone else.
bool RestoreRoot(const std::vector<gid_t> &rootGroups);

} // namespace kova_internal

#endif
