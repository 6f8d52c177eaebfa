// Task liveness from /proc.
#include "task-process.h"

#include <errno.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace kova_webapi {

namespace {

// State letter and start time from /proc/<pid>/stat. The command name may
// hold spaces and parentheses, so fields are counted after the last ')'.
bool ReadStat(pid_t pid, char &state, unsigned long long &startTime) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    if (!in) return false;
    std::string line;
    if (!std::getline(in, line)) return false;
    size_t close = line.rfind(')');
    if (close == std::string::npos) return false;
    std::istringstream rest(line.substr(close + 1));
    std::string field;
    // Field 3 is the state; field 22 the start time.
    for (int n = 3; n <= 22; ++n) {
        if (!(rest >> field)) return false;
        if (n == 3) state = field.empty() ? '?' : field[0];
    }
    char *end = nullptr;
    startTime = std::strtoull(field.c_str(), &end, 10);
    return end && *end == '\0';
}

} // namespace

unsigned long long ProcessStartTime(pid_t pid) {
    char state = 0;
    unsigned long long start = 0;
    if (pid <= 0 || !ReadStat(pid, state, start)) return 0;
    return start;
}

bool TaskAlive(pid_t pid, unsigned long long startTime) {
    if (pid <= 0) return false;
    if (kill(pid, 0) != 0 && errno != EPERM) return false;
    char state = 0;
    unsigned long long start = 0;
    if (!ReadStat(pid, state, start)) return false;
    if (state == 'Z' || state == 'X' || state == 'x') return false;
    return start == startTime;
}

} // namespace kova_webapi
