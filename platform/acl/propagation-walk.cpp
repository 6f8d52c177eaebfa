// The propagation walk (see propagation-walk.h).
#include "propagation-walk.h"

#include "acl-record.h"
#include "acl-store.h"
#include "entry-attr.h"
#include "inherit.h"
#include "kernel-acl.h"
#include "projection.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <fcntl.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kova_acl {

using kova_internal::Sys;

namespace {

// What a folder passes to a child that inherits, levels already counted.
struct Passed {
    std::vector<Ace> toDir;
    std::vector<Ace> toFile;
    uint64_t serial = 0;  // tells two of them apart, wherever they live
};
using PassedPtr = std::shared_ptr<const Passed>;

// complete: a folder's own entries then those it inherits (levels set).
std::atomic<uint64_t> gSerial{0};

PassedPtr PassedOf(const std::vector<Ace> &complete) {
    auto p = std::make_shared<Passed>();
    p->serial = gSerial.fetch_add(1) + 1;
    for (const Ace &e : complete) {
        Ace copy;
        if (PassDown(e, true, copy)) {
            copy.level = e.level + 1;
            p->toDir.push_back(copy);
        }
        if (PassDown(e, false, copy)) {
            copy.level = e.level + 1;
            p->toFile.push_back(copy);
        }
    }
    return p;
}

// Device and inode of every share root but the top's own: a share whose
// root lies inside the tree starts its own inheritance there. False when
// the share table cannot be read.
bool OtherShareRoots(const Target &top, std::vector<std::pair<dev_t, ino_t>> &out) {
    PKLIBC_SZLIST names = KLIBCSzListAlloc(256);
    if (!names || KOVAShareEnum(&names) < 0) {
        KLIBCSzListFree(names);
        return false;
    }
    for (int i = 0; i < names->nItem; ++i) {
        const char *name = KLIBCSzListGet(names, i);
        PKOVA_SHARE share = nullptr;
        if (!name || KOVAShareGet(name, &share) < 0 || !share) continue;
        struct stat st;
        if (top.shareRoot != share->szPath && Sys().fstatat(AT_FDCWD, share->szPath, &st, 0) == 0 &&
            S_ISDIR(st.st_mode))
            out.emplace_back(st.st_dev, st.st_ino);
        KOVAShareFree(share);
    }
    KLIBCSzListFree(names);
    return true;
}

bool Skipped(const char *name) {
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return true;
    return std::strcmp(name, "@kova_attr") == 0;
}

// The last file's projection a thread wrote: the files of one folder
// usually share their record, their owner and what they inherit, and then
// their projection too.
struct Memo {
    uint64_t serial = 0;
    std::string raw;
    uid_t uid = 0;
    gid_t gid = 0;
    Projection p;
};

// A unit: one child folder of the top and everything below it.
struct Unit {
    std::atomic<int> pending{1};
};

struct Item {
    int fd = -1;
    PassedPtr passed;
    std::string path;
    Unit *unit = nullptr;
    unsigned depth = 1;
};

class Walk {
public:
    Walk(const Target &top, unsigned threads, WalkProgress &progress)
        : top_(top), dev_(top.st.st_dev), threads_(threads ? threads : 1), capacity_(4 * threads_),
          progress_(progress) {}

    WalkEnd Run(int64_t resume, const std::function<bool(const WalkProgress &)> &tick, unsigned tickMs);

private:
    // One entry of folder dirFd. descend: it is a folder to walk, whose
    // descriptor (checked to be the folder looked at) is in childFd and
    // whose children get childPassed.
    void Entry(int dirFd, const char *name, const Passed &passed, Memo &memo, int &childFd, PassedPtr &childPassed);
    void Folder(Item item);
    void Worker();
    bool Push(Item &item, bool wait);
    void Finished(Unit *unit);
    void Current(const std::string &path);

    const Target &top_;
    const dev_t dev_;
    const unsigned threads_;
    const size_t capacity_;
    WalkProgress &progress_;
    std::atomic<bool> stop_{false};
    std::vector<std::pair<dev_t, ino_t>> shareRoots_;

