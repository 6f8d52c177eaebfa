// Calling identity and the root scope of the platform libraries.
#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"

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

namespace {

int CapGet(struct __user_cap_data_struct *data) {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return Sys().capget(&header, data);
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

bool HoldsCapability(unsigned cap) {
    ThreadCapabilities caps;
    return caps.Read() && caps.Effective(cap);
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
    (void)setresuid(static_cast<uid_t>(-1), uid_, static_cast<uid_t>(-1));
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
    if (ok_ && gid_ != 0) (void)setresgid(static_cast<gid_t>(-1), gid_, static_cast<gid_t>(-1));
}

} // namespace kova_internal
