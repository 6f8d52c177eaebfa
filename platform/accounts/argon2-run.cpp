#include "argon2-run.h"

#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>

namespace kova_accounts {

namespace {

std::atomic<unsigned long long> gRuns{0};
std::atomic<unsigned> gRunning{0};
std::atomic<unsigned> gPeak{0};

// A POSIX semaphore rather than a mutex and condition: a child forked while
// a parent thread held a slot can simply start it afresh.
struct Gate {
    sem_t slots;
    Gate() {
        sem_init(&slots, 0, kArgon2Slots);
        pthread_atfork(nullptr, nullptr, [] { sem_init(&Instance().slots, 0, kArgon2Slots); });
    }
    static Gate &Instance() {
        static Gate gate;
        return gate;
    }
};

class Slot {
public:
    Slot() : gate_(Gate::Instance()) {
        while (sem_wait(&gate_.slots) != 0 && errno == EINTR) {
        }
        unsigned now = ++gRunning;
        unsigned peak = gPeak.load();
        while (now > peak && !gPeak.compare_exchange_weak(peak, now)) {
        }
    }
    ~Slot() {
        --gRunning;
        sem_post(&gate_.slots);
    }
    Slot(const Slot &) = delete;
    Slot &operator=(const Slot &) = delete;

private:
    Gate &gate_;
};

// Huge pages where the kernel offers them on request: faulting in 19 MiB of
// fresh 4 KiB pages for every run cost about 45% more CPU per check than
// reusing malloc's memory; with huge pages a run costs what it did.
int MapBlocks(uint8_t **memory, size_t bytes) {
    void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
        *memory = nullptr;
        return ARGON2_MEMORY_ALLOCATION_ERROR;
    }
    madvise(p, bytes, MADV_HUGEPAGE);  // advice only: without it the run is slower, not wrong
    *memory = static_cast<uint8_t *>(p);
    return ARGON2_OK;
}

void UnmapBlocks(uint8_t *memory, size_t bytes) { munmap(memory, bytes); }

} // namespace

int RunArgon2id(argon2_context &ctx) {
    ctx.allocate_cbk = MapBlocks;
    ctx.free_cbk = UnmapBlocks;
    Slot slot;
    ++gRuns;
    return argon2id_ctx(&ctx);
}

unsigned long long Argon2Runs() { return gRuns.load(); }

unsigned Argon2PeakRunning() { return gPeak.load(); }

} // namespace kova_accounts
