// The walk of one propagation: rewrites the projections below a folder whose
// passed-down entries changed, on several threads.
//
// Only entries that hold a record and inherit are rewritten and descended
// into (below any other, nothing depends on the folder), as in refresh.h.
// What a folder passes to its children is computed once per folder from
// its own complete ACL and handed down the walk, so an entry costs its
// lstat, one record read, the attribute writes and one record read to
// check that no set replaced the record meanwhile (a changed record is
// projected again).
//
// Descriptors only (descriptor-walk.h). A thread hands a folder to an idle
// one through a bounded queue, else walks it itself, up to kWalkDepth
// levels: descriptors and memory are bounded by threads x depth + queue.
//
// Resuming: the top folder's children are units of work; the position
// (readdir cookie) before which every unit is done is published as the
// resume point, and a walk started from it skips what lies before.
#ifndef KOVA_ACL_PROPAGATION_WALK_H
#define KOVA_ACL_PROPAGATION_WALK_H

#include "descriptor-walk.h"
#include "target.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace kova_acl {

constexpr unsigned kWalkDepth = 256;

struct WalkProgress {
    std::atomic<uint64_t> visited{0};
    std::atomic<uint64_t> rewritten{0};
    std::atomic<uint64_t> failed{0};
    std::atomic<uint64_t> beyondDepth{0};
    int64_t resume = 0;     // only read in the tick callback
    std::string current;    // idem
};

// top: judged folder (stat filled), in a share. Needs root. `tick` is called
// on the calling thread about every `tickMs` with the progress so far; it
// returns false to stop the walk (the walk then ends as soon as every
// thread has finished its entry). threads: worker threads (at least 1).
// checkFirst: write only the kernel ACLs that differ (WriteProjection).
WalkEnd PropagateBelow(const Target &top, int64_t resume, unsigned threads, WalkProgress &progress,
                       const std::function<bool(const WalkProgress &)> &tick, unsigned tickMs = 250,
                       bool checkFirst = false);

} // namespace kova_acl

#endif
