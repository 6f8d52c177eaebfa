// A fresh platform root for one test: a temporary directory that $KOVA_ROOT
// points to while the object lives, removed afterwards.
#ifndef KOVA_TEST_TEMP_ROOT_H
#define KOVA_TEST_TEMP_ROOT_H

#include <string>

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
// Removes a tree; symbolic links are removed, never followed.
void RemoveTree(const std::string &path);
// Directory of the build tree and of the sources, as CTest passes them.
std::string BuildDir();
std::string SourceDir();

} // namespace kova_test

#endif
