#include "files-api.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>
#include <memory>

#include "error-codes.h"
#include "kova-internal/identity.h"
#include "kova-internal/paths.h"
#include "text-check.h"
#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/acl.h"
#include "kova/fileshare.h"
#include "kova/share.h"
#include "kova/webapi.h"

namespace webd {

namespace {

constexpr unsigned kDefaultLimit = 1000;
constexpr unsigned kMaxLimit = 5000;    // one reply stays small whatever is asked
constexpr size_t kMaxFilter = 255;

// Share records and privileges are platform data that only root reads; the
// worker keeps saved uid 0, so it looks them up in a RootScope and is the
// user again before it touches the user's files.
using kova_internal::RootScope;

bool IsAdmin(const std::string &user) {
    RootScope root;
    return root.ok() && KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
}

// KOVA_SHARE_PRIV_* of the user on the share; administrators hold RW.
int Privilege(const std::string &share, const std::string &user, bool admin) {
    if (admin) return KOVA_SHARE_PRIV_RW;
    RootScope root;
    int priv = KOVA_SHARE_PRIV_NONE;
    if (!root.ok() || KOVASharePrivGet(share.c_str(), user.c_str(), &priv) < 0) return KOVA_SHARE_PRIV_NONE;
    return priv;
}

// Who is signed in, as the editor needs it to warn before the user takes
// rights away from herself: name, administrator status and group names.
Json::Value Account(const std::string &user, bool admin) {
    Json::Value a(Json::objectValue);
    a["name"] = user;
    a["is_admin"] = admin;
    Json::Value groups(Json::arrayValue);
    RootScope root;
    PKLIBC_SZLIST gids = root.ok() ? KLIBGroupInfoListGet(user.c_str(), 0) : nullptr;
    for (int i = 0; gids && i < gids->nItem; ++i) {
        const char *g = KLIBCSzListGet(gids, i);
        PKOVA_GROUP group = nullptr;
        if (!g || KOVAGroupGetByGID(static_cast<unsigned>(std::strtoul(g, nullptr, 10)), &group) < 0 || !group) continue;
        if (group->szName) groups.append(WellFormedUtf8(group->szName));
        KOVAGroupFree(group);
    }
    if (gids) KLIBCSzListFree(gids);
    a["groups"] = groups;
    return a;
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
        RootScope root;
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
            RootScope root;
            if (KOVAShareGet(name, &share) < 0 || !share) continue;
        }
        Json::Value s(Json::objectValue);
        s["name"] = name;
        s["path"] = std::string("/") + name;
        if (admin) s["real_path"] = share->szPath;
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
    data["account"] = Account(user, admin);
    resp->SetSuccess(data);
}

// The groups of any account, for the editor's explanation of effective
// access (which group rule applies to whom). Group membership is no secret
// from a signed-in user: the principal search shows the same accounts.
void AccountOf(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    const Json::Value &nameV = req->GetParamRef("user", Json::Value());
    if (!nameV.isString() || nameV.asString().empty() || !IsCleanText(nameV.asString()) ||
        nameV.asString().size() > kMaxFilter) {
        resp->SetError(kErrFilesBadParam);
        return;
    }
    const std::string name = nameV.asString();
    int uid = -1, gid = -1;
    {
        RootScope root;
        if (!root.ok() || KOVAUserGetUGID(name.c_str(), &uid, &gid) < 0 || uid < 0) {
            resp->SetError(kErrFilesBadParam);
            return;
        }
    }
    resp->SetSuccess(Account(name, IsAdmin(name)));
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
    mode_t mode;
    gid_t gid;
};

// Names as a person sorts them: runs of digits by their value, so img-2
// comes before img-10; letters without regard to case, then bytewise so
// the order is total.
bool NaturalLess(const std::string &a, const std::string &b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        const unsigned char ca = a[i], cb = b[j];
        if (std::isdigit(ca) && std::isdigit(cb)) {
            size_t ei = i, ej = j;
            while (ei < a.size() && std::isdigit(static_cast<unsigned char>(a[ei]))) ++ei;
            while (ej < b.size() && std::isdigit(static_cast<unsigned char>(b[ej]))) ++ej;
            size_t zi = i, zj = j;  // leading zeros do not change the value
            while (zi + 1 < ei && a[zi] == '0') ++zi;
            while (zj + 1 < ej && b[zj] == '0') ++zj;
            if (ei - zi != ej - zj) return ei - zi < ej - zj;
            const int c = a.compare(zi, ei - zi, b, zj, ej - zj);
            if (c != 0) return c < 0;
            i = ei;
            j = ej;
            continue;
        }
        const int la = std::tolower(ca), lb = std::tolower(cb);
        if (la != lb) return la < lb;
        ++i;
        ++j;
    }
    if (i < a.size() || j < b.size()) return j < b.size();
    return a < b;
}

