// The propagation walk (see propagation-walk.h).
#include "propagation-walk.h"

#include "acl-record.h"
#include "acl-store.h"
#include "descriptor-walk.h"
#include "entry-attr.h"
#include "inherit.h"
#include "kernel-acl.h"
#include "projection.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"


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

// A folder handed to a worker, with the unit it belongs to.
struct Item {
    WalkFolder folder;
    Unit *unit = nullptr;
};

class Walk {
public:
    Walk(const Target &top, unsigned threads, WalkProgress &progress, bool checkFirst)
        : top_(top), dev_(top.st.st_dev), threads_(threads ? threads : 1), capacity_(4 * threads_),
          progress_(progress), checkFirst_(checkFirst) {}

    WalkEnd Run(int64_t resume, const std::function<bool(const WalkProgress &)> &tick, unsigned tickMs);

private:
    // Rewrites one entry; true for a folder to walk, whose children get
    // e.childData.
    bool Entry(WalkEntry &e, Memo &memo);
    // The hooks every walk of this propagation shares.
    void Hook(DescriptorWalk &w);
    void Folder(Item item);
    void Worker();
    bool Push(Item &item);
    void Finished(Unit *unit);
    void Current(const std::string &path);

    const Target &top_;
    const dev_t dev_;
    const unsigned threads_;
    const size_t capacity_;
    WalkProgress &progress_;
    const bool checkFirst_;
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

bool Walk::Entry(WalkEntry &e, Memo &memo) {
    progress_.visited.fetch_add(1, std::memory_order_relaxed);
    const Passed &passed = *static_cast<const Passed *>(e.folder->data.get());
    const int dirFd = e.dirFd;
    const char *name = e.name;
    // The walk's hot path: no path string, nothing but what the writes use.
    Target t;
    t.parent = OwnedFd::Borrowed(dirFd);
    t.name = name;
    t.st = e.st;
    t.hasStat = true;
    char raw[kMaxRecordSize + 1];
    ssize_t n = GetEntryAttr(dirFd, name, kAttrName, raw, sizeof raw);
    std::vector<Ace> complete;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (n < 0) {
            if (errno != ENODATA && errno != ENOENT) progress_.failed.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        StoredAcl own;
        if (!DecodeRecord(raw, static_cast<size_t>(n), own)) {
            progress_.failed.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        if (!own.inherits) return false;
        // A share root inherits nothing, whatever its flag says.
        bool shareRoot = false;
        if (t.IsDir())
            for (const auto &r : shareRoots_) shareRoot = shareRoot || (r.first == t.st.st_dev && r.second == t.st.st_ino);
        const std::vector<Ace> &inherited = t.IsDir() ? passed.toDir : passed.toFile;
        complete = std::move(own.entries);
        if (!shareRoot) complete.insert(complete.end(), inherited.begin(), inherited.end());
        const OwnerId owner = ProjectionOwner(own, t.st);
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
        if (!WriteProjection(t, t.IsDir() ? p : memo.p, checkFirst_)) {
            progress_.failed.fetch_add(1, std::memory_order_relaxed);
            return false;
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
            return false;
        }
    }
    progress_.rewritten.fetch_add(1, std::memory_order_relaxed);
    if (t.IsDir()) e.childData = PassedOf(complete);
    return t.IsDir();
}

bool Walk::Push(Item &item) {
    std::lock_guard<std::mutex> g(m_);
    // Only handed on when someone is free to take it; else its finder walks it.
    if (stop_.load() || queue_.size() >= capacity_ || idle_ == 0) return false;
    queue_.push_back(std::move(item));
    cv_.notify_all();
    return true;
}

void Walk::Finished(Unit *unit) {
    if (unit->pending.fetch_sub(1) != 1) return;
    std::lock_guard<std::mutex> g(m_);
    cv_.notify_all();
}

void Walk::Hook(DescriptorWalk &w) {
    w.stopped = [this] { return stop_.load(std::memory_order_relaxed); };
    w.entered = [this](const std::string &path) { Current(path); };
    w.failed = [this] { progress_.failed.fetch_add(1, std::memory_order_relaxed); };
    w.beyondDepth = [this] { progress_.beyondDepth.fetch_add(1, std::memory_order_relaxed); };
}

void Walk::Folder(Item item) {
    Unit *unit = item.unit;
    Memo memo;
    DescriptorWalk w(dev_, kWalkDepth);
    Hook(w);
    w.visit = [&](WalkEntry &e) { return Entry(e, memo); };
    // Handed on only when another thread is idle; else walked here.
    w.handOff = [&](WalkFolder &f) {
        Item child{std::move(f), unit};
        unit->pending.fetch_add(1);
        if (Push(child)) return true;
        unit->pending.fetch_sub(1);
        f = std::move(child.folder);
        return false;
    };
    // A stopped unit stays unfinished: a resumed walk does it again.
    if (w.Walk(std::move(item.folder)) == WalkEnd::kFinished) Finished(unit);
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
    WalkFolder topFolder;
    if (!DescriptorWalk::OpenTop(top_, topFolder) ||
        (resume != 0 && Sys().lseek(dirfd(topFolder.dir.get()), static_cast<off_t>(resume), SEEK_SET) < 0)) {
        KOVA_FAIL(KOVA_ERR_NOENT);
        return WalkEnd::kFailed;
    }
    topFolder.data = passed;

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
    auto tickDue = [&] {
        if (std::chrono::steady_clock::now() - last >= every) report();
    };
    // Waits a little for the workers (until `ready`), then reports if due.
    auto pause = [&](const std::function<bool()> &ready) {
        {
            std::unique_lock<std::mutex> g(m_);
            cv_.wait_for(g, std::chrono::milliseconds(20), ready);
        }
        tickDue();
    };

    // The top folder's children are fed to the workers, each folder among
    // them a unit of its own.
    Memo memo;
    int64_t unitAfter = 0;
    DescriptorWalk feed(dev_, kWalkDepth);
    Hook(feed);
    feed.stopped = [&] {
        tickDue();
        return stop_.load();
    };
    feed.visit = [&](WalkEntry &e) {
        const bool enter = Entry(e, memo);
        if (enter) unitAfter = e.after;
        else if (pending.empty()) done = e.after;
        else pending.back().after = e.after;
        return enter;
    };
    // The queue bounds what is handed out; the feeder waits for room,
    // reporting meanwhile. A stop drops the folder (and its descriptor).
    feed.handOff = [&](WalkFolder &f) {
        auto unit = std::make_unique<Unit>();
        Item item{std::move(f), unit.get()};
        pending.push_back({std::move(unit), unitAfter});
        while (!Push(item) && !stop_.load())
            pause([this] { return (queue_.size() < capacity_ && idle_ > 0) || stop_.load(); });
        return true;
    };
    feed.Walk(std::move(topFolder));
    {
        std::unique_lock<std::mutex> g(m_);
        feeding_ = false;
        cv_.notify_all();
    }
    // Until every unit is done (or the walk is stopped), reporting.
    for (advance(); !pending.empty() && !stop_.load(); advance())
        pause([&] { return pending.front().unit->pending.load() == 0 || stop_.load(); });
    {
        std::unique_lock<std::mutex> g(m_);
        cv_.notify_all();
    }
    for (std::thread &t : workers) t.join();
    queue_.clear();  // what a stop left there, descriptors closed
    advance();
    progress_.resume = done;
    progress_.current = current_;
    return stop_.load() ? WalkEnd::kStopped : WalkEnd::kFinished;
}

} // namespace

WalkEnd PropagateBelow(const Target &top, int64_t resume, unsigned threads, WalkProgress &progress,
                       const std::function<bool(const WalkProgress &)> &tick, unsigned tickMs, bool checkFirst) {
    Walk w(top, threads, progress, checkFirst);
    return w.Run(resume, tick, tickMs);
}

} // namespace kova_acl
