// kova-admin: creates and edits a platform root ($KOVA_ROOT or --root DIR).
#include "command.h"

#include "kova/errcode.h"
#include "kova/klibc.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kova_admin {

namespace {
std::vector<Command> &Registry() {
    static std::vector<Command> commands;
    return commands;
}
} // namespace

Registration::Registration(const Command &command) { Registry().push_back(command); }
const std::vector<Command> &Commands() { return Registry(); }

bool HasFlag(const std::vector<std::string> &args, const std::string &flag) {
    for (const auto &a : args)
        if (a == flag) return true;
    return false;
}

std::string Option(const std::vector<std::string> &args, const std::string &key, const std::string &fallback) {
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == key) return args[i + 1];
    return fallback;
}

std::vector<std::string> Positionals(const std::vector<std::string> &args, const std::vector<std::string> &valueOptions) {
    std::vector<std::string> out;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i].rfind("--", 0) == 0) {
            for (const auto &v : valueOptions)
                if (v == args[i]) {
                    ++i;
                    break;
                }
            continue;
        }
        out.push_back(args[i]);
    }
    return out;
}

const char *ErrorWords(int code) {
    switch (code) {
    case KOVA_ERR_PERM: return "permission denied";
    case KOVA_ERR_NOENT: return "not found";
    case KOVA_ERR_NOMEM: return "out of memory";
    case KOVA_ERR_IO: return "input/output or database error";
    case KOVA_ERR_EXIST: return "already exists";
    case KOVA_ERR_BADARG: return "invalid value";
    case KOVA_ERR_NOTDIR: return "not a folder";
    case KOVA_ERR_RANGE: return "value out of range";
    case KOVA_ERR_NOGROUP: return "no such group";
    case KOVA_ERR_NOUSER: return "no such user";
    case KOVA_ERR_OWNER_CHANGE: return "owner change not allowed";
    case KOVA_ERR_NOSHARE: return "no such share";
    case KOVA_ERR_BADPATH: return "invalid path";
    case KOVA_ERR_CORRUPT: return "a stored record is corrupt";
    case KOVA_ERR_ACL_NOTSUP: return "the path does not support ACLs";
    case KOVA_ERR_ACL_DENIED: return "this ACL may not be changed";
    case KOVA_ERR_DIRSVC: return "the directory service cannot be reached";
    case KOVA_ERR_ACL_NOSPACE: return "the ACL cannot be stored (too large, or a read-only file system)";
    case KOVA_ERR_FAULT: return "injected fault";
    default: return nullptr;
    }
}

int Fail(const std::string &message) {
    int err = KLIBCErrGet();
    const char *words = ErrorWords(err);
    if (words)
        std::fprintf(stderr, "kova-admin: %s: %s\n", message.c_str(), words);
    else if (err)
        std::fprintf(stderr, "kova-admin: %s: error 0x%04X\n", message.c_str(), err);
    else
        std::fprintf(stderr, "kova-admin: %s\n", message.c_str());
    return 1;
}

int FailPlain(const std::string &message) {
    std::fprintf(stderr, "kova-admin: %s\n", message.c_str());
    return 1;
}

} // namespace kova_admin

namespace {
// Every command with its usage and summary, in name order.
void Usage(FILE *to) {
    std::fprintf(to, "usage: kova-admin [--root DIR] COMMAND ...\n\ncommands:\n");
    std::vector<const kova_admin::Command *> all;
    for (const auto &c : kova_admin::Commands()) all.push_back(&c);
    std::sort(all.begin(), all.end(), [](const auto *a, const auto *b) { return std::strcmp(a->name, b->name) < 0; });
    for (const auto *c : all) std::fprintf(to, "  %s\n      %s\n", c->usage, c->summary);
}
} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() >= 2 && args[0] == "--root") {
        setenv("KOVA_ROOT", args[1].c_str(), 1);
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
        Usage(args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    // Longest command name that matches the leading words wins.
    const kova_admin::Command *best = nullptr;
    size_t bestWords = 0;
    for (const auto &c : kova_admin::Commands()) {
        std::vector<std::string> words;
        std::string name = c.name;
        size_t pos = 0;
        while (pos <= name.size()) {
            size_t sp = name.find(' ', pos);
            if (sp == std::string::npos) sp = name.size();
            words.push_back(name.substr(pos, sp - pos));
            pos = sp + 1;
        }
        if (words.size() > args.size() || words.size() <= bestWords) continue;
        bool match = true;
        for (size_t i = 0; i < words.size() && match; ++i) match = words[i] == args[i];
        if (match) {
            best = &c;
            bestWords = words.size();
        }
    }
    if (!best) {
        std::fprintf(stderr, "kova-admin: unknown command '%s'\n", args[0].c_str());
        Usage(stderr);
        return 2;
    }
    std::vector<std::string> rest(args.begin() + static_cast<long>(bestWords), args.end());
    return best->run(rest);
}
