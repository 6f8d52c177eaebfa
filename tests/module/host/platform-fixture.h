// A fresh platform root for module tests (alive as long as the object, with
// $KOVA_ROOT pointing to it), filled through the platform's own calls or,
// for directory services, kova-admin. Helpers return false (or "") on failure
// with the reason in lastError(); none throws.
#ifndef KOVA_TEST_PLATFORM_FIXTURE_H
#define KOVA_TEST_PLATFORM_FIXTURE_H

#include "temp-root.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace kova_host {

class PlatformRoot {
public:
    // Creates the root: kova-admin init when the tool is built, otherwise
    // the directories the platform needs (etc, volumes/volume1, var/run/tasks).
    PlatformRoot();
    PlatformRoot(const PlatformRoot &) = delete;
    PlatformRoot &operator=(const PlatformRoot &) = delete;

    const std::string &path() const { return root_.path(); }
    std::string At(const std::string &rel) const { return root_.At(rel); }
    const std::string &lastError() const { return error_; }

    // Runs kova-admin --root <root> args...; returns its exit status (-1 when
    // it could not run) and, when asked, its standard output and error.
    int Admin(const std::vector<std::string> &args, std::string *output = nullptr);

    // Accounts (KOVAUserAdd / KOVAGroupAdd / KOVAGroupMemberAdd). uid/gid -1
    // picks the next free one.
    bool AddUser(const std::string &name, int uid = -1, bool internal = false, const std::string &password = "Passw0rd!");
    bool AddGroup(const std::string &name, int gid = -1);
    bool AddMember(const std::string &group, const std::string &user);
    bool MakeAdmin(const std::string &user) { return AddMember("administrators", user); }
    bool DeleteUser(const std::string &name);
    bool DeleteGroup(const std::string &name);
    // Ids by name; -1 when unknown.
    int Uid(const std::string &user) const;
    int Gid(const std::string &group) const;

    // Windows-domain state (through the directory-service administration
    // calls): flags "joined", "trusted", "reachable", "own-dc"; domains are
    // listed in the order added, the first being the joined one.
    bool SetDomainFlag(const std::string &flag, bool value);
    bool AddDomain(const std::string &name);
    bool AddOu(const std::string &name, const std::string &detail);

    // A share whose root is <root>/volumes/volume1/<name> (created, mode
    // 0777 so every test user can work in it); returns the share's path or "".
    std::string AddShare(const std::string &name, bool readOnly = false, bool supportAcl = true);

    // Files and folders owned by uid:gid with the given mode (parents are
    // created by root with mode 0755).
    bool MakeDir(const std::string &path, mode_t mode = 0755, uid_t uid = 0, gid_t gid = 0);
    bool MakeFile(const std::string &path, const std::string &content = "", mode_t mode = 0644, uid_t uid = 0,
                  gid_t gid = 0);

    // Stores an ACL on a path through the ACL library, as root. Entries are
    // "type:name:allow|deny:<13 permission letters>:<4 inherit letters>";
    // for everyone/owner/authenticated_user/system the name is ignored;
    // "#N" as the name of a user or group gives the raw id N (e.g. of a
    // deleted account).
    bool SetAcl(const std::string &path, const std::vector<std::string> &entries, bool inheritFromParent = true);

private:
    bool Fail(const std::string &what);

    kova_test::TempRoot root_;
    std::string error_;
};

} // namespace kova_host

#endif
