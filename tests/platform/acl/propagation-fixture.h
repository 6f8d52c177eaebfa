// A tree under the share's "top" whose entries all inherit, for the tests that watch its propagation jobs.
// Every change goes to a job (no in-place refresh) unless a test asks otherwise.
#ifndef KOVA_TEST_PROPAGATION_FIXTURE_H
#define KOVA_TEST_PROPAGATION_FIXTURE_H

#include "acl-fixture.h"

#include "kova/acladmin.h"

#include "../../../platform/acl/acl-record.h"
#include "../../../platform/acl/propagation-job.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace kova_acl_test {

// A record that inherits and has no entries of its own, written directly so that building a tree starts no
// propagation of its own.
inline void Inheriting(const std::string &path) {
    kova_acl::StoredAcl acl;
    acl.inherits = true;
    std::string bytes;
    ASSERT_TRUE(kova_acl::EncodeRecord(acl, bytes));
    ASSERT_TRUE(WriteRawRecord(path, bytes)) << path;
}

// Polls the job of path until pred holds (false after `tries` looks, 20 ms apart); JobOf looks once.
template <typename Pred>
bool WaitJob(const std::string &path, Pred pred, kova_acl::PropagationJob &out, int tries = 1000) {
    for (int i = 0; i < tries; ++i) {
        if (i > 0) usleep(20000);
        std::vector<kova_acl::PropagationJob> jobs;
        if (!kova_acl::ListPropagations(jobs)) continue;
        const auto it = std::find_if(jobs.begin(), jobs.end(),
                                     [&](const kova_acl::PropagationJob &j) { return j.path == path; });
        if (it != jobs.end() && pred(out = *it)) return true;
    }
    return false;
}
inline bool JobOf(const std::string &path, kova_acl::PropagationJob &out) {
    return WaitJob(path, [](const kova_acl::PropagationJob &) { return true; }, out, 1);
}

class PropagationFixture : public AclFixture {
protected:
    void SetUp() override {
        AclFixture::SetUp();
        OpenAncestors();
        top_ = In("top");
        setenv("KOVA_PROPAGATION_IN_PLACE", "0", 1);
    }
    void TearDown() override {
        AclFixture::TearDown();
        unsetenv("KOVA_PROPAGATION_IN_PLACE");
    }

    // A folder or file with an inheriting record; returns its path.
    std::string Make(const std::string &path, bool isDir) {
        isDir ? Dir(path) : File(path);
        Inheriting(path);
        return path;
    }

    // top/dD/sS/fF: folders x subs x files, every entry inheriting; returns the entries below top, parents
    // first. With `followed`, top already passes user:1030:allow:rx down and every entry follows it.
    std::vector<std::string> Tree(int folders, int subs, int files, bool followed = false) {
        std::vector<std::string> all;
        Dir(top_);
        for (int d = 0; d < folders; ++d) {
            const std::string dir = Make(top_ + "/d" + std::to_string(d), true);
            all.push_back(dir);
            for (int s = 0; s < subs; ++s) {
                const std::string sub = Make(dir + "/s" + std::to_string(s), true);
                all.push_back(sub);
                for (int f = 0; f < files; ++f) all.push_back(Make(sub + "/f" + std::to_string(f), false));
            }
        }
        if (followed) {
            EXPECT_EQ(SetAcl(top_, {"user:1030:allow:rx:fd"}, false), 0);
            EXPECT_TRUE(WaitForPropagations());
        }
        return all;
    }

    // Entries below top (or `below`) whose kernel ACL differs from their projection.
    size_t Drifting(const std::string &below = "") {
        KOVA_ACL_VERIFY_COUNTS counts = {};
        EXPECT_EQ(0, KOVAACLVerifyTree((below.empty() ? top_ : below).c_str(), 0, nullptr, nullptr, &counts));
        return counts.differing + counts.failed;
    }

    std::string top_;
};

} // namespace kova_acl_test

#endif
