// A platform root with one share ("data") and ACLs read and written in the library's
// text form ("user:1030:allow:r------------:fd--", level optional).
#ifndef KOVA_TEST_ACL_FIXTURE_H
#define KOVA_TEST_ACL_FIXTURE_H

#include "as-identity.h"
#include "temp-root.h"

#include "kova/account.h"
#include "kova/acl.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kova_acl_test {

// While it lives the *xattrat calls answer ENOSYS (a kernel before 6.13); Count() tells
// how many were refused.
class WithoutXattrAt {
public:
    WithoutXattrAt();
    ~WithoutXattrAt();
    WithoutXattrAt(const WithoutXattrAt &) = delete;
    WithoutXattrAt &operator=(const WithoutXattrAt &) = delete;
    static long Count();

private:
    struct Saved;
    std::unique_ptr<Saved> saved_;
};

// Waits until no propagation is queued or running and its runner is gone; false after timeoutMs.
bool WaitForPropagations(int timeoutMs = 30000);

// With KOVA_TEST_WITHOUT_XATTRAT set, every test of the fixture runs without *xattrat.
class AclFixture : public ::testing::Test {
protected:
    void SetUp() override;
    // A propagation still running must not outlive the root it writes in.
    void TearDown() override { WaitForPropagations(); }

    std::string Share() const { return share_; }
    // The kernel judges every folder on a path: the share's folders above open for others.
    void OpenAncestors();
    std::string In(const std::string &rel) const { return share_ + "/" + rel; }

    // Creates a folder or file (mode 0777 / 0666, owned by root).
    void Dir(const std::string &path);
    void File(const std::string &path);

    // Stores an ACL; returns KOVAACLSet's result.
    int SetAcl(const std::string &path, const std::vector<std::string> &entries, bool inherits = true);
    // Entries as "type:id:access:perm:inherit:level"; false when KOVAACLGet fails.
    bool GetAcl(const std::string &path, int selector, std::vector<std::string> &out, bool *inherits = nullptr);

    kova_test::TempRoot root_;
    std::string share_;
    std::unique_ptr<WithoutXattrAt> withoutAt_;
};

// Callers of the ACL tests: two users of group 2000 and an administrator.
const kova_test::Identity kAlice{1030, 1030, {2000}};
const kova_test::Identity kBob{1031, 1031, {2000}};
const kova_test::Identity kAdmin{1040, 1040, {KOVA_ADMIN_GID}};

// For calls in a RunAs child: 0, or the high byte of the last error (0x03 permission,
// 0xD8 ACL write refused, 0x24 owner change, 0x06 no such entry).
int Code(int rc);
// The code of reading a path's whole ACL, and of storing one entry.
int ReadCode(const std::string &path);
int SetOneCode(const std::string &path, const std::string &entry, bool inherits);

// A new ACL (nullptr, with a test failure, when an entry does not parse); caller frees it.
PKOVA_ACL MakeAcl(const std::vector<std::string> &entries, bool inherits);
// An ACL's entries in the text form above.
std::vector<std::string> Texts(const KOVA_ACL *acl);

// The kernel's answers as read, write and execute bits: for the calling process (0 when a
// folder above may not be searched), and for a child with the user's real ids.
constexpr unsigned kR = 4, kW = 2, kX = 1;
unsigned KernelBits(const std::string &path);
unsigned KernelBitsAs(const kova_test::Identity &who, const std::string &path);

// The owner KOVAACLOwnerIdGet reads: "user:ID", "group:ID", or "failed".
std::string OwnerOf(const std::string &path);

// The raw stored record of a path ("" when there is none).
std::string RawRecord(const std::string &path);
bool WriteRawRecord(const std::string &path, const std::string &bytes);

} // namespace kova_acl_test

#endif
