// Resolution of user-visible folder paths. "/<share>/rest" names a folder
// of a share; "/home[/rest]" names the user's own home, the folder
// <root of share "homes">/<user>. The result is canonical (links and ".."
// resolved) and must stay inside the share root (or the home).
#ifndef KOVA_FILEOP_USER_PATH_H
#define KOVA_FILEOP_USER_PATH_H

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
};

// 0 on success; otherwise a KOVA_WFM_ERR_* class, the last error set.
int Resolve(const std::string &userPath, const std::string &user, Resolved &out);
// True when path equals root or lies below it (both canonical).
bool UnderRoot(const std::string &path, const std::string &root);

} // namespace kova_fileop

#endif
