// Task records: one JSON file per background task under
// <root>/var/run/tasks (root-owned, mode 0700). Writers replace a record
// atomically (temporary file in the same directory, rename), so a reader
// sees either the old or the new record, never a mix. Only a finished
// record is flushed to disk before the rename (see WriteRecord). Every call
// here acts as root for its duration and restores the caller's ids.
#ifndef KOVA_WEBAPI_TASK_RECORD_H
#define KOVA_WEBAPI_TASK_RECORD_H

#include <json/json.h>

#include <string>

namespace kova_webapi {

// The task directory, created (with parents) and made root-owned 0700 when
// needed. Empty on failure (last error set).
std::string TaskDir();
// A task id is a file name in the task directory: no '/', no leading '.'.
bool IsValidTaskId(const std::string &id);
std::string RecordPath(const std::string &dir, const std::string &id);

// Writes the record; false with the last error set on failure, the old
// record (if any) untouched. A record whose "finished" is true is fsynced
// before it replaces the old one; progress records are not.
bool WriteRecord(const std::string &path, const Json::Value &record);
// 1 read, 0 no such record, -1 unreadable or not a JSON object (last error set).
int ReadRecord(const std::string &path, Json::Value &record);
bool RemoveRecord(const std::string &path);

} // namespace kova_webapi

#endif
