// The task's kernel ACL writer thread (see kernel-acl-queue.h).
#include "kernel-acl-queue.h"

#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"
#include "kova-internal/task-end.h"

#include <linux/capability.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace kova_acl {

namespace {

using kova_internal::Sys;

struct Item {
    std::shared_ptr<OwnedFd> folder;
    std::string name;
    struct stat st;
    Encoded e;
    EncodedWriter write = nullptr;
};

// The writer is woken once kWakeBatch writes wait (or someone waits for
// them all): one wake-up, and one pair of futex calls, per batch rather
// than per entry.
constexpr size_t kWakeBatch = 64;

struct Writer {
    std::mutex m;
    std::condition_variable work, room, idle;
    std::deque<Item> queue;
    bool sleeping = false;   // the writer waits on `work`
    bool kicked = false;     // a drain asked for everything now
    bool busy = false;       // the writer holds a batch
    bool full = false;       // the walk waits on `room`
    int draining = 0;        // callers waiting on `idle`
    bool failed = false;
};

// Made once in the task process and kept for its life (it ends with
// _exit); a process forked from the task is no task process and never
// touches it.
Writer *gWriter = nullptr;

// The writer's effective capabilities are its own: the main thread's
// raised and dropped uid (glibc changes the ids of every thread) empties
// them, and only the main thread puts its own back. So the writer takes
// back what the task keeps (CAP_FOWNER for other users' entries) when the
// kernel refused a write, and tries again.
bool WriteKeepingCapabilities(const Target &t, const Item &it, uint64_t keep) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (it.write(t, it.e)) return true;
        kova_internal::ThreadCapabilities caps;
        if (keep == 0 || !caps.Read() || (caps.EffectiveMask() & keep) == keep || !caps.KeepOnlyMask(keep) ||
            !caps.Apply())
            return false;
    }
    return false;
}

void Run(Writer *w, uint64_t keep) {
    std::deque<Item> batch;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(w->m);
            w->busy = false;
            if (w->draining > 0 && w->queue.empty()) w->idle.notify_all();
            while (w->queue.empty() || (w->queue.size() < kWakeBatch && !w->kicked && !w->full)) {
                w->sleeping = true;
                w->work.wait(lock);
                w->sleeping = false;
            }
            w->kicked = false;
            batch.swap(w->queue);
            w->busy = true;
            if (w->full) {
                w->full = false;
                w->room.notify_one();
            }
        }
        bool ok = true;
        for (Item &it : batch) {
            Target t;
            t.parent = OwnedFd::Borrowed(it.folder->get());
            t.name = it.name;
            t.st = it.st;
            t.hasStat = true;
            ok = WriteKeepingCapabilities(t, it, keep) && ok;
        }
        batch.clear();
        if (!ok) {
            std::lock_guard<std::mutex> lock(w->m);
            w->failed = true;
        }
    }
}

Writer *StartedWriter() {
    if (gWriter) return gWriter;
    // Kernel ACLs of other users' entries need CAP_FOWNER, which a task
    // keeps (kova/fileshare.h); nothing else is taken back.
    const uint64_t keep = 1ull << CAP_FOWNER;
    std::unique_ptr<Writer> w(new Writer);
    try {
        std::thread(Run, w.get(), keep).detach();
    } catch (...) {
        return nullptr;
    }
    gWriter = w.release();
    return gWriter;
}

// The main thread's own descriptor of its kept folder, shared with the
// queued writes of its entries; a new one for each kept folder.
struct FolderDup {
    uint64_t generation = ~0ull;
    std::shared_ptr<OwnedFd> fd;
};
thread_local FolderDup tFolder;

} // namespace

bool QueueKernelAclWrite(const Target &t, const Encoded &e, EncodedWriter write) {
    uint64_t generation = 0;
    if (!kova_internal::InTaskProcess() || t.name.empty() || !t.hasStat || !IsKeptFolder(t.parent.get(), generation))
        return false;
    Writer *w = StartedWriter();
    if (!w) return false;
    if (tFolder.generation != generation || !tFolder.fd) {
        auto fd = std::make_shared<OwnedFd>(
            Sys().openat(t.parent.get(), ".", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
        if (fd->get() < 0) return false;
        tFolder.fd = std::move(fd);
        tFolder.generation = generation;
    }
    Item it;
    it.folder = tFolder.fd;
    it.name = t.name;
    it.st = t.st;
    it.e = e;
    it.write = write;
    std::unique_lock<std::mutex> lock(w->m);
    while (w->queue.size() >= kMaxQueuedWrites) {
        w->full = true;
        if (w->sleeping) w->work.notify_one();
        w->room.wait(lock);
    }
    w->queue.push_back(std::move(it));
    if (w->sleeping && w->queue.size() >= kWakeBatch) w->work.notify_one();
    return true;
}

void WaitForKernelAclWrites() {
    if (!kova_internal::InTaskProcess() || !gWriter) return;
    Writer *w = gWriter;
    std::unique_lock<std::mutex> lock(w->m);
    if (w->queue.empty() && !w->busy) return;
    ++w->draining;
    w->kicked = true;
    if (w->sleeping) w->work.notify_one();
    w->idle.wait(lock, [w] { return w->queue.empty() && !w->busy; });
    --w->draining;
}

bool KernelAclWriteFailed() {
    if (!kova_internal::InTaskProcess() || !gWriter) return false;
    std::lock_guard<std::mutex> lock(gWriter->m);
    const bool failed = gWriter->failed;
    gWriter->failed = false;
    return failed;
}

} // namespace kova_acl
