// Text forms of entry fields. Printers always write every position (13
// permission letters, 4 inherit letters, '-' for a clear bit) so texts line
// up and parse back to the same value.
#include "ace.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Letter {
    char ch;
    unsigned int bit;
};

const Letter kPermLetters[] = {
    {'r', KOVA_ACL_PERM_READ_DATA},  {'w', KOVA_ACL_PERM_WRITE_DATA},   {'x', KOVA_ACL_PERM_EXECUTE},
    {'p', KOVA_ACL_PERM_APPEND_DATA}, {'d', KOVA_ACL_PERM_DELETE},      {'D', KOVA_ACL_PERM_DELETE_CHILD},
    {'a', KOVA_ACL_PERM_READ_ATTR},  {'A', KOVA_ACL_PERM_WRITE_ATTR},   {'R', KOVA_ACL_PERM_READ_XATTR},
    {'W', KOVA_ACL_PERM_WRITE_XATTR}, {'c', KOVA_ACL_PERM_READ_ACL},    {'C', KOVA_ACL_PERM_WRITE_ACL},
    {'o', KOVA_ACL_PERM_TAKE_OWNERSHIP},
};

const Letter kInheritLetters[] = {
    {'f', KOVA_ACL_INHERIT_FILE},
    {'d', KOVA_ACL_INHERIT_DIR},
    {'i', KOVA_ACL_INHERIT_ONLY},
    {'n', KOVA_ACL_INHERIT_NO_PROPAGATE},
};

struct Name {
    const char *text;
    int value;
};

const Name kIdTypes[] = {
    {"user", KOVA_ACL_ID_USER},         {"owner", KOVA_ACL_ID_OWNER},
    {"group", KOVA_ACL_ID_GROUP},       {"everyone", KOVA_ACL_ID_EVERYONE},
    {"authenticated_user", KOVA_ACL_ID_AUTHUSER}, {"system", KOVA_ACL_ID_SYSTEM},
};

const Name kAccessTypes[] = {{"deny", KOVA_ACL_DENY}, {"allow", KOVA_ACL_ALLOW}};

template <size_t N>
bool ParseLetters(const char *sz, const Letter (&table)[N], unsigned int &out) {
    unsigned int mask = 0;
    for (const char *p = sz; *p; ++p) {
        if (*p == '-') continue;
        bool found = false;
        for (const Letter &l : table)
            if (l.ch == *p) {
                mask |= l.bit;
                found = true;
            }
        if (!found) return false;
    }
    out = mask;
    return true;
}

template <size_t N>
int PrintLetters(unsigned int value, const Letter (&table)[N], unsigned int allBits, char *buf, size_t cb) {
    if (!buf || (value & ~allBits)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    if (cb < N + 1) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    for (size_t i = 0; i < N; ++i) buf[i] = (value & table[i].bit) ? table[i].ch : '-';
    buf[N] = '\0';
    return static_cast<int>(N);
}

template <size_t N>
const char *NameOf(int value, const Name (&table)[N]) {
    for (const Name &n : table)
        if (n.value == value) return n.text;
    return nullptr;
}

template <size_t N>
bool ValueOf(const char *text, const Name (&table)[N], int &out) {
    for (const Name &n : table)
        if (std::strcmp(n.text, text) == 0) {
            out = n.value;
            return true;
        }
    return false;
}

int PrintText(const char *text, char *buf, size_t cb) {
    if (!buf || !text) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    size_t n = std::strlen(text);
    if (cb < n + 1) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    std::memcpy(buf, text, n + 1);
    return static_cast<int>(n);
}

bool ParseInt(const std::string &s, long long lo, long long hi, long long &out) {
    if (s.empty()) return false;
    errno = 0;
    char *end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 10);
    if (errno || *end || v < lo || v > hi) return false;
    out = v;
    return true;
}

} // namespace

