/*
 * WebAPI framework (libwebapi-PLM5.so): the request and response objects the
 * server hands to module handlers, and background tasks (APIPolling).
 *
 * Contract:
 * - The server owns the request and response; handlers only use them.
 * - A response ends as success (data) or error (code, data); the last call
 *   wins. A task's response writes the task record on every SetSuccess /
 *   SetError, replacing it atomically, so status readers never see a torn
 *   record. A progress record (success data that is an object whose
 *   "finished" member is false) is written at once; a success record (also
 *   the one written when fn returns) only after the work the task's earlier
 *   platform calls left for later is complete (such as following an ACL
 *   change down a folder's tree), so a record a client reads as done
 *   describes work that is done; an error record once that work is handed
 *   on to the platform's own background process, without waiting for it,
 *   so a stopped or failed task ends at once.
 * - APIPolling::Start forks a detached task process running fn(request,
 *   taskResponse, data) and writes {"task_id": id} as success data into the
 *   caller's response. Task ids begin with the prefix set by SetPrefixAttr.
 *   Status/Stop find a task only for the user that started it (or an
 *   administrator); Stop delivers SIGTERM. A task that died without a final
 *   record reads as failed. On failure the calls return false and GetError()
 *   tells why (KOVA_POLLING_ERR_*); the platform's last error is set too.
 * - Bounds: Start refuses (KOVA_POLLING_ERR_BUSY, KOVA_ERR_TASK_LIMIT) when
 *   the user, or everyone together, already runs the most tasks allowed.
 *   Finished records are kept for a retention period, at most a fixed
 *   number per user (the newest); older ones are removed when a task starts.
 * - Stop never signals a process that merely reuses a finished task's pid.
 * - Nothing here throws.
 */
#ifndef KOVA_WEBAPI_H
#define KOVA_WEBAPI_H

#include <string>
#include <json/json.h>

#include "kova/export.h"

KOVA_API_BEGIN

#define KOVA_POLLING_ERR_NONE      0
#define KOVA_POLLING_ERR_BADARG    1
#define KOVA_POLLING_ERR_NOTASK    2   /* no such task, or not the caller's */
#define KOVA_POLLING_ERR_IO        3   /* task record unreadable or unwritable */
#define KOVA_POLLING_ERR_FORK      4
#define KOVA_POLLING_ERR_SIGNAL    5
#define KOVA_POLLING_ERR_BUSY      6   /* too many running tasks (the user's or everyone's) */

namespace KOVA {

class APIRequest {
public:
    /* params: a JSON object of the method's parameters. */
    APIRequest(const Json::Value &params, const std::string &loginUser, const std::string &sessionId);
    ~APIRequest();
    APIRequest(const APIRequest &) = delete;
    APIRequest &operator=(const APIRequest &) = delete;

    bool HasParam(const std::string &name) const;
    Json::Value GetParam(const std::string &name, const Json::Value &defaultValue) const;
    /* A reference into the request's parameters, or to a copy of the
     * default kept by the request when the parameter is absent. */
    const Json::Value &GetParamRef(const std::string &name, const Json::Value &defaultValue) const;
    const Json::Value &GetParams() const;
    std::string GetLoginUserName() const;
    std::string GetSessionID() const;

    /* Server side: the API triple the request was addressed to. */
    void SetMethod(const std::string &api, int version, const std::string &method);
    std::string GetAPIName() const;
    int GetAPIVersion() const;
    std::string GetMethodName() const;

private:
    struct Impl;
    Impl *d_;
};

class APIResponse {
public:
    APIResponse();
    ~APIResponse();
    APIResponse(const APIResponse &) = delete;
    APIResponse &operator=(const APIResponse &) = delete;

    void SetSuccess(const Json::Value &data = Json::Value());
    void SetError(int code, const Json::Value &data = Json::Value());

    bool IsSet() const;          /* SetSuccess or SetError was called */
    bool IsSuccess() const;
    int GetErrorCode() const;    /* 0 after success */
    const Json::Value &GetData() const;       /* success data */
    const Json::Value &GetErrorData() const;  /* error data */
    /* {"success": true, "data": ...} or {"success": false, "error": {"code": N[, "data": ...]}} */
    Json::Value ToJson() const;

    /* Platform side: make every Set* replace the record of task `taskId`
     * atomically (an id that is not a valid task id binds nothing). */
    void BindTaskRecord(const std::string &taskId, const Json::Value &owner);

private:
    struct Impl;
    Impl *d_;
};

class APIPolling {
public:
    typedef void (*TaskFunc)(APIRequest *request, APIResponse *response, void *data);

    explicit APIPolling(APIRequest *request = nullptr);
    ~APIPolling();
    APIPolling(const APIPolling &) = delete;
    APIPolling &operator=(const APIPolling &) = delete;

    void SetRequest(APIRequest *request);
    /* true: the task record is removed once a status read sees it finished. */
    void SetRemoveAttr(bool remove);
    void SetPrefixAttr(const std::string &prefix);

    bool Start(APIResponse *response, TaskFunc fn, void *data);
    /* result: {"success": bool, "data": ..., "error": {"code": N}, "finished": bool, "pid": N} */
    bool Status(const std::string &taskId, Json::Value &result);
    bool Stop(const std::string &taskId, bool signalTask);
    int GetError() const;

private:
    struct Impl;
    Impl *d_;
};

} // namespace KOVA

KOVA_API_END

#endif
