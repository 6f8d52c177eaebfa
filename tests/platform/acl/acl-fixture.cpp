#include "acl-fixture.h"
#include "share-fixture.h"

#include "kova/acladmin.h"

#include "kova/acl.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/sys-calls.h"

#include "../../../platform/acl/propagation.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kova_acl_test {

using kova_internal::SysCalls;

namespace {

std::atomic<long> gRefused{0};

int Refuse() {
    gRefused.fetch_add(1, std::memory_order_relaxed);
    errno = ENOSYS;
    return -1;
}
ssize_t NoGet(int, const char *, int, const char *, void *, size_t) { return Refuse(); }
int NoSet(int, const char *, int, const char *, const void *, size_t, int) { return Refuse(); }
int NoRemove(int, const char *, int, const char *) { return Refuse(); }

} // namespace

struct WithoutXattrAt::Saved {
    kova_internal::ScopedSysCall<decltype(SysCalls::getxattrat)> get{&SysCalls::getxattrat, NoGet};
    kova_internal::ScopedSysCall<decltype(SysCalls::setxattrat)> set{&SysCalls::setxattrat, NoSet};
    kova_internal::ScopedSysCall<decltype(SysCalls::removexattrat)> remove{&SysCalls::removexattrat, NoRemove};
};

WithoutXattrAt::WithoutXattrAt() : saved_(new Saved) { gRefused = 0; }
WithoutXattrAt::~WithoutXattrAt() = default;
long WithoutXattrAt::Count() { return gRefused.load(); }

void AclFixture::OpenAncestors() {
    for (std::string p = Share(); p.size() > 1; p = p.substr(0, p.rfind('/'))) chmod(p.c_str(), 0755);
    chmod(Share().c_str(), 0777);
}

unsigned KernelBits(const std::string &path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return errno == EACCES ? 0 : 0100;
    unsigned b = 0;
    if (S_ISDIR(st.st_mode)) {
        DIR *d = opendir(path.c_str());
        if (d) closedir(d);
        b |= (d ? kR : 0) | (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 ? kW : 0);
    } else {
        for (int flags : {O_RDONLY, O_WRONLY}) {
            const int fd = open(path.c_str(), flags | O_NOFOLLOW);
            b |= fd < 0 ? 0 : flags == O_RDONLY ? kR : kW;
            if (fd >= 0) close(fd);
        }
    }
    return b | (faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0 ? kX : 0);
}

unsigned KernelBitsAs(const kova_test::Identity &who, const std::string &path) {
    return static_cast<unsigned>(kova_test::RunAs(who, [&] {
        if (setresgid(who.gid, who.gid, who.gid) != 0 || setresuid(who.uid, who.uid, who.uid) != 0) return 0200;
        return static_cast<int>(KernelBits(path));
    }));
}

void AclFixture::SetUp() {
    // Runners go as soon as their jobs are done (WaitForPropagations waits for that).
    setenv("KOVA_PROPAGATION_LINGER_MS", "0", 1);
    const char *without = std::getenv("KOVA_TEST_WITHOUT_XATTRAT");
    if (without && *without && std::strcmp(without, "0") != 0) withoutAt_.reset(new WithoutXattrAt);
    share_ = root_.At("volumes/volume1/data");
    ASSERT_TRUE(kova_test::MakeDirs(share_));
    chmod(share_.c_str(), 0777);
    ASSERT_EQ(kova_share_test::AddAclShare("data", share_, KOVA_SHARE_PRIV_RW), 0);
}

void AclFixture::Dir(const std::string &path) {
    ASSERT_TRUE(kova_test::MakeDirs(path));
    chmod(path.c_str(), 0777);
}

void AclFixture::File(const std::string &path) {
    ASSERT_TRUE(kova_test::WriteFile(path, "x"));
    chmod(path.c_str(), 0666);
}

