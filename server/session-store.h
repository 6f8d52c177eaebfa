// Logged-in sessions, kept in the front process's memory. A session has a
// random id and a separate random token that every call must repeat in the
// X-Kova-Token header: a page of another site can make the browser send the
// cookie, but cannot read the token. The cookie names the browser, not one
// sign-in: tabs of one browser share it, so each sign-in (each tab keeps its
// own token) is a session of its own under that cookie, and signing in in a
// second tab leaves the first one signed in. Sessions end at logout or after
// an idle time; a browser holds at most kMaxPerBrowser of them.
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
    std::string id;       // this sign-in (tasks started in it are its own)
    std::string cookie;   // the browser it was made in
    std::string token;
    std::string user;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;   // every group of the user, primary first
    bool admin = false;
    time_t lastUsed = 0;
    unsigned long long useOrder = 0;   // which of a browser's sessions was used last
};

class SessionStore {
public:
    using Clock = std::function<time_t()>;
    static constexpr size_t kMaxPerBrowser = 16;
    enum class Found { kNone, kWrongToken, kLive };

    // clock: seconds now (tests pass their own).
    explicit SessionStore(int idleSeconds, Clock clock = [] { return time(nullptr); })
        : idleSeconds_(idleSeconds), clock_(std::move(clock)) {}

    // Fills id, cookie and token and stores the session. cookie: what the
    // browser sent; it is kept when a live session holds it, so the other
    // tabs stay signed in; otherwise the new session's id becomes the
    // cookie (a value the server never gave out is never adopted). The browser's oldest
    // session goes when it would hold more than kMaxPerBrowser. false when
    // the system's random source failed.
    bool Create(Session &session, const std::string &cookie = "");
    // The live session of this browser whose token this is, its idle clock
    // restarted. kWrongToken (out: the browser's latest session, for the
    // log) when the cookie is live but no session of it has this token.
    Found Find(const std::string &cookie, const std::string &token, Session &out);
    // The live session with this id, its idle clock restarted.
    bool Get(const std::string &id, Session &out);
    // Ends one session; true when its browser holds no other, so the
    // cookie can be dropped.
    bool Remove(const std::string &id);
    size_t Count();

private:
    void SweepLocked(time_t now);

    std::mutex mu_;
    std::map<std::string, Session> sessions_;   // by id
    unsigned long long uses_ = 0;
    int idleSeconds_;
    Clock clock_;
};

// Hex text of n random bytes from the kernel; false on failure.
bool RandomHex(size_t n, std::string &out);
// Compares in time independent of where the texts differ.
bool SameSecret(const std::string &a, const std::string &b);

} // namespace webd

#endif
