// Sign-in: every refusal costs one Argon2 run, rows the platform did not write are
// refused and logged, and only ordinary users sign in.
#include "../accountdb/accountdb-fixture.h"
#include "module-host.h"
#include "temp-root.h"

#include "argon2-run.h"
#include "password.h"
#include "sign-in.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <syslog.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using kova_accountdb_test::Uid;
using kova_test::TempRoot;

namespace {

// Argon2 runs made while fn ran.
template <typename Fn>
unsigned long long RunsOf(Fn fn) {
    unsigned long long before = kova_accounts::Argon2Runs();
    fn();
    return kova_accounts::Argon2Runs() - before;
}

void Disable(const char *name) {
    PKOVA_USER u = nullptr;
    ASSERT_EQ(KOVAUserGet(name, &u), 0);
    u->isDisabled = 1;
    ASSERT_EQ(KOVAUserSet(u), 0);
    KOVAUserFree(u);
}

// Runs SQL on the root's account database behind the platform's back.
void Tamper(const TempRoot &root, const std::string &sql) {
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(root.At("etc/accounts.db").c_str(), &db), SQLITE_OK);
    char *err = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err), SQLITE_OK) << (err ? err : "") << " in " << sql;
    sqlite3_free(err);
    sqlite3_close(db);
}

// A users row holding the password hash of "model" (password "right-pw").
std::string UserRow(const std::string &uid, const std::string &name, const std::string &gid,
                     const std::string &internal = "0", const std::string &disabled = "0") {
    return "INSERT INTO users(uid, name, gid, internal, password, disabled) SELECT " + uid + ", " + name + ", " + gid +
           ", " + internal + ", password, " + disabled + " FROM users WHERE name = 'model';";
}

// Error-level system-log lines about an invalid accounts.db row.
int InvalidRowLogs(const std::vector<kova_host::LogLine> &lines) {
    int n = 0;
    for (const auto &l : lines)
        if ((l.priority & LOG_PRIMASK) == LOG_ERR && l.text.find("accounts.db:") != std::string::npos &&
            l.text.find("invalid") != std::string::npos)
            ++n;
    return n;
}

// A "Vm...:" figure of /proc/self/status, in KiB.
long StatusKiB(const std::string &field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, field.size(), field) == 0) return std::stol(line.substr(field.size()));
    return -1;
}

} // namespace

TEST(SignIn, EveryOutcomeCostsOneHash) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("ann", -1, "right-pw", nullptr, nullptr, 0), 0);
    ASSERT_EQ(KOVAUserAdd("off", -1, "right-pw", nullptr, nullptr, 0), 0);
    Disable("off");
    ASSERT_EQ(KOVAUserAdd("nopw", -1, nullptr, nullptr, nullptr, 0), 0);
    using std::string;
    struct Case {
        const char *what;
        string name, password;
        bool signsIn;
    } cases[] = {
        {"right password", "ann", "right-pw", true},
        {"wrong password", "ann", "wrong-pw", false},
        {"unknown account", "nobody", "right-pw", false},
        {"disabled account", "off", "right-pw", false},
        {"account without password", "nopw", "", false},
        // Read as C strings both would be "ann" / "right-pw".
        {"name with NUL", string("ann\0x", 5), "right-pw", false},
        {"password with NUL", "ann", string("right-pw\0x", 10), false},
    };
    for (const Case &c : cases) {
        int rc = 1;
        EXPECT_EQ(RunsOf([&] { rc = kova_accounts::CheckSignIn(c.name, c.password); }), 1u) << c.what;
        EXPECT_EQ(rc, c.signsIn ? 0 : -1) << c.what;
        if (!c.signsIn) {
            EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM) << c.what;
        }
        // The exported call does the same for what C strings can carry.
        if (c.name.find('\0') == string::npos && c.password.find('\0') == string::npos) {
            EXPECT_EQ(RunsOf([&] { rc = KOVAUserPasswordCheck(c.name.c_str(), c.password.c_str()); }), 1u) << c.what;
            EXPECT_EQ(rc, c.signsIn ? 0 : -1) << c.what << " (exported)";
        }
    }
}

