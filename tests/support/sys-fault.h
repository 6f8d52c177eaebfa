// Fails one system call of the platform's table (kova-internal/sys-calls.h): call 1, then 2, ... of the
// chosen entries, until the operation never gets that far; after each failed run the test checks what was
// left behind.
#ifndef KOVA_TEST_SYS_FAULT_H
#define KOVA_TEST_SYS_FAULT_H

#include <functional>
#include <string>
#include <vector>

namespace kova_test {

// While it lives, the nth call (from 1) among the table entries named in `only` (every wrapped entry when
// empty) fails with errno `err`; every such call is counted. The table is put back as it was on destruction.
class SysCallFault {
public:
    explicit SysCallFault(long nth, std::vector<std::string> only = {}, int err = EIO);
    ~SysCallFault();
    SysCallFault(const SysCallFault &) = delete;
    SysCallFault &operator=(const SysCallFault &) = delete;

    long Calls() const;        // calls counted so far
    bool Fired() const;        // the nth call came and failed
    std::string FiredAt() const;  // its entry's name ("" before)
};

// One run of a fault loop, as seen by the check.
struct FailedRun {
    long nth;           // the call that failed
    std::string entry;  // its table entry
    int result;         // what the operation returned
};

// Whether a run that died of `signal` after call `nth` (`entry`) failed is meant (a refused give-back of root
// ends the process: identity.h).
using DeathCheck = std::function<bool(long nth, const std::string &entry, int signal)>;

// Runs `op` in a forked child per run (nothing leaks between runs) with call 1, 2, ... of `only` failing,
// until the failing call never comes (that run must return `success`). After each failed call `check`, in the
// child, returns "" or what was wrong. Returns one line per problem (none when all runs were clean) and the
// entry refused in each run through *refused. A run that dies is a problem unless `died` accepts it.
std::vector<std::string> FailEachCall(const std::vector<std::string> &only, const std::function<int()> &op,
                                      int success, const std::function<std::string(const FailedRun &)> &check,
                                      std::vector<std::string> *refused = nullptr, const DeathCheck &died = nullptr, long limit = 2000);

// The problems one a line, for a failure message.
inline std::string Lines(const std::vector<std::string> &problems) {
    std::string all;
    for (const std::string &p : problems) all += p + "\n";
    return all;
}

} // namespace kova_test

#endif
