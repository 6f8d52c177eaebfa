// The built-in listing API "KOVA.Server.Files" version 1, run in a worker
// as the logged-in user:
//   list_shares            -> {"shares": [{"name", "path" ("/name"), "real_path",
//                              "comment", "privilege" ("ro"|"rw"), "read_only",
//                              "support_acl", "acl_enabled"}]}
//   list_dir {"path": "/share/dir", "offset", "limit"}
//                          -> {"path", "real_path", "share", "total",
//                              "entries": [{"name", "is_dir", "is_link", "path", "real_path"}]}
// Shares are those the user holds a privilege on (administrators: all).
// Folders are read with the user's own ids, so file permissions apply too.
// Entries: folders first, then files, each by name; hidden attribute folders
// of the platform are left out.
#ifndef KOVA_WEBD_FILES_API_H
#define KOVA_WEBD_FILES_API_H

#include <vector>

#include "module-registry.h"

namespace webd {

std::vector<Route> FilesRoutes();

} // namespace webd

#endif
