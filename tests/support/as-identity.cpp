#include "as-identity.h"

#include "kova-internal/identity.h"

#include <sys/wait.h>
#include <unistd.h>

namespace kova_test {

namespace {

// Exit status of a child that could not take the identity.
constexpr int kCannotSwitch = 250;

} // namespace

int RunAs(const Identity &who, const std::function<int()> &body) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (!kova_internal::SwitchToUser(who.uid, who.gid, who.groups)) _exit(kCannotSwitch);
        int rc = body();
        _exit(rc & 0xFF);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (!WIFEXITED(status)) return -1;
    int rc = WEXITSTATUS(status);
    return (rc >= kCannotSwitch && rc <= 252) ? -1 : rc;
}

uint64_t EffectiveCapabilities() {
    kova_internal::ThreadCapabilities caps;
    return caps.Read() ? caps.EffectiveMask() : 0;
}

bool KeepOnlyCapability(unsigned cap) { return kova_internal::KeepOnlyCapability(cap); }

} // namespace kova_test
