// Helpers shared by the account-database tests: an owning query handle and
// a count of the half-built caches a rebuild leaves in a directory.
#ifndef KOVA_TEST_ACCOUNTDB_FIXTURE_H
#define KOVA_TEST_ACCOUNTDB_FIXTURE_H

#include "kova/accountdb.h"

#include <dirent.h>

#include <memory>
#include <string>

namespace kova_accountdb_test {

struct Closer {
    void operator()(PKOVA_ACCOUNTDB h) const { KOVAACCOUNTDBClose(h); }
};
using Handle = std::unique_ptr<KOVA_ACCOUNTDB, Closer>;

// Files of `dir` whose name marks a cache still being built (".new.").
inline int TempFiles(const std::string &dir) {
    int n = 0;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) n += std::string(e->d_name).find(".new.") != std::string::npos;
        closedir(d);
    }
    return n;
}

} // namespace kova_accountdb_test

#endif