// Case-insensitive (ASCII) substring match for the listing's filter.
bool Matches(const std::string &name, const std::string &filter) {
    if (filter.empty()) return true;
    auto it = std::search(name.begin(), name.end(), filter.begin(), filter.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
    return it != name.end();
}

// Owner names already looked up in this call, by (group?, id): a page of
// entries mostly shares a few owners.
using OwnerNames = std::map<std::pair<bool, int>, std::string>;

// {"type": "user"|"group", "id", "name"} of the path's owner, or null when
// it cannot be read. Account names are platform data read as root.
Json::Value OwnerOf(const std::string &path, OwnerNames &known) {
    KOVA_ACL_ID id = {0, 0};
    if (KOVAACLOwnerIdGet(path.c_str(), &id) != 0) return Json::Value();
    Json::Value o(Json::objectValue);
    const auto key = std::make_pair(id.idType == KOVA_ACL_ID_GROUP, id.id);
    auto hit = known.find(key);
    std::string name = hit == known.end() ? std::string() : hit->second;
    if (hit == known.end()) {
        RootScope root;
        if (!root.ok()) return Json::Value();
        if (id.idType == KOVA_ACL_ID_GROUP) {
            PKOVA_GROUP g = nullptr;
            if (KOVAGroupGetByGID(static_cast<unsigned>(id.id), &g) >= 0 && g) {
                name = g->szName ? g->szName : "";
                KOVAGroupFree(g);
            }
        } else {
            PKOVA_USER u = nullptr;
            if (KOVAUserGetByUID(static_cast<unsigned>(id.id), &u) == 0 && u) {
                name = u->szName ? u->szName : "";
                KOVAUserFree(u);
            }
        }
    }
    o["type"] = id.idType == KOVA_ACL_ID_GROUP ? "group" : "user";
    o["id"] = id.id;
    // Root is no platform account, but is a common owner of what the
    // system itself created.
    if (name.empty() && id.id == 0) name = "root";
    if (name.empty()) name = std::to_string(id.id);
    known[key] = name;
    o["name"] = WellFormedUtf8(name);
    return o;
}

// {"type": "group", "id", "name"} of a group id, for the group entry of
// mode bits ("root" for gid 0, the number when it has no name).
Json::Value GroupOf(gid_t gid, OwnerNames &known) {
    const auto key = std::make_pair(true, static_cast<int>(gid));
    auto hit = known.find(key);
    std::string name = hit == known.end() ? std::string() : hit->second;
    if (hit == known.end()) {
        RootScope root;
        PKOVA_GROUP g = nullptr;
        if (root.ok() && KOVAGroupGetByGID(static_cast<unsigned>(gid), &g) >= 0 && g) {
            name = g->szName ? g->szName : "";
            KOVAGroupFree(g);
        }
        if (name.empty()) name = gid == 0 ? "root" : std::to_string(gid);
        known[key] = name;
    }
    Json::Value o(Json::objectValue);
    o["type"] = "group";
    o["id"] = static_cast<Json::UInt>(gid);
    o["name"] = WellFormedUtf8(name);
    return o;
}

// The permission bits as three octal digits ("644").
std::string ModeText(mode_t mode) {
    char buf[8];
    snprintf(buf, sizeof buf, "%03o", static_cast<unsigned>(mode & 0777));
    return buf;
}

struct DirCloser {
    void operator()(DIR *d) const { closedir(d); }
};

void ListDir(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    const Json::Value &pathV = req->GetParamRef("path", Json::Value());
    const Json::Value &offV = req->GetParamRef("offset", Json::Value(0));
    const Json::Value &limV = req->GetParamRef("limit", Json::Value(kDefaultLimit));
    const Json::Value &filterV = req->GetParamRef("filter", Json::Value(""));
    if (!pathV.isString() || !offV.isUInt() || !limV.isUInt() || !filterV.isString() ||
        !IsCleanText(filterV.asString()) || filterV.asString().size() > kMaxFilter) {
        resp->SetError(kErrFilesBadParam);
        return;
    }
    const std::string visible = kova_internal::StripTrailingSlashes(pathV.asString());
    if (!IsCleanText(visible) || !ValidVisiblePath(visible)) {
        resp->SetError(kErrFilesBadPath);
        return;
    }
    const std::string user = req->GetLoginUserName();
    std::string realPath, shareName, shareRoot, allowed;
    int rc;
    {
        RootScope root;
        PanoraFileShare fs;
        rc = root.ok() ? fs.WfmFullPathGet(visible, realPath, shareName, shareRoot, allowed, user) : -1;
    }
    if (rc != 0) {
        resp->SetError(kErrFilesNoFolder);
        return;
    }
    const std::string topShare = visible.substr(1, visible.find('/', 1) == std::string::npos
                                                      ? std::string::npos
                                                      : visible.find('/', 1) - 1);
    const bool admin = IsAdmin(user);
    int priv = Privilege(topShare, user, admin);
    if (priv != KOVA_SHARE_PRIV_RO && priv != KOVA_SHARE_PRIV_RW) {
        resp->SetError(kErrFilesNoPrivilege);
        return;
    }
    // From here on the user's own ids decide what can be read: the folder is
    // opened without following a link, and the platform's own evaluation of
    // its rules (not only the mode bits) must grant listing.
    const int fd = open(realPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        // The kernel enforces the projection of a folder's stored rules: when
        // those rules refuse listing, that is the answer, as it would be had
        // the kernel let the folder open.
        if (errno == EACCES && KOVAACLIsSupport(realPath.c_str(), -1, KOVA_ACL_SUPPORT_MODE) == 1 &&
            KOVAACLPermCheck(realPath.c_str(), KOVA_ACL_PERM_READ_DATA) != 1) {
            resp->SetError(kErrFilesNoListRight);
            return;
        }
        struct stat st;
        const bool isDir = lstat(realPath.c_str(), &st) != 0 || S_ISDIR(st.st_mode);
        resp->SetError(isDir ? kErrFilesNoFolder : kErrFilesNotFolder);
        return;
    }
    struct stat self;
    if (fstat(fd, &self) != 0) {
        close(fd);
        resp->SetError(kErrFilesNoFolder);
        return;
    }
    std::unique_ptr<DIR, DirCloser> d(fdopendir(fd));
    if (!d) {
        close(fd);
        resp->SetError(kErrFilesNoFolder);
        return;
    }
    if (KOVAACLPermCheck(realPath.c_str(), KOVA_ACL_PERM_READ_DATA) != 1) {
        resp->SetError(kErrFilesNoListRight);
        return;
    }
    const std::string filter = filterV.asString();
    std::vector<Entry> entries;
    size_t seen = 0;
    while (struct dirent *e = readdir(d.get())) {
        std::string n = e->d_name;
        if (n == "." || n == ".." || KOVAEAIsHiddenDir(n.c_str())) continue;
        struct stat es;
        if (fstatat(dirfd(d.get()), n.c_str(), &es, AT_SYMLINK_NOFOLLOW) != 0) continue;
        ++seen;
        if (!Matches(n, filter)) continue;
        entries.push_back({n, S_ISDIR(es.st_mode), S_ISLNK(es.st_mode), es.st_mode, es.st_gid});
    }
    d.reset();
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        if (a.isDir != b.isDir) return a.isDir;
        return NaturalLess(a.name, b.name);
    });
    const size_t offset = offV.asUInt();
    const size_t limit = std::min<size_t>(limV.asUInt(), kMaxLimit);
    // Share-relative paths are what a person sees; the absolute path is only
    // sent to administrators (the editor names items to the rules calls by
    // share path, see SharePathsIn).
    Json::Value list(Json::arrayValue);
    OwnerNames owners;
    for (size_t i = offset; i < entries.size() && i - offset < limit; ++i) {
        Json::Value item(Json::objectValue);
        const std::string real = realPath + "/" + entries[i].name;
        item["name"] = WellFormedUtf8(entries[i].name);
        item["is_dir"] = entries[i].isDir;
        item["is_link"] = entries[i].isLink;
        item["path"] = WellFormedUtf8(visible + "/" + entries[i].name);
        if (admin) item["real_path"] = real;
        item["owner"] = entries[i].isLink ? Json::Value() : OwnerOf(real, owners);
        item["group"] = GroupOf(entries[i].gid, owners);
        item["mode"] = ModeText(entries[i].mode);
        list.append(item);
    }
    Json::Value data(Json::objectValue);
    data["path"] = visible;
    if (admin) data["real_path"] = realPath;
    data["share"] = shareName;
    data["read_only"] = !allowed.empty();
    data["owner"] = OwnerOf(realPath, owners);
    data["group"] = GroupOf(self.st_gid, owners);
    data["mode"] = ModeText(self.st_mode);
    data["show_real_path"] = admin;
    data["total"] = static_cast<Json::UInt64>(entries.size());
    data["unfiltered_total"] = static_cast<Json::UInt64>(seen);
    data["entries"] = list;
    resp->SetSuccess(data);
}

