#include "files-api.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "error-codes.h"
#include "kova/account.h"
#include "kova/acl.h"
#include "kova/fileshare.h"
#include "kova/share.h"
#include "kova/webapi.h"

namespace webd {

namespace {

constexpr unsigned kDefaultLimit = 1000;

// Share records and privileges are platform data that only root reads; the
// worker keeps saved uid 0, so it may look them up as root and return to
// the user before touching the user's files.
class AsRoot {
public:
    AsRoot() : uid_(geteuid()), gid_(getegid()) {
        ok_ = setresuid(-1, 0, -1) == 0 && setresgid(-1, 0, -1) == 0;
    }
    ~AsRoot() {
        if (setresgid(-1, gid_, -1) != 0 || setresuid(-1, uid_, -1) != 0) {
            // Staying root on behalf of a user would be worse than dying:
            // the pool replaces the worker.
            _exit(3);
        }
    }
    AsRoot(const AsRoot &) = delete;
    AsRoot &operator=(const AsRoot &) = delete;
    bool ok() const { return ok_; }

private:
    uid_t uid_;
    gid_t gid_;
    bool ok_;
};

bool IsAdmin(const std::string &user) {
    AsRoot root;
    return root.ok() && KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
}

// KOVA_SHARE_PRIV_* of the user on the share; administrators hold RW.
int Privilege(const std::string &share, const std::string &user, bool admin) {
    if (admin) return KOVA_SHARE_PRIV_RW;
    AsRoot root;
    int priv = KOVA_SHARE_PRIV_NONE;
    if (!root.ok() || KOVASharePrivGet(share.c_str(), user.c_str(), &priv) < 0) return KOVA_SHARE_PRIV_NONE;
    return priv;
}

void ListShares(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    const std::string user = req->GetLoginUserName();
    const bool admin = IsAdmin(user);
    PKLIBC_SZLIST names = KLIBCSzListAlloc(1024);
    if (!names) {
        resp->SetError(kErrUnknown);
        return;
    }
    Json::Value shares(Json::arrayValue);
    int rc;
    {
        AsRoot root;
        rc = root.ok() ? KOVAShareEnum(&names) : -1;
    }
    if (rc < 0) {
        KLIBCSzListFree(names);
        resp->SetError(kErrFilesNoShare);
        return;
    }
    for (int i = 0; i < names->nItem; ++i) {
        const char *name = KLIBCSzListGet(names, i);
        if (!name) continue;
        int priv = Privilege(name, user, admin);
        if (priv != KOVA_SHARE_PRIV_RO && priv != KOVA_SHARE_PRIV_RW) continue;
        PKOVA_SHARE share = nullptr;
        {
            AsRoot root;
            if (KOVAShareGet(name, &share) < 0 || !share) continue;
        }
        Json::Value s(Json::objectValue);
        s["name"] = name;
        s["path"] = std::string("/") + name;
        s["real_path"] = share->szPath;
        s["comment"] = share->szComment;
        s["privilege"] = priv == KOVA_SHARE_PRIV_RW ? "rw" : "ro";
        s["read_only"] = share->isReadOnly != 0;
        s["support_acl"] = share->supportAcl != 0;
        s["acl_enabled"] = share->aclStatus != 0;
        KOVAShareFree(share);
        shares.append(s);
    }
    KLIBCSzListFree(names);
    Json::Value data(Json::objectValue);
    data["shares"] = shares;
    resp->SetSuccess(data);
}

bool ValidVisiblePath(const std::string &p) {
    if (p.size() < 2 || p[0] != '/' || p.find('\0') != std::string::npos) return false;
    size_t start = 1;
    while (start <= p.size()) {
        size_t end = p.find('/', start);
        if (end == std::string::npos) end = p.size();
        std::string part = p.substr(start, end - start);
        if (part == "." || part == "..") return false;
        if (part.empty() && end != p.size()) return false;  // "//"
        start = end + 1;
    }
    return true;
}

struct Entry {
    std::string name;
    bool isDir;
    bool isLink;
};

void ListDir(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    const Json::Value &pathV = req->GetParamRef("path", Json::Value());
    const Json::Value &offV = req->GetParamRef("offset", Json::Value(0));
    const Json::Value &limV = req->GetParamRef("limit", Json::Value(kDefaultLimit));
    if (!pathV.isString() || !offV.isUInt() || !limV.isUInt()) {
        resp->SetError(kErrFilesBadParam);
        return;
    }
    std::string visible = pathV.asString();
    while (visible.size() > 1 && visible.back() == '/') visible.pop_back();
    if (!ValidVisiblePath(visible)) {
        resp->SetError(kErrFilesBadPath);
        return;
    }
    const std::string user = req->GetLoginUserName();
    std::string realPath, shareName, shareRoot, allowed;
    int rc;
    {
        AsRoot root;
        PanoraFileShare fs;
        rc = fs.WfmFullPathGet(visible, realPath, shareName, shareRoot, allowed, user);
    }
    if (rc != 0) {
        resp->SetError(kErrFilesNoFolder);
        return;
    }
    const std::string topShare = visible.substr(1, visible.find('/', 1) == std::string::npos
                                                      ? std::string::npos
                                                      : visible.find('/', 1) - 1);
    int priv = Privilege(topShare, user, IsAdmin(user));
    if (priv != KOVA_SHARE_PRIV_RO && priv != KOVA_SHARE_PRIV_RW) {
        resp->SetError(kErrFilesNoPrivilege);
        return;
    }
    // From here on the user's own ids decide what can be read.
    struct stat st;
    if (lstat(realPath.c_str(), &st) != 0) {
        resp->SetError(kErrFilesNoFolder);
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        resp->SetError(kErrFilesNotFolder);
        return;
    }
    DIR *d = opendir(realPath.c_str());
    if (!d) {
        resp->SetError(kErrFilesNoFolder);
        return;
    }
    std::vector<Entry> entries;
    while (struct dirent *e = readdir(d)) {
        std::string n = e->d_name;
        if (n == "." || n == ".." || KOVAEAIsHiddenDir(n.c_str())) continue;
        struct stat es;
        if (fstatat(dirfd(d), n.c_str(), &es, AT_SYMLINK_NOFOLLOW) != 0) continue;
        entries.push_back({n, S_ISDIR(es.st_mode), S_ISLNK(es.st_mode)});
    }
    closedir(d);
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        if (a.isDir != b.isDir) return a.isDir;
        return a.name < b.name;
    });
    const size_t offset = offV.asUInt();
    const size_t limit = limV.asUInt();
    Json::Value list(Json::arrayValue);
    for (size_t i = offset; i < entries.size() && i - offset < limit; ++i) {
        Json::Value item(Json::objectValue);
        item["name"] = entries[i].name;
        item["is_dir"] = entries[i].isDir;
        item["is_link"] = entries[i].isLink;
        item["path"] = visible + "/" + entries[i].name;
        item["real_path"] = realPath + "/" + entries[i].name;
        list.append(item);
    }
    Json::Value data(Json::objectValue);
    data["path"] = visible;
    data["real_path"] = realPath;
    data["share"] = shareName;
    data["read_only"] = !allowed.empty();
    data["total"] = static_cast<Json::UInt64>(entries.size());
    data["entries"] = list;
    resp->SetSuccess(data);
}

} // namespace

std::vector<Route> FilesRoutes() {
    std::vector<Route> r(2);
    r[0].api = r[1].api = "KOVA.Server.Files";
    r[0].version = r[1].version = 1;
    r[0].method = "list_shares";
    r[0].handler = ListShares;
    r[1].method = "list_dir";
    r[1].handler = ListDir;
    r[0].origin = r[1].origin = "built-in";
    return r;
}

} // namespace webd