TEST(SignIn, InvalidRowsAreRefusedLoggedAndNeverReadAsAnotherAccount) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("model", -1, "right-pw", nullptr, nullptr, 0), 0);
    struct Bad {
        const char *name;
        std::string row;
    } bad[] = {
        {"huge-uid", UserRow("1099511627776", "'huge-uid'", "100")},  // 2^40: 0 when cut to 32 bits
        {"negative-uid", UserRow("-5", "'negative-uid'", "100")},
        {"huge-gid", UserRow("3000", "'huge-gid'", "4294967296")},
        {"text-gid", UserRow("3001", "'text-gid'", "'abc'")},
        {"disabled-yes", UserRow("3002", "'disabled-yes'", "100", "0", "'yes'")},
        {"internal-two", UserRow("3003", "'internal-two'", "100", "2")},
        {"tab\tname", UserRow("3004", "'tab' || char(9) || 'name'", "100")},
        {"huge-member", UserRow("3005", "'huge-member'", "100") +
                            "INSERT INTO members(gid, uid) VALUES (1099511627776, 3005);"},
    };
    std::string sql;
    for (const Bad &b : bad) sql += b.row;
    Tamper(root, sql);
    for (const Bad &b : bad) {
        kova_host::StartLogCapture();
        int rc = 0;
        EXPECT_EQ(RunsOf([&] { rc = KOVAUserPasswordCheck(b.name, "right-pw"); }), 1u) << b.name;
        EXPECT_LT(rc, 0) << b.name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM) << b.name;
        EXPECT_EQ(InvalidRowLogs(kova_host::StopLogCapture()), 1) << b.name;
        // Lookups answer "invalid", not another user and not "no such user".
        EXPECT_EQ(kova_accountdb_test::GroupsOf(b.name), std::vector<std::string>{"failed"}) << b.name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << b.name;
        if (std::string(b.name) == "huge-member") continue;  // the row itself is fine
        EXPECT_EQ(Uid(b.name), -1) << b.name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT) << b.name;
    }
    // The uid cut to 32 bits must not find the 2^40 row, nor any other id.
    PKOVA_USER u = nullptr;
    EXPECT_LT(KOVAUserGetByUID(0, &u), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);
    // Group rows and enumerations read through the same checks.
    Tamper(root, "INSERT INTO groups(gid, name) VALUES (1099511627776, 'huge-group');");
    PKOVA_GROUP g = nullptr;
    EXPECT_LT(KOVAGroupGet("huge-group", &g), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT);
    EXPECT_LT(KLIBGroupInfoEnumByPrefix(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, "huge", 0, nullptr, nullptr), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT);
    EXPECT_LT(KLIBUserInfoEnumBySubstr(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, "huge-uid", 0, nullptr, nullptr), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_CORRUPT);
    // An administrator removes such a row by name; the others stay usable.
    EXPECT_EQ(KOVAUserDelete("huge-uid"), 0);
    EXPECT_EQ(KOVAUserPasswordCheck("model", "right-pw"), 0);
}

TEST(SignIn, OnlyOrdinaryUsersSignIn) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("model", -1, "right-pw", nullptr, nullptr, 0), 0);
    Tamper(root, UserRow("0", "'root-like'", "100") + UserRow("3000", "'root-group'", "0") +
                     UserRow("300", "'system'", "100") + UserRow("1023", "'last-system'", "100") +
                     UserRow("3001", "'flagged'", "100", "1") +
                     UserRow("3002", "'wheel-member'", "100") +
                     "INSERT INTO groups(gid, name) VALUES (0, 'wheel');"
                     "INSERT INTO members(gid, uid) VALUES (0, 3002);");
    for (const char *name : {"root-like", "root-group", "system", "last-system", "flagged", "wheel-member"}) {
        int rc = 0;
        EXPECT_EQ(RunsOf([&] { rc = KOVAUserPasswordCheck(name, "right-pw"); }), 1u) << name;
        EXPECT_LT(rc, 0) << name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM) << name;
    }
    // These rows are valid: lookups tell them as they are.
    EXPECT_EQ(Uid("root-like"), 0);
    int gid = -1;
    ASSERT_EQ(KOVAUserGetUGID("root-group", nullptr, &gid), 0);
    EXPECT_EQ(gid, 0);
    EXPECT_EQ(KOVAUserPasswordCheck("model", "right-pw"), 0);
}