// The absolute path of the item at a share path ("/share/dir/item"), as
// the user reaches it: a share's top folder resolves itself, anything else
// through the folder that holds it. allowed: on a read-only share, the one
// path that may change (empty otherwise). 0 or a files error code.
int ResolveItem(std::string visible, const std::string &user, std::string &real, std::string &allowed) {
    while (visible.size() > 1 && visible.back() == '/') visible.pop_back();
    if (!IsCleanText(visible) || !ValidVisiblePath(visible)) return kErrFilesBadPath;
    const size_t cut = visible.rfind('/');
    const std::string folder = cut == 0 ? visible : visible.substr(0, cut);
    const std::string name = cut == 0 ? std::string() : visible.substr(cut + 1);
    std::string realFolder, shareName, shareRoot;
    int rc;
    {
        RootScope root;
        PanoraFileShare fs;
        rc = root.ok() ? fs.WfmFullPathGet(folder, realFolder, shareName, shareRoot, allowed, user) : -1;
    }
    if (rc != 0) return kErrFilesNoFolder;
    real = name.empty() ? realFolder : realFolder + "/" + name;
    return 0;
}

// Gives an item back to its mode bits: its stored rules are removed. The
// platform itself refuses unless the user (the worker acts as the user)
// holds change_perm on it; the share must be writable for the user and,
// when it is read-only, only its top folder may change, as with "set".
void RemoveAcl(KOVA::APIRequest *req, KOVA::APIResponse *resp) {
    const Json::Value &pathV = req->GetParamRef("path", Json::Value());
    if (!pathV.isString()) {
        resp->SetError(kErrFilesBadParam);
        return;
    }
    const std::string visible = pathV.asString();
    const std::string user = req->GetLoginUserName();
    std::string real, allowed;
    if (const int bad = ResolveItem(visible, user, real, allowed)) {
        resp->SetError(bad);
        return;
    }
    const std::string topShare = visible.substr(1, visible.find('/', 1) == std::string::npos
                                                      ? std::string::npos
                                                      : visible.find('/', 1) - 1);
    if (Privilege(topShare, user, IsAdmin(user)) != KOVA_SHARE_PRIV_RW) {
        resp->SetError(kErrFilesNoPrivilege);
        return;
    }
    if (!allowed.empty() && real != allowed) {
        resp->SetError(kErrFilesNoChange);
        return;
    }
    if (KOVAACLRemove(real.c_str(), -1) != 0) {
        const int why = KLIBCErrGet();
        resp->SetError(why == KOVA_ERR_PERM || why == KOVA_ERR_ACL_DENIED ? kErrFilesNoChange : kErrFilesNotRemoved);
        return;
    }
    resp->SetSuccess(Json::Value(Json::objectValue));
}

