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
    // Refused by the HTTP side before the request was whole or understood.
    kErrHttpMalformed    = 105,  // not readable as HTTP; HTTP 400
    kErrHttpTooLarge     = 106,  // body over the limit (413), request line (414) or header (431) too long
    kErrHttpTooSlow      = 107,  // header or body not complete within its deadline; HTTP 408
    kErrHttpTooMany      = 108,  // too many connections from this address; HTTP 503
    kErrHttpMethod       = 109,  // /webapi takes GET and POST only; HTTP 405
    kErrJsonTooDeep      = 110,  // JSON nested deeper than the limit; HTTP 400
    kErrNotAuthenticated = 119,  // no session, or an expired one
    kErrBadToken         = 120,  // X-Kova-Token missing or wrong (request forgery refused)
    kErrLoginFailed      = 150,  // wrong account or password, or disabled account
    kErrLoginThrottled   = 151,  // too many failed sign-ins; HTTP 429 with Retry-After
    kErrLoginBusy        = 152,  // too many sign-ins in progress; HTTP 503 with Retry-After: 1
    kErrLoginNoDirectory = 153,  // the account's directory cannot be reached (a cache-only domain)
    kErrWorkerFailed     = 160,  // the worker died or misbehaved; HTTP 500
    kErrServerBusy       = 161,  // no worker could be started, or no room for another request body; HTTP 503
    // KOVA.Server.Files
    kErrFilesBadPath     = 600,  // not a "/share/dir" path
    kErrFilesNoShare     = 601,
    kErrFilesNoPrivilege = 602,  // no privilege on the share
    kErrFilesNoFolder    = 603,  // does not exist, or not readable by the user
    kErrFilesNotFolder   = 604,
    kErrFilesBadParam    = 605,  // a parameter is missing or of the wrong type
    kErrFilesNoListRight = 606,  // the folder's rules do not let the user list it
    kErrFilesNoChange    = 607,  // remove_acl: no right to change the item's rules, or a read-only share
    kErrFilesNotRemoved  = 608,  // remove_acl: the rules could not be removed
};

} // namespace webd

#endif