PKOVA_ACL MakeAcl(const std::vector<std::string> &entries, bool inherits) {
    PKOVA_ACL acl = KOVAACLAlloc(0);
    if (!acl) return nullptr;
    acl->isInherited = inherits ? 1 : 0;
    for (const auto &text : entries) {
        PKOVA_ACL_ENTRY e = KOVAACLAceAlloc();
        if (!e || KOVAACLAceParse(text.c_str(), e) < 0 || KOVAACLAceAppend(acl, e) < 0) {
            ADD_FAILURE() << "bad test entry " << text;
            KOVAACLAceFree(e);
            KOVAACLFree(acl);
            return nullptr;
        }
    }
    return acl;
}

int AclFixture::SetAcl(const std::string &path, const std::vector<std::string> &entries, bool inherits) {
    PKOVA_ACL acl = MakeAcl(entries, inherits);
    if (!acl) return -100;
    int rc = KOVAACLSet(path.c_str(), -1, acl);
    KOVAACLFree(acl);
    return rc;
}

bool AclFixture::GetAcl(const std::string &path, int selector, std::vector<std::string> &out, bool *inherits) {
    out.clear();
    PKOVA_ACL acl = nullptr;
    if (KOVAACLGet(path.c_str(), -1, selector, &acl) < 0) return false;
    out = Texts(acl);
    EXPECT_EQ(static_cast<int>(out.size()), acl->aceCount);
    if (inherits) *inherits = acl->isInherited != 0;
    KOVAACLFree(acl);
    return true;
}

bool WaitForPropagations(int timeoutMs) {
    for (int waited = 0;; waited += 20) {
        KOVA_ACL_PROPAGATION *jobs = nullptr;
        size_t count = 0;
        bool busy = KOVAACLPropagationList(&jobs, &count) < 0;
        for (size_t i = 0; i < count; ++i)
            busy = busy || std::strcmp(jobs[i].szState, "queued") == 0 || std::strcmp(jobs[i].szState, "running") == 0;
        KOVAACLPropagationListFree(jobs, count);
        // A runner waiting for more jobs has the system-call table it was
        // started with, which a test may be about to change.
        if (!busy && KOVAACLPropagationRunnerAlive() == 0) return true;
        if (waited >= timeoutMs) return false;
        usleep(20000);
    }
}

std::vector<std::string> Texts(const KOVA_ACL *acl) {
    std::vector<std::string> out;
    for (PKOVA_ACL_ENTRY e = acl ? acl->pHead : nullptr; e; e = e->pNext) {
        char buf[128];
        EXPECT_GT(KOVAACLAcePrint(e, buf, sizeof buf), 0);
        out.push_back(buf);
    }
    return out;
}

std::string OwnerOf(const std::string &path) {
    KOVA_ACL_ID owner{0, 0};
    if (KOVAACLOwnerIdGet(path.c_str(), &owner) != 0) return "failed";
    return (owner.idType == KOVA_ACL_ID_GROUP ? "group:" : "user:") + std::to_string(owner.id);
}

int Code(int rc) { return rc < 0 ? (KLIBCErrGet() >> 8) : 0; }

int ReadCode(const std::string &path) {
    PKOVA_ACL acl = nullptr;
    const int rc = KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, &acl);
    KOVAACLFree(acl);
    return Code(rc);
}

int SetOneCode(const std::string &path, const std::string &entry, bool inherits) {
    PKOVA_ACL acl = KOVAACLAlloc(0);
    PKOVA_ACL_ENTRY e = KOVAACLAceAlloc();
    KOVAACLAceParse(entry.c_str(), e);
    KOVAACLAceAppend(acl, e);
    acl->isInherited = inherits ? 1 : 0;
    const int rc = KOVAACLSet(path.c_str(), -1, acl);
    KOVAACLFree(acl);
    return Code(rc);
}

std::string RawRecord(const std::string &path) {
    char buf[8192];
    ssize_t n = lgetxattr(path.c_str(), "trusted.kova.acl", buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

bool WriteRawRecord(const std::string &path, const std::string &bytes) {
    return lsetxattr(path.c_str(), "trusted.kova.acl", bytes.data(), bytes.size(), 0) == 0;
}

} // namespace kova_acl_test
