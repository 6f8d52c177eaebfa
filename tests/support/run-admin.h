// Runs the built kova-admin as a person would, through the shell or with an argument vector.
#ifndef KOVA_TEST_RUN_ADMIN_H
#define KOVA_TEST_RUN_ADMIN_H

#include <string>
#include <vector>

namespace kova_test {

// `env` is prefixed to the command line (e.g. "KOVA_FAULTS=..."). Returns the exit status (-1 when it did not
// exit) and, in *out, stdout and stderr.
int RunAdmin(const std::string &args, std::string *out = nullptr, const std::string &env = "");
// The same without a shell: each argument is passed as it is.
int RunAdmin(std::vector<std::string> args, std::string *out);

} // namespace kova_test

#endif
