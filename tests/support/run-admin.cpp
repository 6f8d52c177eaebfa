#include "run-admin.h"
#include "temp-root.h"

#include <sys/wait.h>
#include <unistd.h>

namespace kova_test {

namespace {

// Runs argv[0] with stdout and stderr in *out; its exit status or -1.
int Run(std::vector<std::string> args, std::string *out) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
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

} // namespace

int RunAdmin(const std::string &args, std::string *out, const std::string &env) {
    return Run({"/bin/sh", "-c", env + " " + BuildDir() + "/bin/kova-admin " + args}, out);
}

int RunAdmin(std::vector<std::string> args, std::string *out) {
    args.insert(args.begin(), BuildDir() + "/bin/kova-admin");
    return Run(std::move(args), out);
}

} // namespace kova_test
