// status and stop: thin views of the set task through the polling facility,
// which alone knows the task and lets only its owner (or an administrator)
// reach it.
#include "acl.h"

#include "module-log.h"

#include "kova/klibc.h"
#include "kova/webapi.h"

#include <string>

namespace {

const char kLogFile[] = "acl";
enum : int {
    kLineStatus = 940,
    kLineStopEnter = 965,
    kLineStopLeave = 967,
    kLineStop = 970,
};

} // namespace

void ACLHandler::Status() {
    const std::string taskId = request_->GetParam("task_id", Json::Value()).asString();
    KOVA::APIPolling polling(request_);
    if (taskId.empty()) {
        response_->SetError(403, Json::Value());
        return;
    }
    Json::Value result;
    if (!polling.Status(taskId, result)) {
        KOVA_LOG(LOG_ERR, kLogFile, kLineStatus, "Internal error task_id=%s", taskId.c_str());
        response_->SetError(117, Json::Value(polling.GetError()));
        return;
    }
    if (result["success"].asBool()) {
        response_->SetSuccess(result["data"]);
        return;
    }
    // The task's own failure is the method's answer.
    response_->SetError(result["error"]["code"].asInt(), Json::Value());
}

void ACLHandler::Stop() {
    const std::string taskId = request_->GetParam("task_id", Json::Value()).asString();
    KOVA::APIPolling polling(request_);
    if (taskId.empty()) {
        error_ = 403;
        response_->SetError(403, Json::Value());
        return;
    }
    CriticalSection section;
    ENTERCriticalSection(section, kLineStopEnter);
    const bool stopped = polling.Stop(taskId, true);
    LEAVECriticalSection(section, kLineStopLeave);
    if (stopped) {
        response_->SetSuccess(Json::Value());
        return;
    }
    const char *errFile = KLIBCErrorGetFile();
    KOVA_LOG(LOG_ERR, kLogFile, kLineStop, "Failed to stop '%s' [0x%04X %s:%d]", taskId.c_str(), KLIBCErrGet(),
             errFile ? errFile : "", KLIBCErrorGetLine());
    response_->SetError(error_, Json::Value());
}
