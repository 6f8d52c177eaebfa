// Sign-in: every refusal costs the same one Argon2 run as a wrong password,
// so the check's duration does not tell which accounts exist.
#include "temp-root.h"

#include "password.h"
#include "sign-in.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

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

double MedianMs(int n, const char *name, const char *password) {
    std::vector<double> ms;
    for (int i = 0; i < n; ++i) {
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_LT(KOVAUserPasswordCheck(name, password), 0);
        ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    }
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
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
        }
    }
}

// The counting above is the real check; this one only guards against a
// refusal that skips the work some other way than the counted run.
TEST(SignIn, UnknownAccountTakesAsLongAsWrongPassword) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("ann", -1, "right-pw", nullptr, nullptr, 0), 0);
    ASSERT_LT(KOVAUserPasswordCheck("nobody", "x"), 0);  // warms the dummy hash
    double existing = MedianMs(7, "ann", "wrong-pw");
    double unknown = MedianMs(7, "nobody", "wrong-pw");
    EXPECT_LT(existing, 3 * unknown) << existing << " ms vs " << unknown << " ms";
    EXPECT_LT(unknown, 3 * existing) << unknown << " ms vs " << existing << " ms";
}
