// POSIX ACL codec (format in posix-acl.h).
#include "posix-acl.h"

#include <cstring>

namespace kova_acl {

namespace {
constexpr uint32_t kVersion = 2;

void Put16(std::string &s, uint16_t v) {
    s.push_back(static_cast<char>(v & 0xFF));
    s.push_back(static_cast<char>(v >> 8));
}
void Put32(std::string &s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}
uint32_t Get(const unsigned char *p, int n) {
    uint32_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}
} // namespace

bool PosixAcl::MinimalForm() const {
    for (const PosixEntry &e : entries)
        if (e.tag != kUserObj && e.tag != kGroupObj && e.tag != kOther) return false;
    return true;
}

int PosixAcl::PermOf(uint16_t tag, uint32_t id) const {
    for (const PosixEntry &e : entries)
        if (e.tag == tag && (id == kNoId || e.id == id)) return e.perm;
    return -1;
}

unsigned PosixAcl::ModeBits() const {
    const int mask = PermOf(kMask);
    const int u = PermOf(kUserObj), g = mask >= 0 ? mask : PermOf(kGroupObj), o = PermOf(kOther);
    return static_cast<unsigned>(((u < 0 ? 0 : u) << 6) | ((g < 0 ? 0 : g) << 3) | (o < 0 ? 0 : o));
}

PosixAcl PosixAcl::FromMode(unsigned mode) {
    PosixAcl a;
    a.entries = {{kUserObj, static_cast<uint16_t>((mode >> 6) & 7), kNoId},
                 {kGroupObj, static_cast<uint16_t>((mode >> 3) & 7), kNoId},
                 {kOther, static_cast<uint16_t>(mode & 7), kNoId}};
    return a;
}

std::string EncodePosixAcl(const PosixAcl &acl) {
    std::string s;
    s.reserve(4 + 8 * acl.entries.size());
    Put32(s, kVersion);
    for (const PosixEntry &e : acl.entries) {
        Put16(s, e.tag);
        Put16(s, e.perm);
        Put32(s, e.id);
    }
    return s;
}

bool DecodePosixAcl(const void *data, size_t size, PosixAcl &out) {
    const auto *p = static_cast<const unsigned char *>(data);
    if (size < 4 || (size - 4) % 8 != 0 || Get(p, 4) != kVersion) return false;
    out.entries.clear();
    for (size_t off = 4; off < size; off += 8) {
        PosixEntry e;
        e.tag = static_cast<uint16_t>(Get(p + off, 2));
        e.perm = static_cast<uint16_t>(Get(p + off + 2, 2));
        e.id = Get(p + off + 4, 4);
        if (e.tag != kUser && e.tag != kGroup) e.id = kNoId;
        out.entries.push_back(e);
    }
    return true;
}

} // namespace kova_acl