    std::mutex m_;
    std::condition_variable cv_;     // queue changes, units finished
    std::deque<Item> queue_;
    unsigned idle_ = 0;
    bool feeding_ = true;
    std::string current_;
};

void Walk::Current(const std::string &path) {
    std::lock_guard<std::mutex> g(m_);
    current_ = path;
}

void Walk::Entry(int dirFd, const char *name, const Passed &passed, Memo &memo, int &childFd,
                 PassedPtr &childPassed) {
    childFd = -1;
    progress_.visited.fetch_add(1, std::memory_order_relaxed);
    Target t;
    t.parent = OwnedFd::Borrowed(dirFd);
    t.name = name;
    if (Sys().fstatat(dirFd, name, &t.st, AT_SYMLINK_NOFOLLOW) != 0) return;
    t.hasStat = true;
    // Another file system mounted here is not ours to walk; links and
    // special files carry no projection.
    if (t.st.st_dev != dev_ || !(S_ISDIR(t.st.st_mode) || S_ISREG(t.st.st_mode))) return;
    char raw[kMaxRecordSize + 1];
    ssize_t n = GetEntryAttr(dirFd, name, kAttrName, raw, sizeof raw);
    std::vector<Ace> complete;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (n < 0) {
            if (errno != ENODATA && errno != ENOENT) progress_.failed.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        StoredAcl own;
        if (!DecodeRecord(raw, static_cast<size_t>(n), own)) {
            progress_.failed.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        if (!own.inherits) return;
        // A share root inherits nothing, whatever its flag says.
        bool shareRoot = false;
        if (t.IsDir())
            for (const auto &r : shareRoots_) shareRoot = shareRoot || (r.first == t.st.st_dev && r.second == t.st.st_ino);
        const std::vector<Ace> &inherited = t.IsDir() ? passed.toDir : passed.toFile;
        complete = std::move(own.entries);
        if (!shareRoot) complete.insert(complete.end(), inherited.begin(), inherited.end());
        OwnerId owner;
        if (own.hasGroupOwner) {
            owner.idType = KOVA_ACL_ID_GROUP;
            owner.id = static_cast<int>(own.ownerGid);
        } else {
            owner.id = static_cast<int>(t.st.st_uid);
        }
        const bool same = !t.IsDir() && memo.serial == passed.serial && memo.uid == t.st.st_uid &&
                          memo.gid == t.st.st_gid && memo.raw.size() == static_cast<size_t>(n) &&
                          std::memcmp(memo.raw.data(), raw, static_cast<size_t>(n)) == 0;
        if (!same && !t.IsDir()) {
            memo.p = Project(complete, owner, t.st.st_uid, t.st.st_gid, false, true, true);
            memo.serial = passed.serial;
            memo.raw.assign(raw, static_cast<size_t>(n));
            memo.uid = t.st.st_uid;
            memo.gid = t.st.st_gid;
        }
        const Projection p =
            t.IsDir() ? Project(complete, owner, t.st.st_uid, t.st.st_gid, true, !shareRoot, true) : Projection();
        if (!WriteProjection(t, t.IsDir() ? p : memo.p)) {
            progress_.failed.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        // A set of this entry between the read and the write has projected
        // its new record already, and this write may have replaced that
        // projection with one of the old record: look again.
        char again[kMaxRecordSize + 1];
        const ssize_t m = GetEntryAttr(dirFd, name, kAttrName, again, sizeof again);
        if (m == n && std::memcmp(raw, again, static_cast<size_t>(n)) == 0) break;
        if (m >= 0) std::memcpy(raw, again, static_cast<size_t>(m));
        n = m;
        if (m < 0 && errno == ENODATA) {
            // Removed meanwhile: the removal has put its own kernel ACL.
            return;
        }
    }
    progress_.rewritten.fetch_add(1, std::memory_order_relaxed);
    if (!t.IsDir()) return;
    const int fd = Sys().openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) {
        progress_.failed.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    struct stat st;
    // A folder swapped in after the look is not the one that was judged.
    if (Sys().fstat(fd, &st) != 0 || st.st_dev != t.st.st_dev || st.st_ino != t.st.st_ino) {
        Sys().close(fd);
        return;
    }
    childFd = fd;
    childPassed = PassedOf(complete);
}

bool Walk::Push(Item &item, bool wait) {
    std::unique_lock<std::mutex> g(m_);
    if (wait) cv_.wait(g, [this] { return queue_.size() < capacity_ || stop_.load(); });
    // Only handed on when someone is free to take it; else its finder walks it.
    if (stop_.load() || queue_.size() >= capacity_ || (!wait && idle_ == 0)) return false;
    queue_.push_back(std::move(item));
    cv_.notify_all();
    return true;
}

void Walk::Finished(Unit *unit) {
    if (unit->pending.fetch_sub(1) != 1) return;
    std::lock_guard<std::mutex> g(m_);
    cv_.notify_all();
}

struct Frame {
    DIR *dir;
    PassedPtr passed;
    std::string path;
    unsigned depth;
};

void Walk::Folder(Item item) {
    Unit *unit = item.unit;
    Memo memo;
    std::vector<Frame> stack;
    DIR *first = Sys().fdopendir(item.fd);
    if (!first) {
        Sys().close(item.fd);
        progress_.failed.fetch_add(1, std::memory_order_relaxed);
        Finished(unit);
        return;
    }
    Current(item.path);
    stack.push_back({first, std::move(item.passed), std::move(item.path), item.depth});
    while (!stack.empty()) {
        if (stop_.load(std::memory_order_relaxed)) {
            for (Frame &f : stack) Sys().closedir(f.dir);
            return;  // the unit stays unfinished: a resumed walk does it again
        }
        Frame &here = stack.back();
        struct dirent64 *ent = Sys().readdir64(here.dir);
        if (!ent) {
            Sys().closedir(here.dir);
            stack.pop_back();
            continue;
        }
        if (Skipped(ent->d_name)) continue;
        int childFd = -1;
        PassedPtr childPassed;
        Entry(dirfd(here.dir), ent->d_name, *here.passed, memo, childFd, childPassed);
        if (childFd < 0) continue;
        Item child{childFd, childPassed, here.path + "/" + ent->d_name, unit, here.depth + 1};
        unit->pending.fetch_add(1);
        if (Push(child, false)) continue;
        unit->pending.fetch_sub(1);
        if (child.depth > kWalkDepth) {
            Sys().close(childFd);
            progress_.beyondDepth.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        DIR *d = Sys().fdopendir(childFd);
        if (!d) {
            Sys().close(childFd);
            progress_.failed.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        Current(child.path);
        // `here` may move with the vector: nothing below uses it.
        stack.push_back({d, std::move(child.passed), std::move(child.path), child.depth});
    }
    Finished(unit);
}

void Walk::Worker() {
    for (;;) {
        Item item;
        {
            std::unique_lock<std::mutex> g(m_);
            ++idle_;
            cv_.notify_all();
            cv_.wait(g, [this] { return !queue_.empty() || stop_.load() || (!feeding_ && idle_ == threads_); });
            if (queue_.empty()) {
                // Counted idle for good, so the others see that all are.
                cv_.notify_all();
                return;
            }
            --idle_;
            item = std::move(queue_.front());
            queue_.pop_front();
            cv_.notify_all();
        }
        Folder(std::move(item));
    }
}

WalkEnd Walk::Run(int64_t resume, const std::function<bool(const WalkProgress &)> &tick, unsigned tickMs) {
    // What the top passes down: its complete ACL as every descendant's own
    // walk up would find it (a damaged record on the way leaves them their
    // own entries only, and so passes nothing).
    StoredAcl own;
    bool present = false;
    PassedPtr passed = std::make_shared<Passed>();
    if (ReadStored(top_, own, present)) {
        if (present) {
            std::vector<Ace> complete = own.entries;
            if (own.inherits && !CollectInherited(top_, complete)) {
                if (KLIBCErrGet() != KOVA_ERR_CORRUPT) return WalkEnd::kFailed;
                complete.clear();
            }
            passed = PassedOf(complete);
        }
    } else if (KLIBCErrGet() != KOVA_ERR_CORRUPT) {
        return WalkEnd::kFailed;
    }

    if (!OtherShareRoots(top_, shareRoots_)) return WalkEnd::kFailed;
    const int topFd = Sys().openat(top_.parent.get(), top_.name.empty() ? "." : top_.name.c_str(),
                                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
    struct stat st;
    if (topFd < 0 || Sys().fstat(topFd, &st) != 0 || st.st_dev != top_.st.st_dev || st.st_ino != top_.st.st_ino ||
        (resume != 0 && Sys().lseek(topFd, static_cast<off_t>(resume), SEEK_SET) < 0)) {
        if (topFd >= 0) Sys().close(topFd);
        KOVA_FAIL(KOVA_ERR_NOENT);
        return WalkEnd::kFailed;
    }
    DIR *dir = Sys().fdopendir(topFd);
    if (!dir) {
        Sys().close(topFd);
        KOVA_FAIL(KOVA_ERR_IO);
        return WalkEnd::kFailed;
    }

    std::vector<std::thread> workers;
    for (unsigned i = 0; i < threads_; ++i) workers.emplace_back([this] { Worker(); });

    // Units handed out, in the top folder's order, each with the position
    // after it up to which the entries that followed it are done too.
    struct Pending {
        std::unique_ptr<Unit> unit;
        int64_t after;
    };
    std::deque<Pending> pending;
    int64_t done = resume;
    auto last = std::chrono::steady_clock::now();
    const auto every = std::chrono::milliseconds(tickMs);
    auto advance = [&] {
        while (!pending.empty() && pending.front().unit->pending.load() == 0) {
            done = pending.front().after;
            pending.pop_front();
        }
    };
    auto report = [&] {
        advance();
        progress_.resume = done;
        {
            std::lock_guard<std::mutex> g(m_);
            progress_.current = current_;
        }
        if (!tick(progress_)) {
            stop_.store(true);
            std::lock_guard<std::mutex> g(m_);
            cv_.notify_all();
        }
        last = std::chrono::steady_clock::now();
    };

    Current(top_.path);
    Memo memo;
    while (!stop_.load()) {
        struct dirent64 *ent = Sys().readdir64(dir);
        if (!ent) break;
        const int64_t after = static_cast<int64_t>(ent->d_off);
        if (!Skipped(ent->d_name)) {
            int childFd = -1;
            PassedPtr childPassed;
            Entry(topFd, ent->d_name, *passed, memo, childFd, childPassed);
            if (childFd >= 0) {
                auto unit = std::make_unique<Unit>();
                Item item{childFd, childPassed, top_.path + "/" + ent->d_name, unit.get(), 1};
                pending.push_back({std::move(unit), after});
                // The queue bounds what is handed out; the feeder waits for
                // room, reporting meanwhile.
                while (!Push(item, false)) {
                    if (stop_.load()) break;
                    {
                        std::unique_lock<std::mutex> g(m_);
                        cv_.wait_for(g, std::chrono::milliseconds(20),
                                     [this] { return (queue_.size() < capacity_ && idle_ > 0) || stop_.load(); });
                    }
                    if (std::chrono::steady_clock::now() - last >= every) report();
                }
                if (stop_.load()) {
                    Sys().close(item.fd);
                    break;
                }
                continue;
            }
        }
        if (pending.empty()) done = after;
        else pending.back().after = after;
        if (std::chrono::steady_clock::now() - last >= every) report();
    }
    Sys().closedir(dir);
    {
        std::unique_lock<std::mutex> g(m_);
        feeding_ = false;
        cv_.notify_all();
    }
    // Until every unit is done (or the walk is stopped), reporting.
    for (;;) {
        advance();
        if (pending.empty() || stop_.load()) break;
        {
            std::unique_lock<std::mutex> g(m_);
            cv_.wait_for(g, std::chrono::milliseconds(20));
        }
        if (std::chrono::steady_clock::now() - last >= every) report();
    }
    {
        std::unique_lock<std::mutex> g(m_);
        cv_.notify_all();
    }
    for (std::thread &t : workers) t.join();
    // Items a stop left in the queue hold descriptors.
    for (Item &i : queue_) Sys().close(i.fd);
    queue_.clear();
    advance();
    progress_.resume = done;
    progress_.current = current_;
    return stop_.load() ? WalkEnd::kStopped : WalkEnd::kFinished;
}

} // namespace

WalkEnd PropagateBelow(const Target &top, int64_t resume, unsigned threads, WalkProgress &progress,
                       const std::function<bool(const WalkProgress &)> &tick, unsigned tickMs) {
    Walk w(top, threads, progress);
    return w.Run(resume, tick, tickMs);
}

} // namespace kova_acl
