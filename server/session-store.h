// Logged-in sessions, kept in the front process's memory. A session has a
// random id (the cookie) and a separate random token that every call
// authenticated by the cookie must repeat in the X-Kova-Token header: a
// page of another site can make the browser send the cookie, but cannot
// read the token. Sessions end at logout or after an idle time.
#ifndef KOVA_WEBD_SESSION_STORE_H
#define KOVA_WEBD_SESSION_STORE_H

#include <sys/types.h>
#include <time.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace webd {

struct Session {
    std::string id;
    std::string token;
    std::string user;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;   // every group of the user, primary first
    bool admin = false;
    time_t lastUsed = 0;
};

class SessionStore {
public:
    using Clock = std::function<time_t()>;
    // clock: seconds now (tests pass their own).
    explicit SessionStore(int idleSeconds, Clock clock = [] { return time(nullptr); })
        : idleSeconds_(idleSeconds), clock_(std::move(clock)) {}

    // Fills id and token with fresh random values and stores the session.
    // false when the system's random source failed.
    bool Create(Session &session);
    // The live session with this id, its idle clock restarted.
    bool Get(const std::string &id, Session &out);
    void Remove(const std::string &id);
    size_t Count();

private:
    std::mutex mu_;
    std::map<std::string, Session> sessions_;
    int idleSeconds_;
    Clock clock_;
};

// Hex text of n random bytes from the kernel; false on failure.
bool RandomHex(size_t n, std::string &out);
// Compares in time independent of where the texts differ.
bool SameSecret(const std::string &a, const std::string &b);

} // namespace webd

#endif
