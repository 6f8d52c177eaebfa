// The stored form of one path's ACL: a versioned, checksummed binary record
// kept in the extended attribute "trusted.kova.acl". All integers are
// little-endian.
//
//   offset  size  field
//   0       4     magic, the bytes 'K' 'A' 'C' 'L'
//   4       2     version, 1
//   6       2     flags: bit 0 inherit-from-parent, bit 1 group owner
//                 present; every other bit must be 0
//   8       4     entry count n
//   12      4     owner gid when flag bit 1 is set (at most 0x7FFFFFFF),
//                 else 0xFFFFFFFF
//   16      16*n  entries, each:
//                   +0  1  ID type (1, 2, 4, 8, 9, 10)
//                   +1  1  access type (0 deny, 1 allow)
//                   +2  2  inherit flags (only bits 0x000F)
//                   +4  4  id (signed; -1 for owner/everyone/authenticated/system)
//                   +8  4  permission mask (only bits 0x1FFF)
//                   +12 4  reserved, 0
//   16+16n  4     CRC-32 (zlib polynomial) of bytes 0 .. 16+16n-1
//
// Record size is 20 + 16n. Stored entries are always level 0: inheritance
// is resolved when reading. The largest record is the largest value ext4
// with 4 KiB blocks keeps for this attribute name: 4096 - 32 (block header)
// - 16 (entry header) - 8 ("kova.acl", the "trusted." prefix is an index)
// - 4 (end marker) = 4036 bytes, so n <= 251.
#ifndef KOVA_ACL_RECORD_H
#define KOVA_ACL_RECORD_H

#include "ace.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kova_acl {

constexpr const char *kAttrName = "trusted.kova.acl";
constexpr size_t kHeaderSize = 16;
constexpr size_t kEntrySize = 16;
constexpr size_t kCrcSize = 4;
constexpr size_t kMaxRecordSize = 4036;
static_assert(kHeaderSize + kEntrySize * kMaxEntries + kCrcSize <= kMaxRecordSize, "max entries must fit");
static_assert(kHeaderSize + kEntrySize * (kMaxEntries + 1) + kCrcSize > kMaxRecordSize, "max entries is the most");

// Encodes a record; false (KOVA_ERR_ACL_NOSPACE) when it has too many
// entries, (KOVA_ERR_BADARG) when an entry is malformed.
bool EncodeRecord(const StoredAcl &acl, std::string &out);

// Decodes a record; false with KOVA_ERR_CORRUPT for anything malformed.
bool DecodeRecord(const void *data, size_t size, StoredAcl &out);

} // namespace kova_acl

#endif
