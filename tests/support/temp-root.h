// A fresh platform root for one test: a temporary directory that $KOVA_ROOT
// points to while the object lives, removed afterwards.
#ifndef KOVA_TEST_TEMP_ROOT_H
#define KOVA_TEST_TEMP_ROOT_H

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace kova_test {

class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    const std::string &path() const { return path_; }
    // path() + "/" + rel
    std::string At(const std::string &rel) const;

private:
    std::string path_;
    std::string previous_;
    bool hadPrevious_;
};

// Creates every missing directory of path (mode 0755).
bool MakeDirs(const std::string &path);
// Writes a file (creating parents).
bool WriteFile(const std::string &path, const std::string &content);
// A file's whole content ("" when it cannot be read).
std::string ReadFile(const std::string &path);
// The entry names of a folder, "." and ".." left out, sorted (none when it cannot be read).
std::vector<std::string> ListDir(const std::string &dir);
// Removes a tree; symbolic links are removed, never followed.
void RemoveTree(const std::string &path);
// Directory of the build tree and of the sources, as CTest passes them.
std::string BuildDir();
std::string SourceDir();

// Sets an environment entry for the object's lifetime; it is unset afterwards.
struct ScopedEnv {
    const char *name;
    ScopedEnv(const char *n, const char *value) : name(n) { setenv(n, value, 1); }
    ~ScopedEnv() { unsetenv(name); }
};

// Polls cond every stepUs until it holds; false when it still does not after timeoutMs.
bool Eventually(const std::function<bool()> &cond, int timeoutMs = 30000, int stepUs = 10000);

} // namespace kova_test

#endif
