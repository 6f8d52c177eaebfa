/*
 * The contract between the web-administration server and a request-handling
 * module.
 *
 * A module is a shared library exporting `GetAPITable`, which returns the
 * address of an array of rows ending with an all-zero row. The server calls
 * it once after loading and dispatches each request for (api, version,
 * method) to the row's handler, in a process whose effective ids are the
 * logged-in user's (real and saved ids 0). The handler must set the
 * response (success or error) before it returns and must not throw.
 * A table with a row whose name or handler is NULL before the end row, or
 * a version below 1, is refused by the server.
 */
#ifndef KOVA_MODULE_H
#define KOVA_MODULE_H

namespace KOVA { class APIRequest; class APIResponse; }

typedef void (*KOVA_API_HANDLER)(KOVA::APIRequest *request, KOVA::APIResponse *response);

typedef struct _tag_KOVA_API_ENTRY {
    const char       *szAPI;
    int               version;
    const char       *szMethod;
    KOVA_API_HANDLER  handler;
} KOVA_API_ENTRY;

typedef const KOVA_API_ENTRY *(*KOVA_GET_API_TABLE)(void);

#define KOVA_GET_API_TABLE_SYMBOL "GetAPITable"

#endif
