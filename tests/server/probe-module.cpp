// A request-handling module for the server tests. Every method reports or
// does something the tests can check from outside: the identity the call ran
// with, a file created with that identity, a crash, a missing response.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "kova/module.h"
#include "kova/webapi.h"

namespace {

void WhoAmI(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    getresuid(&ru, &eu, &su);
    getresgid(&rg, &eg, &sg);
    Json::Value d(Json::objectValue);
    d["ruid"] = ru;
    d["euid"] = eu;
    d["suid"] = su;
    d["rgid"] = rg;
    d["egid"] = eg;
    d["sgid"] = sg;
    int n = getgroups(0, nullptr);
    std::vector<gid_t> g(n > 0 ? n : 0);
    if (n > 0) getgroups(n, g.data());
    d["groups"] = Json::Value(Json::arrayValue);
    for (gid_t x : g) d["groups"].append(x);
    d["user"] = req->GetLoginUserName();
    d["session"] = req->GetSessionID();
    const char *remote = getenv("REMOTE_ADDR");
    d["remote"] = remote ? remote : "";
    d["pid"] = static_cast<int>(getpid());
    d["echo"] = req->GetParam("echo", Json::Value());
    // Lets two concurrent calls overlap inside their workers.
    int pause = req->GetParam("pause_ms", 0).asInt();
    if (pause > 0) usleep(static_cast<useconds_t>(pause) * 1000);
    resp->SetSuccess(d);
}

// Creates params.path with the call's identity and reports its owner.
void Touch(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    std::string path = req->GetParam("path", "").asString();
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        resp->SetError(7001);
        return;
    }
    close(fd);
    struct stat st;
    stat(path.c_str(), &st);
    Json::Value d(Json::objectValue);
    d["uid"] = st.st_uid;
    d["gid"] = st.st_gid;
    resp->SetSuccess(d);
}

void Crash(KOVA::APIRequest *, KOVA::APIResponse *) { abort(); }

// Forks as a background task would and reports, from the child, whether the
// worker's channel (descriptor 3) is still open there.
void ForkProbe(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    std::string path = req->GetParam("path", "").asString();
    pid_t pid = fork();
    if (pid == 0) {
        // Asked before open(), which would take the lowest free number.
        const char *state = fcntl(3, F_GETFD) == -1 ? "closed" : "open";
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            ssize_t w = write(fd, state, strlen(state));
            (void)w;
            close(fd);
        }
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    resp->SetSuccess(Json::Value(pid > 0));
}

void NoReply(KOVA::APIRequest *, KOVA::APIResponse *) {}

void Hang(KOVA::APIRequest *, KOVA::APIResponse *) {
    for (;;) pause();
}

void Throw(KOVA::APIRequest *, KOVA::APIResponse *) { throw 42; }

// Gives up root for good: the worker must not serve anyone after this.
void DropRoot(KOVA::APIRequest *, KOVA::APIResponse *resp) {
    uid_t eu = geteuid();
    if (setresuid(0, 0, 0) == 0) setresuid(eu == 0 ? 65534 : eu, eu == 0 ? 65534 : eu, eu == 0 ? 65534 : eu);
    resp->SetSuccess(Json::Value(static_cast<int>(getpid())));
}

const KOVA_API_ENTRY gTable[] = {
    {"Test.Probe", 1, "whoami", WhoAmI},
    {"Test.Probe", 1, "touch", Touch},
    {"Test.Probe", 1, "crash", Crash},
    {"Test.Probe", 1, "noreply", NoReply},
    {"Test.Probe", 1, "throw", Throw},
    {"Test.Probe", 1, "drop_root", DropRoot},
    {"Test.Probe", 1, "hang", Hang},
    {"Test.Probe", 1, "fork_probe", ForkProbe},
    {"Test.Probe", 2, "whoami", WhoAmI},
    {nullptr, 0, nullptr, nullptr},
};

} // namespace

extern "C" __attribute__((visibility("default"))) const KOVA_API_ENTRY *GetAPITable(void) { return gTable; }
