// The built-in listing API "KOVA.Server.Files" version 1, run in a worker
// as the logged-in user:
//   list_shares            -> {"shares": [{"name", "path" ("/name"), "real_path",
//                              "comment", "privilege" ("ro"|"rw"), "read_only",
//                              (real_path: administrators only)
//                              "support_acl", "acl_enabled"}],
//                              "account": {"name", "is_admin", "groups"}}
//   list_dir {"path": "/share/dir", "offset", "limit" (<= 5000), "filter"}
//                          -> {"path", "real_path", "share", "read_only", "owner",
//                              "group", "mode", "show_real_path", "total",
//                              "unfiltered_total",
//                              "entries": [{"name", "is_dir", "is_link", "path",
//                                           "real_path", "owner", "group", "mode"}]}
//   account {"user"}       -> {"name", "is_admin", "groups"} of any account
//                              (605 when there is no such user)
//   remove_acl {"path": "/share/dir/item"} -> {}: the item's stored rules
//                              are removed and its mode bits decide again
//                              (607 without the right to change them or on
//                              a read-only share below its top folder)
// "real_path" of list_dir (the folder's and each entry's) is sent to
// administrators only.
// Shares are those the user holds a privilege on (administrators: all).
// A folder is listed only when the platform's evaluation of its rules gives
// the user the list right (606 otherwise), and is read with the user's ids.
// Entries: folders first, then files, each in natural order (img-2 before
// img-10); "filter" keeps names containing it (ASCII case ignored) and
// "total" counts what it kept. Owners are {"type", "id", "name"} or null;
// "group" is the owning group of the mode bits and "mode" their octal text
// ("644"), which the editor shows for items without an ACL.
// Hidden attribute folders of the platform are left out.
#ifndef KOVA_WEBD_FILES_API_H
#define KOVA_WEBD_FILES_API_H

#include <vector>

#include "module-registry.h"

namespace webd {

std::vector<Route> FilesRoutes();

// The editor names items by share path and never learns absolute ones: a
// KOVA.Core.ACL call whose params hold "share_paths": true gives its
// "file_path" as "/share/dir/item". SharePathsIn resolves it for the user
// (removing the flag; wanted: whether it was set; 0, or a files error code
// for the reply), and SharePathsOut turns every absolute path under a share in the module's
// reply (the task's "applypath") back into a share path.
constexpr const char *kSharePaths = "share_paths";
int SharePathsIn(const std::string &api, Json::Value &params, const std::string &user, bool &wanted);
void SharePathsOut(Json::Value &reply);

} // namespace webd

#endif
