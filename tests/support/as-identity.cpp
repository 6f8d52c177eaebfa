#include "as-identity.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kova_test {

int RunAs(const Identity &who, const std::function<int()> &body) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (setgroups(who.groups.size(), who.groups.data()) != 0) _exit(250);
        if (setresgid(0, who.gid, 0) != 0) _exit(251);
        if (setresuid(0, who.uid, 0) != 0) _exit(252);
        int rc = body();
        _exit(rc & 0xFF);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (!WIFEXITED(status)) return -1;
    int rc = WEXITSTATUS(status);
    return (rc >= 250 && rc <= 252) ? -1 : rc;
}

namespace {

bool ReadCaps(struct __user_cap_data_struct (&data)[_LINUX_CAPABILITY_U32S_3]) {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &header, data) == 0;
}

} // namespace

uint64_t EffectiveCapabilities() {
    struct __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (!ReadCaps(data)) return 0;
    return (static_cast<uint64_t>(data[1].effective) << 32) | data[0].effective;
}

bool KeepOnlyCapability(unsigned cap) {
    struct __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (cap >= 64 || !ReadCaps(data)) return false;
    data[0].effective = data[1].effective = 0;
    data[cap / 32].effective = 1u << (cap % 32);
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capset, &header, data) == 0;
}

} // namespace kova_test
