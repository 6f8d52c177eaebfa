// The descriptor walk (see descriptor-walk.h).
#include "descriptor-walk.h"

#include "kova-internal/sys-calls.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace kova_acl {

using kova_internal::Sys;

namespace {

bool Skipped(const char *name) {
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return true;
    return std::strcmp(name, kAttrFolderName) == 0;
}

// (dirFd, name) opened for reading, never through a link, and only when it
// is the folder `expect` describes; errno EXDEV for another one.
bool OpenChecked(int dirFd, const char *name, const struct stat &expect, WalkFolder &out) {
    const int fd = Sys().openat(dirFd, name[0] ? name : ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) return false;
    struct stat st;
    if (Sys().fstat(fd, &st) != 0 || st.st_dev != expect.st_dev || st.st_ino != expect.st_ino) {
        Sys().close(fd);
        errno = EXDEV;
        return false;
    }
    out.dir.reset(Sys().fdopendir(fd));
    if (!out.dir) Sys().close(fd);
    return out.dir != nullptr;
}

} // namespace

void DirCloser::operator()(DIR *d) const { Sys().closedir(d); }

std::string WalkEntry::Path() const { return (folder->path == "/" ? "" : folder->path) + "/" + name; }

Target WalkEntry::AsTarget(const Target &top) const {
    Target t;
    t.path = Path();
    t.inShare = top.inShare;
    t.shareRoot = top.shareRoot;
    t.parent = OwnedFd::Borrowed(dirFd);
    t.name = name;
    t.st = st;
    t.hasStat = true;
    return t;
}

bool DescriptorWalk::OpenTop(const Target &t, WalkFolder &out) {
    out = WalkFolder();
    out.path = t.path;
    return OpenChecked(t.parent.get(), t.name.c_str(), t.st, out);
}

WalkEnd DescriptorWalk::Walk(WalkFolder top) {
    std::vector<WalkFolder> stack;
    auto enter = [&](WalkFolder &f) {
        if (entered) entered(f.path);
        stack.push_back(std::move(f));
    };
    enter(top);
    while (!stack.empty()) {
        if (stopped && stopped()) return WalkEnd::kStopped;
        WalkFolder &here = stack.back();
        struct dirent64 *ent = Sys().readdir64(here.dir.get());
        if (!ent) {
            stack.pop_back();
            continue;
        }
        if (Skipped(ent->d_name)) continue;
        if (looked_ == maxEntries_) return WalkEnd::kStopped;
        ++looked_;
        WalkEntry e;
        e.dirFd = dirfd(here.dir.get());
        e.name = ent->d_name;
        e.folder = &here;
        e.after = static_cast<int64_t>(ent->d_off);
        if (Sys().fstatat(e.dirFd, e.name, &e.st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        // Another file system mounted here is not ours to walk; links and
        // special files carry no ACL of ours.
        if (e.st.st_dev != dev_ || !(S_ISDIR(e.st.st_mode) || S_ISREG(e.st.st_mode))) continue;
        if (!visit(e) || !S_ISDIR(e.st.st_mode)) continue;
        if (here.depth + 1 >= maxDepth_) {
            if (beyondDepth) beyondDepth();
            continue;
        }
        WalkFolder child;
        if (!OpenChecked(e.dirFd, e.name, e.st, child)) {
            // A folder swapped in after the look is not the one judged: no failure.
            if (errno != EXDEV && failed) failed();
            continue;
        }
        child.path = e.Path();
        child.depth = here.depth + 1;
        child.data = std::move(e.childData);
        // `here` may move with the vector: nothing below uses it.
        if (!handOff || !handOff(child)) enter(child);
    }
    return WalkEnd::kFinished;
}

} // namespace kova_acl
