// Transfer log: line format, escaping, appends by users, bad arguments.
#include "as-identity.h"
#include "temp-root.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/xferlog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> Lines(const std::string &path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

// "YYYY-MM-DDThh:mm:ssZ"
bool IsIsoUtc(const std::string &t) {
    const std::string shape = "dddd-dd-ddTdd:dd:ddZ";
    if (t.size() != shape.size()) return false;
    for (size_t i = 0; i < t.size(); ++i) {
        bool ok = shape[i] == 'd' ? (t[i] >= '0' && t[i] <= '9') : t[i] == shape[i];
        if (!ok) return false;
    }
    return true;
}

std::vector<std::string> Fields(const std::string &line) {
    std::vector<std::string> out;
    std::stringstream ss(line);
    std::string f;
    while (std::getline(ss, f, '\t')) out.push_back(f);
    return out;
}

} // namespace

TEST(XferLog, LineFormatEscapingAndUsersAppendingToRootsLog) {
    kova_test::TempRoot root;
    ASSERT_EQ(KOVALogXferLog("10.0.0.7", "alice", "property set", 0, "/volume1/s/dir/ **Apply**", 1, 3), 0);
    ASSERT_EQ(KOVALogXferLog("unknown", "bob", "property set", 1234, "/v/a\tb\nc\\d", 0, 3), 0);

    std::vector<std::string> lines = Lines(root.At("var/log/xfer.log"));
    ASSERT_EQ(lines.size(), 2u);  // the embedded newline did not split a record
    std::vector<std::string> f = Fields(lines[0]);
    ASSERT_EQ(f.size(), 8u);
    EXPECT_TRUE(IsIsoUtc(f[0])) << f[0];
    EXPECT_EQ(f, (std::vector<std::string>{f[0], "10.0.0.7", "alice", "property set", "0", "dir", "3",
                                           "/volume1/s/dir/ **Apply**"}));

    f = Fields(lines[1]);
    ASSERT_EQ(f.size(), 8u);
    EXPECT_EQ(f[4], "1234");
    EXPECT_EQ(f[5], "file");
    EXPECT_EQ(f[7], "/v/a\\tb\\nc\\\\d");

    // A task acting as a user still logs (the log is the platform's).
    const auto asUser = [] { return KOVALogXferLog("r", "u", "property set", 0, "/b", 0, 3) == 0 ? 0 : 1; };
    EXPECT_EQ(kova_test::RunAs({1500, 1500, {}}, asUser), 0);
    lines = Lines(root.At("var/log/xfer.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(Fields(lines[2])[7], "/b");
    struct stat st;
    ASSERT_EQ(stat(root.At("var/log/xfer.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
}

TEST(XferLog, BadArgumentsWriteNothing) {
    kova_test::TempRoot root;
    EXPECT_EQ(KOVALogXferLog(nullptr, "u", "a", 0, "/p", 0, 3), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    EXPECT_EQ(KOVALogXferLog("r", "u", "a", 0, nullptr, 0, 3), -1);
    EXPECT_EQ(KOVALogXferLog("r", "u", "a", 0, "/p", 0, 9), -1);
    struct stat st;
    EXPECT_NE(stat(root.At("var/log/xfer.log").c_str(), &st), 0);
}
