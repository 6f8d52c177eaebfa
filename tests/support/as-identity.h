// Runs a piece of a test under another effective identity, the way the server runs a request: a forked child
// sets its supplementary groups, effective gid and uid (real and saved ids stay 0) and runs the body; the
// body's int result comes back as the child's exit status (0..255).
#ifndef KOVA_TEST_AS_IDENTITY_H
#define KOVA_TEST_AS_IDENTITY_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kova_test {

struct Identity {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
};

// Returns the body's result, or -1 when the child could not switch or died.
int RunAs(const Identity &who, const std::function<int()> &body);

// Every id of the process as the kernel holds it: "uid R/E/S gid R/E/S groups G...".
std::string IdsNow();

// The calling thread's effective capabilities (bit n is capability n).
uint64_t EffectiveCapabilities();
// Leaves `cap` alone in the effective set, as a background task's switch to its user does; false when the
// kernel refused.
bool KeepOnlyCapability(unsigned cap);

} // namespace kova_test

#endif
