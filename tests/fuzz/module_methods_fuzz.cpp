// Every method of the shipped module, dlopen()ed and called through its GetAPITable as the server calls it.
// Input: a line "<method>[.<version>] [<login user>]" (admin by default; alice runs with her effective ids as
// a worker would), then the parameters as a JSON object ("@SHARE@" is the share's path). Checked: the handler
// set the response, returned with the ids it was called with and threw nothing; the reply is valid UTF-8.
#include "fuzz-check.h"
#include "fuzz-root.h"
#include "utf8-check.h"

#include "kova/account.h"
#include "kova/klibc.h"
#include "kova/module.h"
#include "kova/webapi.h"

#include <dlfcn.h>
#include <grp.h>
#include <unistd.h>

#include <vector>

namespace {

using kova_fuzz::Die;

const KOVA_API_ENTRY *gTable = nullptr;

struct Ids {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};
Ids gAlice;

Ids Resolve(const char *name) {
    Ids ids;
    PKOVA_USER user = nullptr;
    if (KOVAUserGet(name, &user) != 0 || !user) Die("login user missing from the fuzz root");
    ids.uid = user->uid;
    ids.gid = user->gid;
    KOVAUserFree(user);
    PKLIBC_SZLIST list = KLIBGroupInfoListGet(name, 0);
    if (!list) Die("group list unavailable");
    for (int i = 0; i < list->nItem; ++i) {
        const char *item = KLIBCSzListGet(list, i);
        if (item && *item) ids.groups.push_back(static_cast<gid_t>(std::strtoul(item, nullptr, 10)));
    }
    KLIBCSzListFree(list);
    return ids;
}

// Effective ids of a worker serving `ids`, real and saved ids staying 0.
void Become(const Ids &ids) {
    if (setgroups(ids.groups.size(), ids.groups.data()) != 0 || setresgid(-1, ids.gid, -1) != 0 ||
        setresuid(-1, ids.uid, -1) != 0)
        Die("cannot switch to the login user");
}

void BecomeRoot() {
    if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0 || setgroups(0, nullptr) != 0) Die("cannot restore root");
}

KOVA_API_HANDLER Find(const std::string &method, int version) {
    for (const KOVA_API_ENTRY *row = gTable; row->szAPI; ++row)
        if (method == row->szMethod && version == row->version) return row->handler;
    return nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    kova_fuzz::Root();
    gAlice = Resolve("alice");
    // Loaded here, before the fuzzer starts, so the module's coverage counters are registered with the rest.
    void *handle = dlopen(KOVA_FUZZ_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!handle) Die(dlerror());
    auto get = reinterpret_cast<KOVA_GET_API_TABLE>(dlsym(handle, KOVA_GET_API_TABLE_SYMBOL));
    if (!get || !(gTable = get())) Die("module without GetAPITable");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input = kova_fuzz::Text(data, size);
    size_t eol = input.find('\n');
    if (eol == std::string::npos) return 0;
    std::string head = input.substr(0, eol);
    std::string user = "admin";
    size_t blank = head.find(' ');
    if (blank != std::string::npos) {
        user = head.substr(blank + 1);
        head.resize(blank);
    }
    if (user != "admin" && user != "alice") return 0;
    int version = 1;
    size_t dot = head.find('.');
    if (dot != std::string::npos) {
        version = std::atoi(head.c_str() + dot + 1);
        head.resize(dot);
    }
    KOVA_API_HANDLER handler = Find(head, version);
    if (!handler) return 0;

    Json::Value params;
    if (!kova_fuzz::ParseJson(kova_fuzz::WithSharePath(input.substr(eol + 1)), params) || !params.isObject()) return 0;

    KOVA::APIRequest request(params, user, "fuzz-session");
    request.SetMethod("KOVA.Core.ACL", version, head);
    KOVA::APIResponse response;
    if (user == "alice") Become(gAlice);
    uid_t euid = geteuid();
    gid_t egid = getegid();
    handler(&request, &response);
    if (geteuid() != euid || getegid() != egid) Die("handler returned with other effective ids");
    if (user == "alice") BecomeRoot();
    if (!response.IsSet()) Die("handler returned without setting the response");
    Json::Value reply = response.ToJson();
    {
        Json::StreamWriterBuilder writer;
        writer["emitUTF8"] = true;
        if (!kova_fuzz::ValidUtf8(Json::writeString(writer, reply))) Die("reply is not valid UTF-8");
    }
    // KOVA_FUZZ_PRINT=1 shows what each input got, for writing seeds.
    static const bool print = std::getenv("KOVA_FUZZ_PRINT") != nullptr;
    if (print) std::fprintf(stderr, "%s %s -> %s\n", head.c_str(), user.c_str(), reply.toStyledString().c_str());
    return 0;
}
