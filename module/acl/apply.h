// The per-path work of the set task: owner change, ACL replacement and the
// recursive walk below a directory, plus the transfer-log record of the
// change and the process-wide stop flag that ends a walk early.
//
// Everything here runs inside the set task's process. The walk is
// pre-order (a directory before its entries), never follows or changes a
// symbolic link, and skips "#recycle" and the platform's hidden attribute
// directories at every depth.
#ifndef KOVA_MODULE_ACL_APPLY_H
#define KOVA_MODULE_ACL_APPLY_H

#include "acl.h"

#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

// Set by the task's SIGTERM handler, read between entries of the walk.
extern volatile sig_atomic_t gSetAclStopRequested;

// What one apply call carries through the whole walk. `acl` is owned by the
// ApplyACLFileProperty call that fills it.
struct ApplyState {
    std::string path;  // the entry being worked on; rewritten for every entry
    bool changeOwner = false;
    KOVA_ACL_ID owner = {0, 0};
    bool ownerRecursive = false;
    bool changeAcl = false;
    PKOVA_ACL acl = nullptr;
    bool aclRecursive = false;
};

// Makes `owner` the owner of `path`, first turning a path without a stored
// ACL into ACL form. 0, or 6200 / 6209 / 6213.
int ChangeOwner(const std::string &path, const KOVA_ACL_ID &owner);

// Walks the tree below state.path (the top directory itself is left
// alone; tree-walk.h says how the walk stays inside it). Returns false when
// an entry cannot be examined, a directory cannot be opened, or a stop was
// requested.
bool ApplyToChildren(ApplyState &state, uint64_t &counter, KOVA::APIResponse *response);

// One "property set" record of the transfer log; failures are only logged.
void AddXferLog(const std::string &userName, const std::string &loggedPath, mode_t mode, off_t size);

#endif
