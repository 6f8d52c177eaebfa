// The set task's walk below one folder, pre-order (a folder before its
// entries), in the order the file system lists each folder.
//
// It never leaves the folder it starts in, whatever happens to the tree
// while it runs:
// - every folder is opened relative to its parent's descriptor with
//   O_DIRECTORY|O_NOFOLLOW, so a folder swapped for a link after it was
//   listed is met as a link (reported as one, never entered);
// - an entry on another mount (another file system, or a bind mount of
//   the same one) is neither reported nor entered;
// - at most kMaxOpenLevels folders are held open, whatever the depth: the
//   shallowest open folder is closed (its position kept) when a deeper one
//   opens, and re-opened through ".." of its child when the walk comes
//   back, checked to be the same folder (device and inode) as before.
// Memory grows with depth only. Each entry's path is written into one
// shared string (the caller's), which the platform then judges as it
// would any path.
#ifndef KOVA_MODULE_ACL_TREE_WALK_H
#define KOVA_MODULE_ACL_TREE_WALK_H

#include <dirent.h>
#include <sys/types.h>

#include <string>
#include <vector>

class TreeWalk {
public:
    static constexpr size_t kMaxOpenLevels = 48;

    enum class Step {
        kEntry,   // path names the next entry; kind says what it is
        kEnd,     // every entry below the top was reported
        kFailed,  // an entry could not be examined or a folder not opened
    };
    enum class Kind { kPlain, kDirectory, kLink };

    // `path` holds the top folder; it is rewritten for every entry.
    explicit TreeWalk(std::string &path);
    ~TreeWalk();
    TreeWalk(const TreeWalk &) = delete;
    TreeWalk &operator=(const TreeWalk &) = delete;

    // Opens the top folder (its last component is not followed). false on
    // failure, with openFailed() set and errno kept in error().
    bool Start();

    // The next entry whose name `skip` does not refuse; a folder reported
    // here is entered by the following call.
    template <typename Skip>
    Step Next(Skip skip, Kind &kind) {
        for (;;) {
            const char *name = nullptr;
            const Step step = ReadName(name);
            if (step != Step::kEntry) return step;
            if (skip(name)) continue;
            bool report = false;
            const Step classified = Classify(name, kind, report);
            if (classified != Step::kEntry) return classified;
            if (report) return Step::kEntry;
        }
    }

    // Whether the failure was a folder that could not be opened (else an
    // entry that could not be examined), and its errno.
    bool openFailed() const { return openFailed_; }
    int error() const { return error_; }
    // Folders open right now (for tests of the bound).
    size_t openLevels() const { return levels_.size() - firstOpen_; }

private:
    struct Level {
        DIR *dir;                 // null while closed to bound descriptors
        long position;            // where to go on reading once re-opened
        dev_t dev;
        ino_t ino;
        std::string::size_type prefix;  // length of this folder's path
    };

    Step ReadName(const char *&name);
    Step Classify(const char *name, Kind &kind, bool &report);
    bool Push(int fd, dev_t dev, ino_t ino);
    bool Pop();
    Step Fail(bool open, int error);
    bool OnThisMount(dev_t dev, bool hasMountId, unsigned long long mountId) const;

    std::string &path_;
    std::vector<Level> levels_;
    size_t firstOpen_ = 0;     // levels_[firstOpen_..] hold open streams
    unsigned char entryType_ = DT_UNKNOWN;  // of the entry ReadName gave
    unsigned long long mountId_ = 0;
    bool haveMountId_ = false;
    dev_t dev_ = 0;
    bool openFailed_ = false;
    int error_ = 0;
};

#endif
