// The stored ACL record codec (platform/acl/acl-record.h): anyone with raw access to the disk can change the
// extended attribute it reads. The first byte picks a mode for the rest: 0 a record as stored; 1 the same
// with its CRC made right, to reach the fields behind it; 2 a StoredAcl (flags, owner gid, 12 bytes per
// entry) to encode. Checked: a record that decodes encodes back to the same bytes, a refused one sets
// KOVA_ERR_CORRUPT, and an ACL that encodes decodes back equal.
#include "acl-record.h"
#include "fuzz-check.h"

#include "kova/errcode.h"
#include "kova/klibc.h"

#include <zlib.h>

#include <cstring>

namespace {

using kova_fuzz::Check;

bool Same(const kova_acl::StoredAcl &a, const kova_acl::StoredAcl &b) {
    if (a.inherits != b.inherits || a.hasGroupOwner != b.hasGroupOwner || a.entries.size() != b.entries.size())
        return false;
    if (a.hasGroupOwner && a.ownerGid != b.ownerGid) return false;
    for (size_t i = 0; i < a.entries.size(); ++i) {
        const kova_acl::Ace &x = a.entries[i], &y = b.entries[i];
        if (x.idType != y.idType || x.id != y.id || x.permission != y.permission || x.inherit != y.inherit ||
            x.access != y.access || x.level != y.level)
            return false;
    }
    return true;
}

void CheckRecord(const uint8_t *data, size_t size) {
    kova_acl::StoredAcl acl;
    KLIBCErrSet(KOVA_ERR_NONE);
    if (!kova_acl::DecodeRecord(data, size, acl)) {
        Check(KLIBCErrGet() == KOVA_ERR_CORRUPT, "a refused record did not report KOVA_ERR_CORRUPT");
        return;
    }
    Check(acl.entries.size() <= static_cast<size_t>(kova_acl::kMaxEntries), "decoded more entries than fit");
    std::string again;
    Check(kova_acl::EncodeRecord(acl, again), "a decoded record does not encode");
    Check(again.size() == size && std::memcmp(again.data(), data, size) == 0, "decode/encode changed the record");
}

uint32_t Le32(const uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

void CheckAcl(const uint8_t *data, size_t size) {
    if (size < 5) return;
    kova_acl::StoredAcl acl;
    acl.inherits = data[0] & 1;
    acl.hasGroupOwner = data[0] & 2;
    acl.ownerGid = Le32(data + 1);
    for (size_t off = 5; off + 12 <= size; off += 12) {
        kova_acl::Ace ace;
        ace.idType = data[off];
        ace.access = data[off + 1];
        ace.inherit = static_cast<uint16_t>(data[off + 2] | data[off + 3] << 8);
        ace.id = static_cast<int>(Le32(data + off + 4));
        ace.permission = Le32(data + off + 8);
        acl.entries.push_back(ace);
    }
    std::string record;
    KLIBCErrSet(KOVA_ERR_NONE);
    if (!kova_acl::EncodeRecord(acl, record)) {
        int err = KLIBCErrGet();
        Check(err == KOVA_ERR_ACL_NOSPACE || err == KOVA_ERR_BADARG, "a refused ACL set no fitting error");
        return;
    }
    kova_acl::StoredAcl back;
    Check(kova_acl::DecodeRecord(record.data(), record.size(), back), "an encoded ACL does not decode");
    Check(Same(acl, back), "encode/decode changed the ACL");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0] % 3;
    ++data;
    --size;
    if (mode == 0) {
        CheckRecord(data, size);
    } else if (mode == 1) {
        if (size < 4) return 0;
        std::string fixed = kova_fuzz::Text(data, size);
        uLong crc = crc32(0L, reinterpret_cast<const Bytef *>(fixed.data()), static_cast<uInt>(size - 4));
        for (int i = 0; i < 4; ++i) fixed[size - 4 + i] = static_cast<char>((crc >> (8 * i)) & 0xFF);
        CheckRecord(reinterpret_cast<const uint8_t *>(fixed.data()), size);
    } else {
        CheckAcl(data, size);
    }
    return 0;
}
