#include "login-throttle.h"

#include <algorithm>

namespace webd {

namespace {

// NUL cannot occur in an address or an HTTP-borne account name, so the two
// kinds of key never meet.
std::string PairKey(const std::string &address, const std::string &account) {
    return address + std::string(1, '\0') + account;
}

std::string AddressKey(const std::string &address) { return std::string(1, '\0') + address; }

} // namespace

std::chrono::seconds LoginThrottle::Remaining(const std::string &key, Clock::time_point now) const {
    auto it = counters_.find(key);
    if (it == counters_.end() || it->second.blockedUntil <= now) return std::chrono::seconds(0);
    // Rounded up: a client told 0 would retry into a refusal.
    auto left = std::chrono::ceil<std::chrono::seconds>(it->second.blockedUntil - now);
    return std::max(left, std::chrono::seconds(1));
}

std::chrono::seconds LoginThrottle::RetryAfter(const std::string &address, const std::string &account,
                                               Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mu_);
    return std::max(Remaining(PairKey(address, account), now), Remaining(AddressKey(address), now));
}

void LoginThrottle::Count(const std::string &key, int limit, Clock::time_point now) {
    Counter &c = counters_[key];
    if (c.failures > 0 && now - c.last >= limits_.forgetAfter) c = Counter();
    c.last = now;
    if (++c.failures < limit) return;
    // The limit-th failure blocks for the first delay, each one after it
    // for twice the one before.
    std::chrono::seconds delay = limits_.firstDelay;
    for (int over = c.failures - limit; over > 0 && delay < limits_.maxDelay; --over) delay *= 2;
    c.blockedUntil = now + std::min(delay, limits_.maxDelay);
}

void LoginThrottle::Failed(const std::string &address, const std::string &account, Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mu_);
    Prune(now);
    Count(PairKey(address, account), limits_.perAccount, now);
    Count(AddressKey(address), limits_.perAddress, now);
}

void LoginThrottle::Succeeded(const std::string &address, const std::string &account) {
    std::lock_guard<std::mutex> lock(mu_);
    counters_.erase(PairKey(address, account));
}

void LoginThrottle::Prune(Clock::time_point now) {
    for (auto it = counters_.begin(); it != counters_.end();) {
        if (now - it->second.last >= limits_.forgetAfter && it->second.blockedUntil <= now)
            it = counters_.erase(it);
        else
            ++it;
    }
    // Still full: the two new keys need room, so the longest idle go.
    while (!counters_.empty() && counters_.size() + 2 > limits_.maxEntries) {
        auto oldest = std::min_element(counters_.begin(), counters_.end(),
                                       [](const auto &a, const auto &b) { return a.second.last < b.second.last; });
        counters_.erase(oldest);
    }
}

} // namespace webd