// Every share's absolute root and name, longest root first so a share
// inside another maps to its own name.
std::vector<std::pair<std::string, std::string>> ShareRoots() {
    std::vector<std::pair<std::string, std::string>> roots;
    RootScope root;
    PKLIBC_SZLIST names = root.ok() ? KLIBCSzListAlloc(1024) : nullptr;
    if (!names) return roots;
    if (KOVAShareEnum(&names) >= 0) {
        for (int i = 0; i < names->nItem; ++i) {
            const char *name = KLIBCSzListGet(names, i);
            PKOVA_SHARE share = nullptr;
            if (!name || KOVAShareGet(name, &share) < 0 || !share) continue;
            roots.emplace_back(share->szPath, name);
            KOVAShareFree(share);
        }
    }
    KLIBCSzListFree(names);
    std::sort(roots.begin(), roots.end(), [](const auto &a, const auto &b) { return a.first.size() > b.first.size(); });
    return roots;
}

void ToSharePaths(Json::Value &v, const std::vector<std::pair<std::string, std::string>> &roots) {
    if (v.isString()) {
        const std::string text = v.asString();
        for (const auto &r : roots) {
            if (text.compare(0, r.first.size(), r.first) == 0 &&
                (text.size() == r.first.size() || text[r.first.size()] == '/')) {
                v = "/" + r.second + text.substr(r.first.size());
                return;
            }
        }
    } else if (v.isArray() || v.isObject()) {
        for (Json::Value &child : v) ToSharePaths(child, roots);
    }
}

} // namespace

