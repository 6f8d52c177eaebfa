#include "temp-root.h"

#include "kova-internal/paths.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kova_test {

TempRoot::TempRoot() {
    const char *prev = std::getenv("KOVA_ROOT");
    hadPrevious_ = prev != nullptr;
    if (prev) previous_ = prev;
    char tmpl[] = "/tmp/kova-test-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    chmod(path_.c_str(), 0755);
    setenv("KOVA_ROOT", path_.c_str(), 1);
}

TempRoot::~TempRoot() {
    RemoveTree(path_);
    if (hadPrevious_)
        setenv("KOVA_ROOT", previous_.c_str(), 1);
    else
        unsetenv("KOVA_ROOT");
}

std::string TempRoot::At(const std::string &rel) const { return path_ + "/" + rel; }

bool MakeDirs(const std::string &path) { return kova_internal::MakeDirs(path); }

bool WriteFile(const std::string &path, const std::string &content) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) return false;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> ListDir(const std::string &dir) {
    std::vector<std::string> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") out.push_back(e->d_name);
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool Eventually(const std::function<bool()> &cond, int timeoutMs, int stepUs) {
    for (long waited = 0;; waited += stepUs) {
        if (cond()) return true;
        if (waited >= timeoutMs * 1000L) return false;
        usleep(static_cast<useconds_t>(stepUs));
    }
}

namespace {
int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}
} // namespace

void RemoveTree(const std::string &path) { nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }

std::string BuildDir() {
    const char *d = std::getenv("KOVA_BUILD_DIR");
    return d ? d : ".";
}

std::string SourceDir() {
    const char *d = std::getenv("KOVA_SOURCE_DIR");
    return d ? d : "..";
}

} // namespace kova_test
