// A worker process: single-threaded, one request at a time. It reads
// request frames from its channel, runs each with the logged-in user's
// effective ids and groups, answers with the method's response, and goes
// back to root. It exits when the channel closes, or when it could not
// return to root (a handler dropped the saved ids), so the pool replaces it.
//
// Request frame: {"api", "version", "method", "params", "user", "session",
// "remote", "uid", "gid", "groups": [..]}. Reply frame: {"response": the
// response object, "retire": true when the worker exits after this reply}.
#ifndef KOVA_WEBD_WORKER_H
#define KOVA_WEBD_WORKER_H

#include <json/json.h>

#include "logs.h"
#include "module-registry.h"

namespace webd {

// Runs one request frame and returns the response object. Exposed for tests.
Json::Value RunRequest(const ModuleRegistry &registry, const Json::Value &request, Logs &logs);

// The worker's main loop on channel fd; returns the process exit status.
int WorkerMain(int fd, const ModuleRegistry &registry, Logs &logs);

} // namespace webd

#endif