int SharePathsIn(const std::string &api, Json::Value &params, const std::string &user, bool &wanted) {
    wanted = false;
    if (api != "KOVA.Core.ACL" || !params.isObject() || !params.isMember(kSharePaths)) return 0;
    wanted = params[kSharePaths].isBool() && params[kSharePaths].asBool();
    params.removeMember(kSharePaths);
    if (!wanted || !params.isMember("file_path")) return 0;
    if (!params["file_path"].isString()) return kErrFilesBadParam;
    std::string real, allowed;
    if (const int bad = ResolveItem(params["file_path"].asString(), user, real, allowed)) return bad;
    params["file_path"] = real;
    return 0;
}

void SharePathsOut(Json::Value &reply) {
    ToSharePaths(reply, ShareRoots());
}

std::vector<Route> FilesRoutes() {
    std::vector<Route> r(4);
    r[0].method = "list_shares";
    r[0].handler = ListShares;
    r[1].method = "list_dir";
    r[1].handler = ListDir;
    r[2].method = "account";
    r[2].handler = AccountOf;
    r[3].method = "remove_acl";
    r[3].handler = RemoveAcl;
    for (Route &one : r) {
        one.api = "KOVA.Server.Files";
        one.version = 1;
        one.origin = "built-in";
    }
    return r;
}

} // namespace webd
