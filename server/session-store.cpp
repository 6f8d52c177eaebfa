#include "session-store.h"

#include <errno.h>
#include <sys/random.h>

namespace webd {

bool RandomHex(size_t n, std::string &out) {
    std::string raw(n, '\0');
    size_t got = 0;
    while (got < n) {
        ssize_t r = getrandom(&raw[got], n - got, 0);
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        got += static_cast<size_t>(r);
    }
    static const char kHex[] = "0123456789abcdef";
    out.clear();
    for (unsigned char c : raw) {
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    return true;
}

bool SameSecret(const std::string &a, const std::string &b) {
    if (a.size() != b.size()) return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

bool SessionStore::Create(Session &session) {
    if (!RandomHex(32, session.id) || !RandomHex(32, session.token)) return false;
    session.lastUsed = clock_();
    std::lock_guard<std::mutex> lock(mu_);
    // Drop expired sessions here so the table cannot grow without bound.
    for (auto it = sessions_.begin(); it != sessions_.end();) {
        if (session.lastUsed - it->second.lastUsed > idleSeconds_) it = sessions_.erase(it);
        else ++it;
    }
    sessions_[session.id] = session;
    return true;
}

bool SessionStore::Get(const std::string &id, Session &out) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = sessions_.find(id);
    if (it == sessions_.end()) return false;
    time_t now = clock_();
    if (now - it->second.lastUsed > idleSeconds_) {
        sessions_.erase(it);
        return false;
    }
    it->second.lastUsed = now;
    out = it->second;
    return true;
}

void SessionStore::Remove(const std::string &id) {
    std::lock_guard<std::mutex> lock(mu_);
    sessions_.erase(id);
}

size_t SessionStore::Count() {
    std::lock_guard<std::mutex> lock(mu_);
    return sessions_.size();
}

} // namespace webd
