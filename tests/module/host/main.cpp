// kova-module-host: runs one request through the shipped module.
//
//   kova-module-host '{"api": "KOVA.Core.ACL", "version": 1, "method": "get",
//                      "params": {...}, "user": "admin", "session": "s1"}'
//   (or the same JSON on standard input)
//
// Optional keys: "uid", "gid", "groups" (explicit effective ids instead of
// the login user's), "as_root" (keep root), "faults" ([{"call", "nth",
// "result", "error"}, ...]), "module" (library path). Prints
// {"delivered", "hostError", "response", "logs": [[priority, text], ...]}
// and exits 0 when the request reached a handler.
#include "module-host.h"

#include <iostream>
#include <iterator>
#include <string>

int main(int argc, char **argv) {
    std::string text;
    if (argc > 1)
        text = argv[1];
    else
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    Json::Value in;
    std::string error;
    if (!kova_host::ParseJson(text, in, &error) || !in.isObject()) {
        std::cerr << "kova-module-host: the request must be a JSON object: " << error << '\n';
        return 2;
    }
    kova_host::CallOptions options;
    if (in.isMember("user")) options.user = in["user"].asString();
    if (in.isMember("session")) options.session = in["session"].asString();
    if (in["as_root"].asBool()) options.ids = kova_host::Ids::Root;
    if (in.isMember("uid")) {
        options.ids = kova_host::Ids::Explicit;
        options.uid = in["uid"].asUInt();
        options.gid = in["gid"].asUInt();
        for (const auto &g : in["groups"]) options.groups.push_back(g.asUInt());
    }
    for (const auto &f : in["faults"])
        options.faults.push_back(kova_host::Fault{f["call"].asString(), f["nth"].asInt(),
                                                  static_cast<long>(f["result"].asInt64()), f["error"].asInt()});

    kova_host::ModuleHost host(in.isMember("module") ? in["module"].asString() : kova_host::DefaultModulePath());
    if (!host.ok()) {
        std::cerr << "kova-module-host: " << host.error() << '\n';
        return 2;
    }
    kova_host::CallResult r = host.Call(in.get("api", kova_host::kApi).asString(), in.get("version", 1).asInt(),
                                        in["method"].asString(), in.get("params", Json::Value(Json::objectValue)),
                                        options);
    Json::Value out(Json::objectValue);
    out["delivered"] = r.delivered;
    out["hostError"] = r.hostError;
    out["response"] = r.response;
    out["logs"] = kova_host::LogsToJson(r.logs);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, out) << '\n';
    return r.delivered ? 0 : 1;
}
