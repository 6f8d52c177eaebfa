// The stored record: any damage is an error, never a partial ACL; the entry limit fits ext4.
#include "acl-fixture.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using kova_acl_test::AclFixture;
using kova_acl_test::RawRecord;
using kova_acl_test::WriteRawRecord;

class AclRecord : public AclFixture {
protected:
    void TearDown() override { KOVAACLFree(acl_); }
    PKOVA_ACL acl_ = nullptr;  // set only when a read that must fail succeeds
};

// Every call that trusts the record must fail with KOVA_ERR_CORRUPT.
void ExpectCorrupt(const std::string &path, const std::string &what) {
    PKOVA_ACL acl = nullptr;
    EXPECT_LT(KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, &acl), 0) << what;
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << what;
    EXPECT_EQ(acl, nullptr) << what;
    unsigned int perm = 0;
    EXPECT_LT(KOVAACLPermGet(path.c_str(), &perm), 0) << what;
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << what;
    KOVA_ACL_ID owner;
    EXPECT_LT(KOVAACLOwnerIdGet(path.c_str(), &owner), 0) << what;
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << what;
    EXPECT_LT(KOVAACLPermCheck(path.c_str(), KOVA_ACL_PERM_READ_DATA), 0) << what;
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << what;
}

// Record fields, and the CRC made right again so only the field checks stand in the way.
void Put16(std::string &r, size_t at, uint16_t v) {
    r[at] = static_cast<char>(v & 0xFF);
    r[at + 1] = static_cast<char>(v >> 8);
}
void Put32(std::string &r, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) r[at + static_cast<size_t>(i)] = static_cast<char>((v >> (8 * i)) & 0xFF);
}
std::string WithCrc(std::string r) {
    const size_t body = r.size() - 4;
    Put32(r, body, static_cast<uint32_t>(crc32(0L, reinterpret_cast<const Bytef *>(r.data()), static_cast<uInt>(body))));
    return r;
}

