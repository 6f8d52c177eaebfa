// Resolution of user-visible folder paths. "/<share>/rest" names a folder
// of a share; "/home[/rest]" names the user's own home, the folder
// <root of share "homes">/<user>.
//
// The share root is opened by the real path the share table names, with no
// link on the way (a link put at a root's path holds nothing); the home and
// the rest are opened below that descriptor the way openat2(RESOLVE_BENEATH)
// does, so ".." and links cannot leave the share (or the home), whatever
// the strings say. Containment is the kernel's judgement on descriptors;
// the names handed back are what the kernel calls the opened folders.
#ifndef KOVA_FILEOP_USER_PATH_H
#define KOVA_FILEOP_USER_PATH_H

#include "kova-internal/owned-fd.h"

#include <string>

namespace kova_fileop {

// Name under which a user's own home is seen and reported.
constexpr const char *kHomeName = "home";
constexpr const char *kHomesShare = "homes";

struct Resolved {
    std::string realPath;
    std::string shareName;    // the share, or kHomeName
    std::string shareRoot;    // share root, or the home folder
    std::string recordShare;  // the share record holding it ("homes" for a home)
    bool isHome = false;
    bool readOnly = false;
    kova_internal::OwnedFd fd;      // O_PATH descriptor of realPath, as judged
    kova_internal::OwnedFd rootFd;  // O_PATH descriptor of shareRoot
};

// 0 on success; otherwise a KOVA_WFM_ERR_* class, the last error set and
// `out` untouched. userPath and user must be NUL-free UTF-8.
int Resolve(const std::string &userPath, const std::string &user, Resolved &out);

} // namespace kova_fileop

#endif
