// Drift between the stored ACLs and the kernel's: programs may chmod or
// setfacl behind the platform's back. VerifyTree walks a tree from a path
// (descriptor-walk.h) and, for every file and folder with a stored record,
// compares its kernel access ACL (its mode when it has none) and, on
// folders, its default ACL with the projection of its complete ACL; repair
// writes the projection. Entries without a record are judged by the
// platform from their kernel ACL itself, so they cannot drift. Needs root.
#ifndef KOVA_ACL_VERIFY_H
#define KOVA_ACL_VERIFY_H

#include <cstddef>
#include <functional>
#include <string>

namespace kova_acl {

struct Drift {
    std::string path;
    std::string kernel;      // what the kernel holds, "access [default]" in getfacl's short form
    std::string projection;  // what it should hold
    bool repaired = false;
};

struct VerifyCounts {
    size_t checked = 0;   // entries with a record
    size_t differing = 0;
    size_t repaired = 0;
    size_t failed = 0;    // could not be read or repaired
};

// False with the last error set when the path cannot be resolved; each
// drift found is handed to report.
bool VerifyTree(const char *szPath, bool repair, const std::function<void(const Drift &)> &report,
                VerifyCounts &counts);

} // namespace kova_acl

#endif
