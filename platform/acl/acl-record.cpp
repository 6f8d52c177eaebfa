// Encoding and strict decoding of the stored ACL record (layout in
// acl-record.h). The decoder trusts nothing: every length, flag and field is
// checked before an entry is accepted.
#include "acl-record.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <zlib.h>

#include <cstdint>

namespace kova_acl {

namespace {

constexpr uint8_t kMagic[4] = {'K', 'A', 'C', 'L'};
constexpr uint16_t kVersion = 1;
constexpr uint16_t kFlagInherits = 0x1;
constexpr uint16_t kFlagGroupOwner = 0x2;
constexpr uint32_t kNoGid = 0xFFFFFFFFu;

void Put16(std::string &o, uint16_t v) {
    o.push_back(static_cast<char>(v & 0xFF));
    o.push_back(static_cast<char>(v >> 8));
}
void Put32(std::string &o, uint32_t v) {
    for (int i = 0; i < 4; ++i) o.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}
uint16_t Get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t Get32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

uint32_t Crc(const uint8_t *p, size_t n) {
    return static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), p, static_cast<uInt>(n)));
}

} // namespace

bool EncodeRecord(const StoredAcl &acl, std::string &out) {
    if (acl.entries.size() > static_cast<size_t>(kMaxEntries)) {
        KOVA_FAIL(KOVA_ERR_ACL_NOSPACE);
        return false;
    }
    // The decoder takes only gids an owner change can name: refuse the rest
    // here rather than write a record that no longer reads back.
    if (acl.hasGroupOwner && acl.ownerGid > static_cast<uint32_t>(INT32_MAX)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    std::string o;
    o.reserve(kHeaderSize + kEntrySize * acl.entries.size() + kCrcSize);
    o.append(reinterpret_cast<const char *>(kMagic), 4);
    Put16(o, kVersion);
    Put16(o, static_cast<uint16_t>((acl.inherits ? kFlagInherits : 0) | (acl.hasGroupOwner ? kFlagGroupOwner : 0)));
    Put32(o, static_cast<uint32_t>(acl.entries.size()));
    Put32(o, acl.hasGroupOwner ? acl.ownerGid : kNoGid);
    for (const Ace &a : acl.entries) {
        if (!AceFieldsValid(a.idType, a.id, a.permission, a.inherit, a.access)) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return false;
        }
        o.push_back(static_cast<char>(a.idType));
        o.push_back(static_cast<char>(a.access));
        Put16(o, a.inherit);
        Put32(o, static_cast<uint32_t>(a.id));
        Put32(o, a.permission);
        Put32(o, 0);
    }
    Put32(o, Crc(reinterpret_cast<const uint8_t *>(o.data()), o.size()));
    out.swap(o);
    return true;
}

bool DecodeRecord(const void *data, size_t size, StoredAcl &out) {
    const auto *p = static_cast<const uint8_t *>(data);
    auto corrupt = [] {
        KOVA_FAIL(KOVA_ERR_CORRUPT);
        return false;
    };
    if (!p || size < kHeaderSize + kCrcSize || size > kMaxRecordSize) return corrupt();
    if (p[0] != kMagic[0] || p[1] != kMagic[1] || p[2] != kMagic[2] || p[3] != kMagic[3]) return corrupt();
    if (Get16(p + 4) != kVersion) return corrupt();
    uint16_t flags = Get16(p + 6);
    if (flags & ~(kFlagInherits | kFlagGroupOwner)) return corrupt();
    uint32_t count = Get32(p + 8);
    if (count > static_cast<uint32_t>(kMaxEntries) || size != kHeaderSize + kEntrySize * count + kCrcSize)
        return corrupt();
    if (Crc(p, size - kCrcSize) != Get32(p + size - kCrcSize)) return corrupt();
    uint32_t gid = Get32(p + 12);
    bool groupOwner = (flags & kFlagGroupOwner) != 0;
    // A group owner is a gid an owner change can name: a non-negative int.
    if (groupOwner ? gid > static_cast<uint32_t>(INT32_MAX) : gid != kNoGid) return corrupt();

    StoredAcl acl;
    acl.inherits = (flags & kFlagInherits) != 0;
    acl.hasGroupOwner = groupOwner;
    acl.ownerGid = groupOwner ? gid : 0;
    acl.entries.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *e = p + kHeaderSize + kEntrySize * i;
        Ace a;
        a.idType = e[0];
        a.access = e[1];
        a.inherit = Get16(e + 2);
        a.id = static_cast<int32_t>(Get32(e + 4));
        a.permission = Get32(e + 8);
        a.level = 0;
        if (Get32(e + 12) != 0 || !AceFieldsValid(a.idType, a.id, a.permission, a.inherit, a.access)) return corrupt();
        acl.entries.push_back(a);
    }
    out = std::move(acl);
    return true;
}

} // namespace kova_acl
