// A handler's answer: success with data, or an error code with data. A
// response bound to a task record mirrors every change into that record.
#include "kova/webapi.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/task-end.h"

#include "task-record.h"

#include <memory>

namespace KOVA {

struct APIResponse::Impl {
    bool set = false;
    bool success = false;
    int code = 0;
    Json::Value data;
    Json::Value errorData;
    std::string taskId;       // empty: not a task response
    Json::Value owner;        // fields the task record keeps besides the state
    std::unique_ptr<kova_webapi::RecordDir> records;

    // A progress record: success data saying the work is not finished.
    bool Progress() const {
        return set && success && data.isObject() && data["finished"].isBool() && !data["finished"].asBool();
    }

    void Publish() {
        if (taskId.empty()) return;
        // Anything but progress tells the client what the task did: the work
        // its calls left for later is completed first, or on an error handed
        // on without waiting (kova-internal/task-end.h).
        if (!Progress()) kova_internal::RunTaskEndHooks(success || !set);
        // Opened on first use and kept: a task publishes progress often.
        if (!records) records.reset(new kova_webapi::RecordDir);
        if (!records->IsOpen() && !records->Open()) return;
        Json::Value record = owner.isObject() ? owner : Json::Value(Json::objectValue);
        record["success"] = success || !set;
        record["data"] = success || !set ? data : Json::Value();
        if (set && !success) {
            Json::Value err(Json::objectValue);
            err["code"] = code;
            if (!errorData.isNull()) err["data"] = errorData;
            record["error"] = err;
        }
        record["finished"] = false;
        // Failure already set the last error; the response itself stays as
        // the handler asked.
        (void)records->Write(taskId, record);
    }
};

APIResponse::APIResponse() : d_(new Impl) {}
APIResponse::~APIResponse() { delete d_; }

void APIResponse::SetSuccess(const Json::Value &data) {
    KOVA_FAULT_POINT_VOID("APIResponse::SetSuccess");
    try {
        d_->set = true;
        d_->success = true;
        d_->code = 0;
        d_->data = data;
        d_->errorData = Json::Value();
        d_->Publish();
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
    }
}

void APIResponse::SetError(int code, const Json::Value &data) {
    KOVA_FAULT_POINT_VOID("APIResponse::SetError");
    try {
        d_->set = true;
        d_->success = false;
        d_->code = code;
        d_->data = Json::Value();
        d_->errorData = data;
        d_->Publish();
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
    }
}

// The accessors below are the server's view of the finished exchange and
// are not fault points: a fault there would test the server, not a handler.
bool APIResponse::IsSet() const { return d_->set; }
bool APIResponse::IsSuccess() const { return d_->set && d_->success; }
int APIResponse::GetErrorCode() const { return d_->set && !d_->success ? d_->code : 0; }
const Json::Value &APIResponse::GetData() const { return d_->data; }
const Json::Value &APIResponse::GetErrorData() const { return d_->errorData; }

Json::Value APIResponse::ToJson() const {
    Json::Value out(Json::objectValue);
    try {
        if (!d_->set || d_->success) {
            out["success"] = true;
            out["data"] = d_->data;
        } else {
            out["success"] = false;
            Json::Value err(Json::objectValue);
            err["code"] = d_->code;
            if (!d_->errorData.isNull()) err["data"] = d_->errorData;
            out["error"] = err;
        }
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
    }
    return out;
}

void APIResponse::BindTaskRecord(const std::string &taskId, const Json::Value &owner) {
    KOVA_FAULT_POINT_VOID("APIResponse::BindTaskRecord");
    try {
        if (!kova_webapi::IsValidTaskId(taskId)) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return;
        }
        d_->taskId = taskId;
        d_->records.reset();
        d_->owner = owner;
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
    }
}

} // namespace KOVA
