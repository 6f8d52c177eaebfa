#include "run-admin.h"
#include "temp-root.h"

#include <sys/wait.h>
#include <unistd.h>

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

int RunAdmin(std::vector<std::string> args, std::string *out) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    args.insert(args.begin(), BuildDir() + "/bin/kova-admin");
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[0]);
        close(fds[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace kova_test
