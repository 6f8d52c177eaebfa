// Error codes the server itself answers with. Module methods use their own
// codes; these are chosen so they never collide with the ACL module's
// (117, 402, 403, 1415, 2617, 3302, 4203, 62xx).
#ifndef KOVA_WEBD_ERROR_CODES_H
#define KOVA_WEBD_ERROR_CODES_H

namespace webd {

enum ErrorCode {
    kErrUnknown          = 100,  // handler returned without setting a response
    kErrBadRequest       = 101,  // api/version/method missing or of the wrong type
    kErrNoSuchAPI        = 102,
    kErrNoSuchMethod     = 103,
    kErrBadVersion       = 104,  // API exists, not in this version
    kErrNotAuthenticated = 119,  // no session, or an expired one
    kErrBadToken         = 120,  // X-Kova-Token missing or wrong (request forgery refused)
    kErrLoginFailed      = 150,  // wrong account or password, or disabled account
    kErrLoginThrottled   = 151,  // too many failed sign-ins; HTTP 429 with Retry-After
    kErrWorkerFailed     = 160,  // the worker died or misbehaved; HTTP 500
    kErrServerBusy       = 161,  // no worker could be started
    // KOVA.Server.Files
    kErrFilesBadPath     = 600,  // not a "/share/dir" path
    kErrFilesNoShare     = 601,
    kErrFilesNoPrivilege = 602,  // no privilege on the share
    kErrFilesNoFolder    = 603,  // does not exist, or not readable by the user
    kErrFilesNotFolder   = 604,
};

} // namespace webd

#endif