TEST(SignIn, HashesAgreeWithLibargon2AndStoredCostsAreBounded) {
    // Hashes of libargon2 itself check here, and ours check with libargon2.
    std::vector<char> lib(argon2_encodedlen(2, 19 * 1024, 1, 16, 32, Argon2_id));
    const char salt[] = "0123456789abcdef";
    ASSERT_EQ(argon2id_hash_encoded(2, 19 * 1024, 1, "pw", 2, salt, 16, 32, lib.data(), lib.size()), ARGON2_OK);
    EXPECT_TRUE(kova_accounts::VerifyPassword(lib.data(), "pw"));
    EXPECT_FALSE(kova_accounts::VerifyPassword(lib.data(), "pW"));
    std::string ours;
    ASSERT_TRUE(kova_accounts::HashPassword("pw", ours));
    EXPECT_EQ(argon2id_verify(ours.c_str(), "pw", 2), ARGON2_OK);
    std::string again;
    ASSERT_TRUE(kova_accounts::HashPassword("pw", again));
    EXPECT_NE(ours, again);  // a fresh salt each time
    // Past the bounds or not in the written form: never a match, and one run as usual.
    std::string tail = std::string(lib.data()).substr(std::string(lib.data()).find("$", 30));
    for (const std::string &bad : {"$argon2id$v=19$m=1048576,t=2,p=1" + tail, "$argon2id$v=19$m=19456,t=99,p=1" + tail,
                                   "$argon2id$v=19$m=19456,t=2,p=64" + tail, "$argon2id$v=16$m=19456,t=2,p=1" + tail,
                                   "$argon2i$v=19$m=19456,t=2,p=1" + tail, std::string(lib.data()) + "!",
                                   std::string(lib.data()).substr(0, 60), std::string("plain text")}) {
        bool match = true;
        EXPECT_EQ(RunsOf([&] { match = kova_accounts::VerifyPassword(bad, "pw"); }), 1u) << bad;
        EXPECT_FALSE(match) << bad;
    }
    // Past the cost bounds, a changed digest tail, or a NUL in the password: never a match.
    auto encoded = [&](uint32_t t, uint32_t m, uint32_t p, const std::string &pw) {
        std::vector<char> out(argon2_encodedlen(t, m, p, 16, 32, Argon2_id));
        EXPECT_EQ(argon2id_hash_encoded(t, m, p, pw.data(), pw.size(), salt, 16, 32, out.data(), out.size()), ARGON2_OK);
        return std::string(out.data());
    };
    ASSERT_TRUE(kova_accounts::VerifyPassword(encoded(16, 64, 4, "pw"), "pw")) << "the bounds themselves are allowed";
    EXPECT_FALSE(kova_accounts::VerifyPassword(encoded(17, 64, 4, "pw"), "pw"));
    EXPECT_FALSE(kova_accounts::VerifyPassword(encoded(16, 64, 5, "pw"), "pw"));
    std::string tailChanged = lib.data();
    char &late = tailChanged[tailChanged.size() - 4];
    late = late == 'A' ? 'B' : 'A';
    EXPECT_FALSE(kova_accounts::VerifyPassword(tailChanged, "pw"));
    const std::string withNul("pw\0x", 4);
    EXPECT_FALSE(kova_accounts::VerifyPassword(encoded(2, 64, 1, withNul), withNul));
}

// Hashing memory was once kept per thread, with as many checks at once as callers.
TEST(SignIn, HashingMemoryIsBoundedAndGoesBackAtOnce) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("ann", -1, "right-pw", nullptr, nullptr, 0), 0);
    ASSERT_LT(KOVAUserPasswordCheck("ann", "wrong"), 0);
    long base = StatusKiB("VmRSS:");
    // Resets the peak (VmHWM) so it tells the burst's own peak.
    bool peakReset = static_cast<bool>(std::ofstream("/proc/self/clear_refs") << "5");
    std::atomic<int> next{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i; (i = next++) < 50;) KOVAUserPasswordCheck(i % 2 ? "ann" : "nobody", "wrong");
        });
    for (auto &t : threads) t.join();
    long grown = StatusKiB("VmRSS:") - base;
    EXPECT_LT(grown, 8 * 1024) << "KiB kept after 50 checks from 8 threads";
    EXPECT_LE(kova_accounts::Argon2PeakRunning(), kova_accounts::kArgon2Slots);
    if (peakReset) {
        long peak = StatusKiB("VmHWM:") - base;
        EXPECT_LT(peak, static_cast<long>(kova_accounts::kArgon2Slots + 1) * 19 * 1024) << "KiB at the peak";
    }
}
