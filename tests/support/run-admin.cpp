#include "run-admin.h"
#include "temp-root.h"

#include <sys/wait.h>

#include <cstdio>

namespace kova_test {

int RunAdmin(const std::string &args, std::string *out, const std::string &env) {
    std::string cmd = env + " " + BuildDir() + "/bin/kova-admin " + args + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    std::string text;
    char buf[512];
    while (size_t n = fread(buf, 1, sizeof(buf), p)) text.append(buf, n);
    int status = pclose(p);
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace kova_test
