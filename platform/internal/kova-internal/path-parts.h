// The components of a slash-separated path: empty components (repeated or
// trailing slashes) are dropped; "." and ".." are kept for the caller to
// judge.
#ifndef KOVA_INTERNAL_PATH_PARTS_H
#define KOVA_INTERNAL_PATH_PARTS_H

#include <string>
#include <vector>

namespace kova_internal {

inline std::vector<std::string> PathComponents(const std::string &path) {
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        if (next > pos) parts.push_back(path.substr(pos, next - pos));
        pos = next + 1;
    }
    return parts;
}

} // namespace kova_internal

#endif
