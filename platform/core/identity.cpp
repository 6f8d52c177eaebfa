// The platform's identity component (see identity.h).
#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace kova_internal {

namespace {
// Bumped before every setgroups of this component (see GroupsGeneration).
std::atomic<uint64_t> gGroupsGeneration{0};
} // namespace

uint64_t GroupsGeneration() { return gGroupsGeneration.load(std::memory_order_acquire); }

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

namespace {

int CapGet(struct __user_cap_data_struct *data) {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return Sys().capget(&header, data);
}

// The kernel refused to lower ids that were raised for a moment. Going on
// would run the rest of a user's request as root.
[[noreturn]] void LostIdentity(const char *what) {
    syslog(LOG_AUTH | LOG_CRIT, "identity: cannot give root back (%s, errno %d); ending the process", what, errno);
    std::abort();
}

} // namespace

bool ThreadCapabilities::Read() {
    read_ = CapGet(data_) == 0;
    return read_;
}

bool ThreadCapabilities::Apply() const {
    if (!read_) return false;
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return Sys().capset(&header, const_cast<cap_user_data_t>(data_)) == 0;
}

bool ThreadCapabilities::Effective(unsigned cap) const {
    return read_ && cap < 64 && (data_[cap / 32].effective & (1u << (cap % 32))) != 0;
}

bool ThreadCapabilities::KeepOnly(unsigned cap) {
    if (!read_ || cap >= 64 || !(data_[cap / 32].permitted & (1u << (cap % 32)))) return false;
    data_[0].effective = data_[1].effective = 0;
    data_[cap / 32].effective = 1u << (cap % 32);
    return true;
}

bool ThreadCapabilities::KeepOnlyMask(uint64_t mask) {
    const uint64_t permitted = read_ ? (static_cast<uint64_t>(data_[1].permitted) << 32) | data_[0].permitted : 0;
    if (!read_ || (mask & ~permitted) != 0) return false;
    data_[0].effective = static_cast<uint32_t>(mask);
    data_[1].effective = static_cast<uint32_t>(mask >> 32);
    return true;
}

uint64_t ThreadCapabilities::EffectiveMask() const {
    return read_ ? (static_cast<uint64_t>(data_[1].effective) << 32) | data_[0].effective : 0;
}

bool HoldsCapability(unsigned cap) {
    ThreadCapabilities caps;
    return caps.Read() && caps.Effective(cap);
}

bool KeepOnlyCapability(unsigned cap) {
    ThreadCapabilities caps;
    return caps.Read() && caps.KeepOnly(cap) && caps.Apply();
}

bool KeepOnlyCapabilities(uint64_t mask) {
    ThreadCapabilities caps;
    return caps.Read() && caps.KeepOnlyMask(mask) && caps.Apply();
}

UidScope::UidScope() : UidScope(geteuid()) {}

// The capabilities are read only when the uid is really raised: root keeps
// its own untouched.
UidScope::UidScope(uid_t currentEuid) : uid_(currentEuid) {
    if (uid_ == 0) return;
    (void)caps_.Read();
    ok_ = Sys().setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) == 0;
    raised_ = ok_;
}

void UidScope::Drop() {
    if (!raised_) return;
    raised_ = false;
    if (Sys().setresuid(static_cast<uid_t>(-1), uid_, static_cast<uid_t>(-1)) != 0) LostIdentity("uid scope");
    // Leaving uid 0 emptied the effective set.
    if (caps_.AnyEffective()) (void)caps_.Apply();
}

RootScope::RootScope() : gid_(getegid()), ok_(uid_.ok()) {
    if (!ok_) return;
    if (gid_ != 0 && Sys().setresgid(static_cast<gid_t>(-1), 0, static_cast<gid_t>(-1)) != 0) {
        uid_.Drop();
        ok_ = false;
    }
}

RootScope::~RootScope() {
    if (ok_ && gid_ != 0 && Sys().setresgid(static_cast<gid_t>(-1), gid_, static_cast<gid_t>(-1)) != 0)
        LostIdentity("root scope");
}

std::vector<gid_t> CurrentGroups() { return Caller::Current().groups; }

bool SwitchToUser(uid_t uid, gid_t gid, const std::vector<gid_t> &groups) {
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    if (getresuid(&ru, &eu, &su) != 0 || getresgid(&rg, &eg, &sg) != 0) return false;
    const std::vector<gid_t> wasGroups = CurrentGroups();
    // Only an effective root may set groups and ids; the saved uid 0 that
    // servers and tasks keep lets us become it first.
    if (eu != 0 && Sys().setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) return false;
    gGroupsGeneration.fetch_add(1, std::memory_order_acq_rel);
    if (Sys().setgroups(groups.size(), groups.data()) == 0 && Sys().setresgid(0, gid, 0) == 0 &&
        Sys().setresuid(0, uid, 0) == 0)
        return true;
    const int err = errno;
    // Still root here: each of these is allowed, and the uid comes last.
    if (Sys().setgroups(wasGroups.size(), wasGroups.data()) != 0 || Sys().setresgid(rg, eg, sg) != 0 ||
        Sys().setresuid(ru, eu, su) != 0)
        LostIdentity("failed switch");
    errno = err;
    return false;
}

bool RestoreRoot(const std::vector<gid_t> &rootGroups) {
    // Uid first: changing groups and gids needs an effective uid of 0.
    const bool uidOk = Sys().setresuid(0, 0, 0) == 0;
    const bool gidOk = uidOk && Sys().setresgid(0, 0, 0) == 0;
    gGroupsGeneration.fetch_add(1, std::memory_order_acq_rel);
    const bool groupsOk = gidOk && Sys().setgroups(rootGroups.size(), rootGroups.data()) == 0;
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    if (!groupsOk || getresuid(&ru, &eu, &su) != 0 || getresgid(&rg, &eg, &sg) != 0) return false;
    return ru == 0 && eu == 0 && su == 0 && rg == 0 && eg == 0 && sg == 0;
}

} // namespace kova_internal
