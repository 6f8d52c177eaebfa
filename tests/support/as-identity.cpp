#include "as-identity.h"

#include "kova-internal/identity.h"

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kova_test {

namespace {

// Exit status of a child that could not take the identity.
constexpr int kCannotSwitch = 250;

} // namespace

std::string IdsNow() {
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    getresuid(&ru, &eu, &su);
    getresgid(&rg, &eg, &sg);
    std::string t = "uid " + std::to_string(ru) + "/" + std::to_string(eu) + "/" + std::to_string(su) + " gid " +
                    std::to_string(rg) + "/" + std::to_string(eg) + "/" + std::to_string(sg) + " groups";
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    groups.resize(static_cast<size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
    for (gid_t g : groups) t += " " + std::to_string(g);
    return t;
}

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
