// Files and configuration keys. Configuration files are "key = value" lines
// ("#" comments), read from the platform root.
#include "kova/klibc.h"
#include "kova/errcode.h"
#include "kova-internal/paths.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string Trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::string Unquote(const std::string &s) {
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') return s.substr(1, s.size() - 2);
    return s;
}

bool ResolveConfig(const char *file, std::string &out) {
    char buf[4096];
    if (KLIBCRootPath(file, buf, sizeof(buf)) < 0) return false;
    out = buf;
    return true;
}

// Finds key in the file; false when the file or the key is missing.
bool ReadKey(const std::string &path, const std::string &key, std::string &value) {
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line)) {
        std::string t = Trim(line);
        if (t.empty() || t[0] == '#' || t[0] == '[') continue;
        size_t eq = t.find('=');
        if (eq == std::string::npos) continue;
        if (Trim(t.substr(0, eq)) != key) continue;
        value = Unquote(Trim(t.substr(eq + 1)));
        return true;
    }
    return false;
}

} // namespace

extern "C" int KLIBCFileExist(const char *path) {
    KOVA_FAULT_POINT("KLIBCFileExist", int);
    if (!path || !*path) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return 0;
    }
    struct stat st;
    if (kova_internal::Sys().fstatat(AT_FDCWD, path, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        KOVA_FAIL(KOVA_ERR_NOENT);
        return 0;
    }
    return 1;
}

extern "C" int KLIBCFileGetKeyValue(const char *file, const char *key, char *value, int cbValue) {
    KOVA_FAULT_POINT("KLIBCFileGetKeyValue", int);
    if (!file || !key || !value || cbValue <= 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    std::string path, v;
    if (!ResolveConfig(file, path)) return -1;
    if (!ReadKey(path, key, v)) {
        KOVA_FAIL(KOVA_ERR_NOENT);
        return -1;
    }
    if (v.size() >= static_cast<size_t>(cbValue)) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    std::memcpy(value, v.c_str(), v.size() + 1);
    return 0;
}

extern "C" int KLIBCFileCheckKeyValue(const char *file, const char *key, const char *expected, int flags) {
    KOVA_FAULT_POINT("KLIBCFileCheckKeyValue", int);
    if (!file || !key || !expected) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return 0;
    }
    std::string path, v;
    if (!ResolveConfig(file, path)) return 0;
    if (!ReadKey(path, key, v)) {
        KOVA_FAIL(KOVA_ERR_NOENT);
        return 0;
    }
    return v == expected ? 1 : 0;
}

extern "C" int KLIBCFileSetKeyValue(const char *file, const char *key, const char *value) {
    KOVA_FAULT_POINT("KLIBCFileSetKeyValue", int);
    if (!file || !key || !*key || !value || std::strchr(key, '=') || std::strchr(key, '\n') || std::strchr(value, '\n')) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    std::string path;
    if (!ResolveConfig(file, path)) return -1;
    std::vector<std::string> lines;
    bool replaced = false;
    {
        std::ifstream in(path);
        std::string line;
        while (in && std::getline(in, line)) {
            std::string t = Trim(line);
            size_t eq = t.find('=');
            if (!t.empty() && t[0] != '#' && eq != std::string::npos && Trim(t.substr(0, eq)) == key) {
                if (!replaced) lines.push_back(std::string(key) + " = \"" + value + "\"");
                replaced = true;
                continue;
            }
            lines.push_back(line);
        }
    }
    if (!replaced) lines.push_back(std::string(key) + " = \"" + value + "\"");
    std::string tmp = path + ".tmp." + std::to_string(getpid());
    FILE *f = std::fopen(tmp.c_str(), "w");
    if (!f) {
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    bool ok = true;
    for (const auto &l : lines) ok = ok && std::fprintf(f, "%s\n", l.c_str()) >= 0;
    ok = (std::fflush(f) == 0) && ok && fsync(fileno(f)) == 0;
    ok = (std::fclose(f) == 0) && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    return 0;
}

extern "C" const char *KLIBCRootGet(void) {
    const char *root = std::getenv("KOVA_ROOT");
    return (root && *root) ? root : "/var/lib/kova";
}

extern "C" int KLIBCRootPath(const char *platformPath, char *out, size_t cbOut) {
    if (!platformPath || !out || cbOut == 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    const std::string root = kova_internal::StripTrailingSlashes(KLIBCRootGet());
    std::string p = platformPath;
    std::string full = (p.empty() || p[0] != '/') ? root + "/" + p : root + p;
    if (full.size() >= cbOut) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    std::memcpy(out, full.c_str(), full.size() + 1);
    return static_cast<int>(full.size());
}
