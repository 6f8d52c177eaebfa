// The one walk of a folder tree the ACL library makes below a judged folder
// (the in-place refresh, the drift check, the background propagation).
//
// Entered: a folder is opened relative to the one holding it with
// O_RDONLY|O_DIRECTORY|O_NOFOLLOW and must then be the folder that was
// looked at (device and inode, by fstat), so neither a link put in its
// place nor a folder moved there after the look is ever entered.
// Skipped, never handed to the callback: "." and "..", the platform's
// attribute folders (kAttrFolderName), entries gone before their lstat,
// entries on another file system than the top's, links and special files.
// Bounds: depth first, one open folder a level; entries down to maxDepth
// levels below the top (folders at that level are not entered) and at most
// maxEntries names looked at. A folder may be handed to another thread
// (handOff) instead of being walked here.
// Races: an entry is given as its folder's descriptor, its name and its
// lstat; callers touch it only through *at calls with AT_SYMLINK_NOFOLLOW.
#ifndef KOVA_ACL_DESCRIPTOR_WALK_H
#define KOVA_ACL_DESCRIPTOR_WALK_H

#include "target.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kova_acl {

// The name of the folders where the platform keeps metadata of its own
// (the one KOVAEAIsHiddenDir names): never user content, never walked.
constexpr char kAttrFolderName[] = "@kova_attr";

// A folder of the walk (closed through the system-call table), its path,
// its depth (0 for the top) and what the walk's user gave its entries.
struct DirCloser {
    void operator()(DIR *d) const;
};
struct WalkFolder {
    std::unique_ptr<DIR, DirCloser> dir;
    std::string path;
    unsigned depth = 0;
    std::shared_ptr<const void> data;
};

// One entry of a folder, a file or a folder on the top's file system.
struct WalkEntry {
    int dirFd = -1;                 // the folder holding it
    const char *name = nullptr;
    struct stat st;                 // its lstat through dirFd
    const WalkFolder *folder = nullptr;
    int64_t after = 0;              // the folder's read position after it
    // Set by the callback for a folder it enters: its entries' data.
    std::shared_ptr<const void> childData;

    std::string Path() const;
    // The entry as a Target of the walk below `top` (borrowing dirFd).
    Target AsTarget(const Target &top) const;
};

enum class WalkEnd { kFinished, kStopped, kFailed };

class DescriptorWalk {
public:
    DescriptorWalk(dev_t dev, unsigned maxDepth, size_t maxEntries = SIZE_MAX)
        : dev_(dev), maxDepth_(maxDepth), maxEntries_(maxEntries) {}

    // Opens the judged folder t (stat filled) as the top of a walk: false
    // when it cannot be opened or is no longer the folder judged.
    static bool OpenTop(const Target &t, WalkFolder &out);

    // Required: called for every entry; true enters a folder entry.
    std::function<bool(WalkEntry &)> visit;
    // Optional hooks. handOff may take a folder to enter (true) rather than
    // have it walked here; stopped is asked before each read and ends the
    // walk; entered names each folder as its walk starts; failed counts a
    // folder that could not be opened, beyondDepth one below maxDepth.
    std::function<bool(WalkFolder &)> handOff;
    std::function<bool()> stopped;
    std::function<void(const std::string &)> entered;
    std::function<void()> failed;
    std::function<void()> beyondDepth;

    // Walks below `top` (from OpenTop): kFinished, or kStopped by
    // `stopped` or by maxEntries. Looked(): names looked at.
    WalkEnd Walk(WalkFolder top);
    size_t Looked() const { return looked_; }

private:
    const dev_t dev_;
    const unsigned maxDepth_;
    const size_t maxEntries_;
    size_t looked_ = 0;
};

} // namespace kova_acl

#endif
