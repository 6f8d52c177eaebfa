// Task records: one JSON file per background task in <root>/var/run/tasks
// (root-owned, mode 0700). The folder is opened once through descriptors
// from the platform root, and every record is read, replaced and removed
// relative to that descriptor (no path string is ever built from a task
// id). Writers replace a record atomically (temporary file in the same
// folder, renameat), so a reader sees the old or the new record, never a
// mix. Only a finished record is flushed to disk before the rename. Every
// call acts as root for its duration and restores the caller's ids.
#ifndef KOVA_WEBAPI_TASK_RECORD_H
#define KOVA_WEBAPI_TASK_RECORD_H

#include "kova-internal/owned-fd.h"

#include <json/json.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace kova_webapi {

// A task id names a record: 1 to 128 characters out of [A-Za-z0-9_-]. It
// can therefore never name a temporary file, the lock file, a parent or a
// path, and holds no NUL or control byte.
bool IsValidTaskId(const std::string &id);

class RecordDir {
public:
    // Opens the folder, creating missing folders on the way; the folder is
    // brought back to root ownership and mode 0700. false, last error set.
    bool Open();
    bool IsOpen() const { return fd_.get() >= 0; }
    int fd() const { return fd_.get(); }

    // Replaces the record; false with the last error set, the old record
    // (if any) untouched. A finished record is fsynced (and the folder
    // after the rename) before it counts as written.
    bool Write(const std::string &id, const Json::Value &record) const;
    // 1 read, 0 no such record, -1 unreadable, not a regular file or not a
    // JSON object (last error set). `st`, when given, gets the file's stat.
    int Read(const std::string &id, Json::Value &record, struct stat *st = nullptr) const;
    // Removing a record that is already gone succeeds.
    bool Remove(const std::string &id) const;
    // Every entry name of the folder except "." and "..".
    bool List(std::vector<std::string> &names) const;

private:
    kova_internal::OwnedFd fd_;
};

} // namespace kova_webapi

#endif
