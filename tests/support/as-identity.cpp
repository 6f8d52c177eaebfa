#include "as-identity.h"

#include <grp.h>
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

} // namespace kova_test
