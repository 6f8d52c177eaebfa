// Slows down password guessing at sign-in. Failures are counted per
// (remote address, account) and per remote address; once a counter reaches
// its limit, sign-ins of that key are refused without looking at the
// password until a delay has passed, and every further failure doubles the
// delay (up to a ceiling). A success clears the (address, account) counter
// only, so a guesser spraying many accounts from one address stays slowed.
// Counters are forgotten after a quiet period, and the table is bounded:
// when full, the entry idle longest is dropped. Keying by the pair as well
// as the address keeps one address from locking an account for everyone.
// Thread-safe; time is passed in so tests need not sleep.
#ifndef KOVA_WEBD_LOGIN_THROTTLE_H
#define KOVA_WEBD_LOGIN_THROTTLE_H

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace webd {

class LoginThrottle {
public:
    typedef std::chrono::steady_clock Clock;

    struct Limits {
        int perAccount = 5;                        // failures of one account from one address
        int perAddress = 30;                       // failures of any accounts from one address
        std::chrono::seconds firstDelay{30};       // refusal after reaching a limit
        std::chrono::seconds maxDelay{15 * 60};    // the doubling stops here
        std::chrono::seconds forgetAfter{60 * 60}; // a counter idle this long starts over
        size_t maxEntries = 10000;
    };

    LoginThrottle() = default;
    explicit LoginThrottle(const Limits &limits) : limits_(limits) {}

    // Zero when a sign-in may be tried now, else how long to wait.
    std::chrono::seconds RetryAfter(const std::string &address, const std::string &account, Clock::time_point now);
    void Failed(const std::string &address, const std::string &account, Clock::time_point now);
    void Succeeded(const std::string &address, const std::string &account);

private:
    struct Counter {
        int failures = 0;
        Clock::time_point last;
        Clock::time_point blockedUntil;
    };

    void Count(const std::string &key, int limit, Clock::time_point now);
    std::chrono::seconds Remaining(const std::string &key, Clock::time_point now) const;
    void Prune(Clock::time_point now);

    Limits limits_;
    std::mutex mu_;
    std::map<std::string, Counter> counters_;
};

} // namespace webd

#endif