extern "C" int KOVAACLAceParseIDType(const char *sz, PKOVA_ACL_ENTRY pAce) {
    KOVA_FAULT_POINT("KOVAACLAceParseIDType", int);
    int v;
    if (!sz || !pAce || !ValueOf(sz, kIdTypes, v)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    pAce->idType = v;
    return 0;
}

extern "C" int KOVAACLAceParseAccessType(const char *sz, PKOVA_ACL_ENTRY pAce) {
    KOVA_FAULT_POINT("KOVAACLAceParseAccessType", int);
    int v;
    if (!sz || !pAce || !ValueOf(sz, kAccessTypes, v)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    pAce->accessType = static_cast<unsigned short>(v);
    return 0;
}

extern "C" int KOVAACLAceParsePermission(const char *sz, PKOVA_ACL_ENTRY pAce) {
    KOVA_FAULT_POINT("KOVAACLAceParsePermission", int);
    unsigned int v;
    if (!sz || !pAce || !ParseLetters(sz, kPermLetters, v)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    pAce->permission = v;
    return 0;
}

extern "C" int KOVAACLAceParseInherit(const char *sz, PKOVA_ACL_ENTRY pAce) {
    KOVA_FAULT_POINT("KOVAACLAceParseInherit", int);
    unsigned int v;
    if (!sz || !pAce || !ParseLetters(sz, kInheritLetters, v)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    pAce->inherit = static_cast<unsigned short>(v);
    return 0;
}

extern "C" int KOVAACLAcePrintIDType(int idType, char *szBuf, size_t cbBuf) {
    KOVA_FAULT_POINT("KOVAACLAcePrintIDType", int);
    const char *name = NameOf(idType, kIdTypes);
    if (!name) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    return PrintText(name, szBuf, cbBuf);
}

extern "C" int KOVAACLAcePrintAccessType(int accessType, char *szBuf, size_t cbBuf) {
    KOVA_FAULT_POINT("KOVAACLAcePrintAccessType", int);
    const char *name = NameOf(accessType, kAccessTypes);
    if (!name) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    return PrintText(name, szBuf, cbBuf);
}

extern "C" int KOVAACLAcePrintPermission(unsigned int permission, char *szBuf, size_t cbBuf) {
    KOVA_FAULT_POINT("KOVAACLAcePrintPermission", int);
    return PrintLetters(permission, kPermLetters, KOVA_ACL_PERM_ALL, szBuf, cbBuf);
}

extern "C" int KOVAACLAcePrintInherit(unsigned int inherit, char *szBuf, size_t cbBuf) {
    KOVA_FAULT_POINT("KOVAACLAcePrintInherit", int);
    return PrintLetters(inherit, kInheritLetters, 0xFu, szBuf, cbBuf);
}

extern "C" int KOVAACLAcePrint(const KOVA_ACL_ENTRY *pAce, char *szBuf, size_t cbBuf) {
    KOVA_FAULT_POINT("KOVAACLAcePrint", int);
    if (!pAce || !szBuf) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    const char *idType = NameOf(pAce->idType, kIdTypes);
    const char *access = NameOf(pAce->accessType, kAccessTypes);
    char perm[16], inh[8];
    if (!idType || !access || PrintLetters(pAce->permission, kPermLetters, KOVA_ACL_PERM_ALL, perm, sizeof(perm)) < 0 ||
        PrintLetters(pAce->inherit, kInheritLetters, 0xFu, inh, sizeof(inh)) < 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    char text[160];
    int n = std::snprintf(text, sizeof(text), "%s:%d:%s:%s:%s:%u", idType, pAce->id, access, perm, inh, pAce->level);
    return PrintText(n > 0 ? text : "", szBuf, cbBuf);
}

// "idtype:id:access:perm:inherit[:level]"; the level defaults to 0. The
// entry is written only when every field parses.
extern "C" int KOVAACLAceParse(const char *sz, PKOVA_ACL_ENTRY pAce) {
    KOVA_FAULT_POINT("KOVAACLAceParse", int);
    if (!sz || !pAce) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    std::vector<std::string> f;
    std::string s = sz;
    size_t pos = 0;
    while (true) {
        size_t c = s.find(':', pos);
        f.push_back(s.substr(pos, c == std::string::npos ? std::string::npos : c - pos));
        if (c == std::string::npos) break;
        pos = c + 1;
    }
    int idType, access;
    unsigned int perm, inh;
    long long id, level = 0;
    if ((f.size() != 5 && f.size() != 6) || !ValueOf(f[0].c_str(), kIdTypes, idType) ||
        !ParseInt(f[1], -1, 0x7FFFFFFFLL, id) || !ValueOf(f[2].c_str(), kAccessTypes, access) ||
        !ParseLetters(f[3].c_str(), kPermLetters, perm) || !ParseLetters(f[4].c_str(), kInheritLetters, inh) ||
        (f.size() == 6 && !ParseInt(f[5], 0, 0xFFFFFFFFLL, level))) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    pAce->idType = idType;
    pAce->id = static_cast<int>(id);
    pAce->accessType = static_cast<unsigned short>(access);
    pAce->permission = perm;
    pAce->inherit = static_cast<unsigned short>(inh);
    pAce->level = static_cast<unsigned int>(level);
    return 0;
}
