// Whether a task's own sets have rewritten everything below a folder whose
// job it holds (propagation-defer.h), so that the job has nothing left to do.
//
// A task that resets a tree (the module's recursive walk) sets every entry
// below the held folder itself, each projected from the new inheritance.
// This follows those sets, in the task process, as a stack of the folders
// being walked: for each, how many files and folders were set in it, a
// keyed hash sum of their names and inodes (SipHash, a random key per
// process), and which of its sub-folders were set but not yet entered. When the sets
// leave a folder (they go on in one above it, or the task ends), the folder
// is listed once through the descriptor kept for it: the files and folders
// it holds must be exactly those set in it, and each sub-folder set but
// never entered must be empty. Anything else (sets that leave the tree, an
// entry that failed or was skipped, entries added meanwhile, more than
// kMaxCoverageDepth levels or kMaxPendingFolders unentered folders) makes
// the proof fail, and the job then runs as usual. Bounded: one descriptor
// and a few counters per level.
#ifndef KOVA_ACL_WALK_COVERAGE_H
#define KOVA_ACL_WALK_COVERAGE_H

#include "target.h"

#include <cstddef>
#include <cstdint>

namespace kova_acl {

constexpr size_t kMaxCoverageDepth = 64;
constexpr size_t kMaxPendingFolders = 4096;

// Starts following the sets below folder t (judged, stat filled), whose
// job was just held; a proof already under way fails (one at a time).
void CoverageStart(const Target &t);
// A set of t (stat filled) in the task succeeded.
void CoverageNote(const Target &t);
// Ends the proof: true when (dev, ino) is the folder given to CoverageStart
// and every file and folder below it was set since then.
bool CoverageProven(uint64_t dev, uint64_t ino);

} // namespace kova_acl

#endif
