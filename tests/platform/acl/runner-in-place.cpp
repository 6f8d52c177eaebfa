// These tests slow the propagation runner down or count what it does
// through the system-call table, which the runner program would not share
// with them: here the forked child runs the runner's body in place instead
// of exec'ing the program, keeping the test's table.
#include "kova-internal/sys-calls.h"

#include "kova/acladmin.h"

#include <unistd.h>

namespace {

int RunInPlace(const char *, char *const[], char *const[]) { _exit(KOVAACLPropagationRunnerMain()); }

const bool kInstalled = [] {
    kova_internal::Sys().execve = RunInPlace;
    return true;
}();

} // namespace
