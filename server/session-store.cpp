#include "session-store.h"

#include <errno.h>
#include <sys/random.h>

#include <algorithm>

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

void SessionStore::SweepLocked(time_t now) {
    for (auto it = sessions_.begin(); it != sessions_.end();) {
        if (now - it->second.lastUsed > idleSeconds_) it = sessions_.erase(it);
        else ++it;
    }
}

bool SessionStore::Create(Session &session, const std::string &cookie) {
    if (!RandomHex(32, session.id) || !RandomHex(32, session.token)) return false;
    session.lastUsed = clock_();
    std::lock_guard<std::mutex> lock(mu_);
    // Dropping expired sessions here keeps the table from growing without bound.
    SweepLocked(session.lastUsed);
    // A browser's first session names it with its own id, as before tabs
    // could share the cookie.
    session.cookie = session.id;
    std::vector<std::map<std::string, Session>::iterator> same;
    for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
        if (!cookie.empty() && SameSecret(it->second.cookie, cookie)) same.push_back(it);
    }
    if (!same.empty()) {
        session.cookie = cookie;
        std::sort(same.begin(), same.end(), [](const auto &a, const auto &b) { return a->second.useOrder < b->second.useOrder; });
        for (size_t i = 0; i + kMaxPerBrowser <= same.size(); ++i) sessions_.erase(same[i]);
    }
    session.useOrder = ++uses_;
    sessions_[session.id] = session;
    return true;
}

SessionStore::Found SessionStore::Find(const std::string &cookie, const std::string &token, Session &out) {
    if (cookie.empty()) return Found::kNone;
    std::lock_guard<std::mutex> lock(mu_);
    const time_t now = clock_();
    SweepLocked(now);
    Session *latest = nullptr;
    for (auto &kv : sessions_) {
        Session &s = kv.second;
        if (!SameSecret(s.cookie, cookie)) continue;
        if (SameSecret(s.token, token)) {
            s.lastUsed = now;
            s.useOrder = ++uses_;
            out = s;
            return Found::kLive;
        }
        if (!latest || s.useOrder > latest->useOrder) latest = &s;
    }
    if (!latest) return Found::kNone;
    out = *latest;
    return Found::kWrongToken;
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
    it->second.useOrder = ++uses_;
    out = it->second;
    return true;
}

bool SessionStore::Remove(const std::string &id) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = sessions_.find(id);
    if (it == sessions_.end()) return true;
    const std::string cookie = it->second.cookie;
    sessions_.erase(it);
    for (const auto &kv : sessions_) {
        if (kv.second.cookie == cookie) return false;
    }
    return true;
}

size_t SessionStore::Count() {
    std::lock_guard<std::mutex> lock(mu_);
    return sessions_.size();
}

} // namespace webd
