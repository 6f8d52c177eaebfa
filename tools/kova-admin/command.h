// kova-admin's command registry: each cmd-*.cpp file registers its commands
// at start-up with a static Registration, so the command families are
// independent files.
#ifndef KOVA_ADMIN_COMMAND_H
#define KOVA_ADMIN_COMMAND_H

#include <string>
#include <vector>

namespace kova_admin {

// Arguments after the command words. Returns the process exit status.
using CommandFn = int (*)(const std::vector<std::string> &args);

struct Command {
    const char *name;     // e.g. "share add"
    const char *usage;    // e.g. "share add NAME --path P [--no-acl] ..."
    const char *summary;  // one line
    CommandFn run;
};

struct Registration {
    explicit Registration(const Command &command);
};

const std::vector<Command> &Commands();

// Option helpers for "--key value" and "--flag" arguments.
bool HasFlag(const std::vector<std::string> &args, const std::string &flag);
std::string Option(const std::vector<std::string> &args, const std::string &key, const std::string &fallback = "");
// Positional arguments (those not starting with "--" nor following an option that takes a value).
std::vector<std::string> Positionals(const std::vector<std::string> &args, const std::vector<std::string> &valueOptions);

// Prints "kova-admin: <message>: <the platform's last error in words>"
// (just the message when there is none), returns 1.
int Fail(const std::string &message);
// The message alone, for messages that already say why.
int FailPlain(const std::string &message);

} // namespace kova_admin

#endif