TEST_F(AclRecord, GarbageIsCorruptButStillAclModeAndFailsAnInheritingChild) {
    Dir(In("d"));
    File(In("f"));
    File(In("d/f"));
    ASSERT_EQ(SetAcl(In("d/f"), {}, true), 0);
    ASSERT_TRUE(WriteRawRecord(In("d"), std::string(40, 'x')));
    EXPECT_EQ(kova_acl_test::ReadCode(In("d/f")), KOVA_ERR_CORRUPT >> 8);
    // A child that does not inherit never reads the ancestor.
    ASSERT_EQ(SetAcl(In("d/f"), {}, false), 0);
    EXPECT_EQ(kova_acl_test::ReadCode(In("d/f")), 0);

    ASSERT_TRUE(WriteRawRecord(In("f"), "hello, not a record"));
    ExpectCorrupt(In("f"), "garbage");
    // A damaged path stays in ACL mode: callers must not fall back to mode bits.
    EXPECT_EQ(KOVAACLIsSupport(In("f").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 1);
    // Root may replace it; the new record reads back whole.
    ASSERT_EQ(SetAcl(In("f"), {"everyone:-1:allow:r------------:----"}), 0);
    std::vector<std::string> got;
    ASSERT_TRUE(GetAcl(In("f"), KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got, std::vector<std::string>({"everyone:-1:allow:r------------:----:0"}));
}

TEST_F(AclRecord, EveryTruncationAndEveryFlippedByteIsDetected) {
    File(In("f"));
    ASSERT_EQ(SetAcl(In("f"), {"user:1030:allow:rwxpdDaARWcCo:fd--", "group:2000:deny:-w-----------:----",
                               "everyone:-1:allow:r------------:---n"}),
              0);
    const std::string good = RawRecord(In("f"));
    ASSERT_EQ(good.size(), 20u + 16u * 3u);
    for (size_t len = 0; len < good.size(); ++len) {
        ASSERT_TRUE(WriteRawRecord(In("f"), good.substr(0, len)));
        ExpectCorrupt(In("f"), "truncated to " + std::to_string(len));
    }
    ASSERT_TRUE(WriteRawRecord(In("f"), good + std::string(1, '\0')));
    ExpectCorrupt(In("f"), "one byte too long");
    for (size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ 0x10);
        ASSERT_TRUE(WriteRawRecord(In("f"), bad));
        ExpectCorrupt(In("f"), "byte " + std::to_string(i) + " flipped");
    }
    ASSERT_TRUE(WriteRawRecord(In("f"), good));
    std::vector<std::string> got;
    ASSERT_TRUE(GetAcl(In("f"), KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got.size(), 3u);
}

// A field no write can produce, under a valid checksum, is as corrupt as damage.
TEST_F(AclRecord, ImpossibleFieldsUnderAValidChecksumAreCorrupt) {
    Dir(In("d"));
    File(In("d/f"));
    ASSERT_EQ(SetAcl(In("d"), {"user:1030:allow:r------------:fd--", "everyone:-1:allow:r------------:----"}, false),
              0);
    ASSERT_EQ(SetAcl(In("d/f"), {}, true), 0);
    const std::string good = RawRecord(In("d"));
    ASSERT_EQ(good.size(), 20u + 16u * 2u);
    // The CRC as the library computes it: the record and a proper group owner read back.
    ASSERT_TRUE(WriteRawRecord(In("d"), WithCrc(good)));
    std::vector<std::string> got;
    ASSERT_TRUE(GetAcl(In("d"), KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got.size(), 2u);
    std::string grouped = good;
    Put16(grouped, 6, 0x2);
    Put32(grouped, 12, 2000);
    ASSERT_TRUE(WriteRawRecord(In("d"), WithCrc(grouped)));
    EXPECT_EQ(kova_acl_test::OwnerOf(In("d")), "group:2000");

    const size_t e0 = 16, e1 = 32;  // user entry, everyone entry
    const struct {
        const char *what;
        size_t at;
        int width;
        uint32_t value;
    } cases[] = {
        {"version 2", 4, 2, 2},
        {"reserved flag bit", 6, 2, 0x4},
        {"group-owner flag without a gid", 6, 2, 0x2},
        {"gid without the group-owner flag", 12, 4, 2000},
        {"entry count beyond the entries", 8, 4, 3},
        {"unknown id type 0", e0, 1, 0},
        {"unknown id type 3", e0, 1, 3},
        {"unknown id type 11", e1, 1, 11},
        {"access type 2", e0 + 1, 1, 2},
        {"inherit bit 0x10", e0 + 2, 2, 0x16},
        {"permission bit 0x2000", e0 + 8, 4, 0x2001},
        {"user id -1", e0 + 4, 4, 0xFFFFFFFFu},
        {"user id below -1", e0 + 4, 4, 0x80000000u},
        {"everyone with an id", e1 + 4, 4, 1030},
        {"reserved entry field", e1 + 12, 4, 1},
    };
    for (const auto &c : cases) {
        std::string bad = good;
        if (c.width == 1) bad[c.at] = static_cast<char>(c.value);
        if (c.width == 2) Put16(bad, c.at, static_cast<uint16_t>(c.value));
        if (c.width == 4) Put32(bad, c.at, c.value);
        ASSERT_TRUE(WriteRawRecord(In("d"), WithCrc(bad))) << c.what;
        ExpectCorrupt(In("d"), c.what);
        // Still in ACL mode, and the child inheriting from it cannot be read either.
        EXPECT_EQ(KOVAACLIsSupport(In("d").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 1) << c.what;
        EXPECT_LT(KOVAACLGet(In("d/f").c_str(), -1, KOVA_ACL_GET_ALL, &acl_), 0) << c.what;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << c.what;
    }
    // A group owner no owner change can name (ids are non-negative ints).
    Put32(grouped, 12, 0x80000000u);
    ASSERT_TRUE(WriteRawRecord(In("d"), WithCrc(grouped)));
    ExpectCorrupt(In("d"), "group owner beyond the id range");
}

TEST_F(AclRecord, MaximumEntriesFitAndOneMoreIsRefused) {
    File(In("f"));
    const int max = KOVAACLGetMaxACECount();
    std::vector<std::string> entries;
    for (int i = 0; i < max; ++i) entries.push_back("user:" + std::to_string(2000 + i) + ":allow:r------------:----");
    ASSERT_EQ(SetAcl(In("f"), entries), 0) << std::hex << KLIBCErrGet();
    EXPECT_EQ(RawRecord(In("f")).size(), 4036u);  // the whole ext4 value budget
    std::vector<std::string> got;
    ASSERT_TRUE(GetAcl(In("f"), KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got.size(), static_cast<size_t>(max));

    entries.push_back("user:9999:deny:rwxpdDaARWcCo:----");
    EXPECT_LT(SetAcl(In("f"), entries), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_ACL_NOSPACE);
    // The bound is the list's own: checked before the caller's rights are.
    const auto setAsAlice = [&] { return kova_acl_test::Code(SetAcl(In("f"), entries)); };
    EXPECT_EQ(kova_test::RunAs(kova_acl_test::kAlice, setAsAlice), KOVA_ERR_ACL_NOSPACE >> 8);
    ASSERT_TRUE(GetAcl(In("f"), KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got.size(), static_cast<size_t>(max));
    EXPECT_EQ(got.back(), "user:" + std::to_string(2000 + max - 1) + ":allow:r------------:----:0");
}

TEST_F(AclRecord, SetStoresOwnEntriesAtLevelZeroRemoveReturnsToModeBitsAndALinkIsItsOwnSubject) {
    File(In("f"));
    ASSERT_EQ(SetAcl(In("f"), {"user:1030:allow:r------------:----:4"}, false), 0);
    std::vector<std::string> got;
    bool inherits = true;
    ASSERT_TRUE(GetAcl(In("f"), KOVA_ACL_GET_ALL, got, &inherits));
    EXPECT_EQ(got, std::vector<std::string>({"user:1030:allow:r------------:----:0"}));
    EXPECT_FALSE(inherits);
    EXPECT_EQ(KOVAACLIsSupport(In("f").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 1);

    ASSERT_EQ(KOVAACLRemove(In("f").c_str(), -1), 0);
    EXPECT_EQ(KOVAACLIsSupport(In("f").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 0);
    ASSERT_TRUE(GetAcl(In("f"), KOVA_ACL_GET_ALL, got, &inherits));
    EXPECT_TRUE(got.empty());
    EXPECT_FALSE(inherits);
    // Removing twice is not an error: there is nothing left to remove.
    EXPECT_EQ(KOVAACLRemove(In("f").c_str(), -1), 0);

    // A symbolic link is its own subject: its record is not its target's.
    ASSERT_EQ(symlink(In("f").c_str(), In("link").c_str()), 0);
    ASSERT_EQ(SetAcl(In("link"), {"user:1030:allow:r------------:----"}, false), 0);
    EXPECT_EQ(KOVAACLIsSupport(In("f").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 0);
    EXPECT_EQ(KOVAACLIsSupport(In("link").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 1);
    EXPECT_FALSE(RawRecord(In("link")).empty());
}

TEST_F(AclRecord, ModeBitsAsEntries) {
    File(In("f"));
    chmod(In("f").c_str(), 0754);
    chown(In("f").c_str(), 1030, 2000);
    ASSERT_EQ(KOVAACLDumpFromMode(In("f").c_str(), -1, &acl_), 0);
    EXPECT_EQ(acl_->isInherited, 0);
    EXPECT_EQ(kova_acl_test::Texts(acl_), std::vector<std::string>({"owner:-1:allow:rwxpdDaARWc--:----:0",
                                             "group:2000:allow:r-x---a-R-c--:----:0",
                                             "everyone:-1:allow:r-----a-R-c--:----:0"}));
}

TEST_F(AclRecord, FileSystemSupport) {
    EXPECT_EQ(KOVAACLIsSupport(Share().c_str(), -1, KOVA_ACL_SUPPORT_FS), 1);  // the test tree is on a disk fs
    EXPECT_EQ(KOVAACLIsSupport("/proc/self", -1, KOVA_ACL_SUPPORT_FS), 0);
    EXPECT_LT(KOVAACLIsSupport(In("missing").c_str(), -1, KOVA_ACL_SUPPORT_FS), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOENT);
    EXPECT_LT(KOVAACLIsSupport(Share().c_str(), -1, 3), 0);
}

// A tmpfs mounted inside the share for one test, unmounted afterwards.
class AclReadOnlyFs : public kova_acl_test::AclFixture {
protected:
    void SetUp() override {
        AclFixture::SetUp();
        mnt_ = In("mnt");
        Dir(mnt_);
        if (mount("tmpfs", mnt_.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "cannot mount tmpfs here";
        mounted_ = true;
    }
    void TearDown() override {
        if (mounted_) umount2(mnt_.c_str(), MNT_DETACH);
    }
    std::string mnt_;
    bool mounted_ = false;
};

TEST_F(AclReadOnlyFs, ReadOnlyFileSystemRefusesTheWriteAndKeepsTheOldAcl) {
    File(mnt_ + "/f");
    EXPECT_EQ(KOVAGetFSType((mnt_ + "/f").c_str(), 0), FSTYPE_TMPFS);
    EXPECT_EQ(KOVAACLIsSupport((mnt_ + "/f").c_str(), -1, KOVA_ACL_SUPPORT_FS), 1);
    ASSERT_EQ(SetAcl(mnt_ + "/f", {"user:1030:allow:r------------:----"}), 0);
    ASSERT_EQ(mount(nullptr, mnt_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_LT(SetAcl(mnt_ + "/f", {"user:1031:allow:r------------:----"}), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_ACL_NOSPACE);
    EXPECT_LT(KOVAACLRemove((mnt_ + "/f").c_str(), -1), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_ACL_NOSPACE);
    std::vector<std::string> got;
    ASSERT_TRUE(GetAcl(mnt_ + "/f", KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got, std::vector<std::string>({"user:1030:allow:r------------:----:0"}));
}

} // namespace
