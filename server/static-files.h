// The browser UI as static files: GET or HEAD of a path below the UI
// folder, "/" meaning index.html. A path with an empty, "." or ".." part, a
// NUL or a backslash is not found, and no symbolic link is followed, so
// nothing outside the folder is ever read. Files over 4 MiB are not served.
#ifndef KOVA_WEBD_STATIC_FILES_H
#define KOVA_WEBD_STATIC_FILES_H

#include <string>

#include "http-message.h"

namespace webd {

class StaticFiles {
public:
    // dir "" serves nothing. Opens the folder now; ok() tells whether it could.
    explicit StaticFiles(const std::string &dir);
    ~StaticFiles();
    StaticFiles(const StaticFiles &) = delete;
    StaticFiles &operator=(const StaticFiles &) = delete;
    bool ok() const { return dirFd_ >= 0; }

    // Fills status (200, 404, 405), Content-Type and body for the decoded path.
    void Serve(const std::string &method, const std::string &path, HttpReply &reply) const;

private:
    int dirFd_ = -1;
};

} // namespace webd

#endif
