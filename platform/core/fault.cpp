// Fault injection: a process-wide table of armed faults, consulted by the
// single check at the start of every exported platform call.
#include "kova/fault.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Fault {
    std::string call;   // exported name, or "*"
    int remaining;      // calls left before it fires; 0 = fires every time
    bool everyCall;
    long result;
    int error;
};

struct FaultTable {
    std::mutex mu;
    std::vector<Fault> faults;
    long calls = 0;
    bool envLoaded = false;
};

FaultTable &Table() {
    static FaultTable *table = new FaultTable;  // outlives static destructors
    return *table;
}

void ArmLocked(FaultTable &t, const char *call, int nth, long result, int error) {
    Fault f;
    f.call = call;
    f.everyCall = nth <= 0;
    f.remaining = nth <= 0 ? 0 : nth;
    f.result = result;
    f.error = error;
    t.faults.push_back(f);
}

// "$KOVA_FAULTS": name:nth:result:error[,...]
void LoadEnvLocked(FaultTable &t) {
    t.envLoaded = true;
    const char *env = std::getenv("KOVA_FAULTS");
    if (!env || !*env) return;
    std::string entries(env);
    size_t pos = 0;
    while (pos <= entries.size()) {
        size_t end = entries.find(',', pos);
        if (end == std::string::npos) end = entries.size();
        std::string item = entries.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty()) continue;
        // Names may contain "::" (class methods), so the three numbers are
        // taken from the right.
        size_t c3 = item.rfind(':');
        size_t c2 = (c3 == std::string::npos || c3 == 0) ? std::string::npos : item.rfind(':', c3 - 1);
        size_t c1 = (c2 == std::string::npos || c2 == 0) ? std::string::npos : item.rfind(':', c2 - 1);
        if (c1 == std::string::npos || c1 == 0) continue;
        std::string name = item.substr(0, c1);
        int nth = static_cast<int>(std::strtol(item.substr(c1 + 1, c2 - c1 - 1).c_str(), nullptr, 0));
        long result = std::strtol(item.substr(c2 + 1, c3 - c2 - 1).c_str(), nullptr, 0);
        int error = static_cast<int>(std::strtol(item.substr(c3 + 1).c_str(), nullptr, 0));
        ArmLocked(t, name.c_str(), nth, result, error);
    }
}

} // namespace

extern "C" int KLIBCFaultSet(const char *call, int nth, long result, int error) {
    if (!call || !*call) {
        KLIBCErrSetEx(KOVA_ERR_BADARG, "fault", __LINE__);
        return -1;
    }
    FaultTable &t = Table();
    std::lock_guard<std::mutex> lock(t.mu);
    if (!t.envLoaded) LoadEnvLocked(t);
    ArmLocked(t, call, nth, result, error);
    return 0;
}

extern "C" void KLIBCFaultClearAll(void) {
    FaultTable &t = Table();
    std::lock_guard<std::mutex> lock(t.mu);
    t.envLoaded = true;  // a test that clears wants no faults from the environment either
    t.faults.clear();
    t.calls = 0;
}

extern "C" long KLIBCFaultCallCount(void) {
    FaultTable &t = Table();
    std::lock_guard<std::mutex> lock(t.mu);
    return t.calls;
}

extern "C" int KLIBCFaultHit(const char *call, long *pResult) {
    FaultTable &t = Table();
    std::lock_guard<std::mutex> lock(t.mu);
    if (!t.envLoaded) LoadEnvLocked(t);
    ++t.calls;
    for (size_t i = 0; i < t.faults.size(); ++i) {
        Fault &f = t.faults[i];
        if (f.call != "*" && f.call != call) continue;
        if (!f.everyCall && --f.remaining > 0) continue;
        if (pResult) *pResult = f.result;
        int error = f.error ? f.error : KOVA_ERR_FAULT;
        KLIBCErrSetEx(error, call, 0);
        if (!f.everyCall) t.faults.erase(t.faults.begin() + static_cast<long>(i));
        return 1;
    }
    return 0;
}
