// kova-admin: creates and edits a platform root ($KOVA_ROOT or --root DIR).
#include "command.h"

#include "kova/klibc.h"

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

int Fail(const std::string &message) {
    int err = KLIBCErrGet();
    if (err)
        std::fprintf(stderr, "kova-admin: %s [0x%04X %s:%d]\n", message.c_str(), err, KLIBCErrorGetFile(), KLIBCErrorGetLine());
    else
        std::fprintf(stderr, "kova-admin: %s\n", message.c_str());
    return 1;
}

} // namespace kova_admin

namespace {
void Usage() {
    std::fprintf(stderr, "usage: kova-admin [--root DIR] COMMAND ...\n\ncommands:\n");
    for (const auto &c : kova_admin::Commands()) std::fprintf(stderr, "  %-60s %s\n", c.usage, c.summary);
}
} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() >= 2 && args[0] == "--root") {
        setenv("KOVA_ROOT", args[1].c_str(), 1);
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == "help" || args[0] == "--help") {
        Usage();
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
        Usage();
        return 2;
    }
    std::vector<std::string> rest(args.begin() + static_cast<long>(bestWords), args.end());
    return best->run(rest);
}
