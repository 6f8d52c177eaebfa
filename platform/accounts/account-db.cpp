// Opening and first-use creation of the local account database.
#include "account-db.h"

#include "kova-internal/fault-point.h"
#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kova_accounts {

namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT);"
    "CREATE TABLE IF NOT EXISTS groups("
    "  gid INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, description TEXT);"
    "CREATE TABLE IF NOT EXISTS users("
    "  uid INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, gid INTEGER NOT NULL,"
    "  description TEXT, email TEXT, home TEXT, internal INTEGER NOT NULL DEFAULT 0,"
    "  password TEXT, disabled INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX IF NOT EXISTS users_internal ON users(internal, name);"
    "CREATE TABLE IF NOT EXISTS members("
    "  gid INTEGER NOT NULL REFERENCES groups(gid) ON DELETE CASCADE,"
    "  uid INTEGER NOT NULL REFERENCES users(uid) ON DELETE CASCADE,"
    "  PRIMARY KEY(gid, uid)) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS members_uid ON members(uid);";

// Defaults of a new root. "admin" is an ordinary user made an administrator
// by membership; its password stays unset until an administrator sets one.
const char kDefaults[] =
    "INSERT OR IGNORE INTO groups(gid, name, description) VALUES"
    "  (101, 'administrators', 'System default admin group'),"
    "  (100, 'users', 'System default group'),"
    "  (90, 'services', 'Internal service accounts');"
    "INSERT OR IGNORE INTO users(uid, name, gid, description, internal, disabled) VALUES"
    "  (1024, 'admin', 100, 'System default user', 0, 0),"
    "  (1025, 'guest', 100, 'Guest', 0, 1),"
    "  (200, 'kova-sys', 90, 'Platform service', 1, 1),"
    "  (81, 'httpd', 90, 'Web server', 1, 1);"
    "INSERT OR IGNORE INTO members(gid, uid) VALUES (101, 1024);"
    "INSERT OR REPLACE INTO meta(key, value) VALUES ('schema', '1');";

// SQL function kova_upper(text): the platform's Unicode upper-casing, so
// case-insensitive matching in SQL agrees with KLIBCUnicodeUTF8StrUpper.
void UpperFn(sqlite3_context *ctx, int, sqlite3_value **argv) {
    const unsigned char *in = sqlite3_value_text(argv[0]);
    if (!in) {
        sqlite3_result_null(ctx);
        return;
    }
    size_t len = static_cast<size_t>(sqlite3_value_bytes(argv[0]));
    std::vector<char> out(len * 3 + 4);
    int n = KLIBCUnicodeUTF8StrUpper(reinterpret_cast<const char *>(in), out.data(), out.size());
    if (n < 0) {
        sqlite3_result_error(ctx, "upper-casing failed", -1);
        return;
    }
    sqlite3_result_text(ctx, out.data(), n, SQLITE_TRANSIENT);
}

bool MakeParent(const std::string &path) {
    std::string cur;
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        cur = path.substr(0, pos);
        if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

} // namespace

std::string AccountDbPath() { return std::string(KLIBCRootGet()) + "/etc/accounts.db"; }

namespace {

// Opens the file at path on a fresh connection, creating the schema and
// defaults on first use. Runs with root already raised by the caller.
bool OpenFresh(const std::string &path, kova_internal::Database &db, const struct stat *existing, bool raised) {
    if (!existing && !MakeParent(path)) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    mode_t old = umask(077);
    bool opened = db.Open(path, true);
    umask(old);
    if (!opened) {
        // Without root (no saved uid 0 to raise to) the file is out of reach.
        if (!raised) KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    sqlite3_create_function(db.get(), "kova_upper", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr, UpperFn, nullptr, nullptr);
    // Enumerations walk the name index and fetch rows by uid; a larger page
    // cache and memory-mapped reads keep that from re-reading pages.
    if (!db.Exec("PRAGMA foreign_keys = ON; PRAGMA cache_size = -16384; PRAGMA mmap_size = 268435456")) return false;
    if (existing) {
        // Raw probe: a missing table here is expected, not an error to report.
        sqlite3_stmt *probe = nullptr;
        bool ready = sqlite3_prepare_v2(db.get(), "SELECT value FROM meta WHERE key = 'schema'", -1, &probe, nullptr) == SQLITE_OK &&
                     sqlite3_step(probe) == SQLITE_ROW;
        sqlite3_finalize(probe);
        if (ready) return true;
    }
    // First use: the schema and defaults go in as one transaction, so two
    // processes racing to create the file both end up with the same content.
    if (!db.Exec("BEGIN IMMEDIATE")) return false;
    if (!db.Exec(kSchema) || !db.Exec(kDefaults) || !db.Exec("COMMIT")) {
        db.Exec("ROLLBACK");
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    return true;
}

// What the memo's rows were read from: the file's identity and state, and
// the change counter in the database header.
struct MemoTag {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = -1;
    struct timespec mtime = {0, 0};
    uint32_t counter = 0;

    bool operator==(const MemoTag &o) const {
        return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
               mtime.tv_nsec == o.mtime.tv_nsec && counter == o.counter;
    }
};

// Bytes 16..31 of the header: the read/write format versions (1 for a
// rollback journal, 2 for WAL) at 18 and 19, the change counter at 24.
bool ReadTag(sqlite3 *db, const struct stat &st, MemoTag &tag) {
    if (st.st_size < 100) return false;
    sqlite3_file *file = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK || !file || !file->pMethods)
        return false;
    unsigned char h[16];
    if (file->pMethods->xRead(file, h, sizeof(h), 16) != SQLITE_OK) return false;
    if (h[2] != 1 || h[3] != 1) return false;
    tag.dev = st.st_dev;
    tag.ino = st.st_ino;
    tag.size = st.st_size;
    tag.mtime = st.st_mtim;
    tag.counter = (uint32_t(h[8]) << 24) | (uint32_t(h[9]) << 16) | (uint32_t(h[10]) << 8) | uint32_t(h[11]);
    return true;
}

// Rows beyond this many are not worth a lookup table; start again.
constexpr size_t kMemoLimit = 4096;

// This thread's connection and what it was opened on.
struct Connection {
    kova_internal::Database db;
    std::string path;
    pid_t pid = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    int sessions = 0; // open AccountSessions using it (calls can nest)
    RowMemo memo;
    std::optional<MemoTag> tag; // what memo holds; none: memo empty

    ~Connection() { Forget(); }

    // Drops the connection. One inherited from the parent process is never
    // closed here: its locks and file state belong to the parent's SQLite,
    // so the handle is parked (still reachable, never used) instead.
    void Forget() {
        if (db.is_open() && pid != getpid()) {
            static auto *parked = new std::vector<kova_internal::Database>();
            parked->push_back(std::move(db));
        }
        db = kova_internal::Database();
        path.clear();
        memo.clear();
        tag.reset();
    }
};

Connection &ThisThread() {
    static thread_local Connection conn;
    return conn;
}

bool SameFile(const Connection &c, pid_t pid, const std::string &path, const struct stat &st) {
    return c.db.is_open() && c.pid == pid && c.path == path && c.dev == st.st_dev && c.ino == st.st_ino;
}

} // namespace

void RowMemo::clear() {
    usersByName.clear();
    usersByUid.clear();
    groupsByName.clear();
    groupsByGid.clear();
    gidsByUid.clear();
}

AccountSession::~AccountSession() {
    if (counted_) --ThisThread().sessions;
}

kova_internal::Database &AccountSession::db() {
    // A hot journal (left by a writer that died) must be rolled back before
    // anything is read, and that takes root.
    if (!journalChecked_) {
        journalChecked_ = true;
        if (!root_ && access((path_ + "-journal").c_str(), F_OK) == 0) root_.emplace();
    }
    return *db_;
}

bool AccountSession::Open(Mode mode) {
    Connection &c = ThisThread();
    pid_t pid = getpid();
    // A call made while another session of this thread is open (a nested
    // call) shares its connection as it is, without the memo; replacing the
    // connection would pull it from under the outer session.
    if (c.sessions > 0 && c.db.is_open() && c.pid == pid) {
        if (mode == kWrite) root_.emplace();
        path_ = c.path;
        db_ = &c.db;
        ++c.sessions;
        counted_ = true;
        return true;
    }
    path_ = AccountDbPath();
    struct stat st;
    bool exists = stat(path_.c_str(), &st) == 0;
    // Writes and (re)opening need root; reads of an open connection do not.
    if (mode == kWrite || !exists || !SameFile(c, pid, path_, st)) {
        root_.emplace();
        journalChecked_ = true;
        // The directory may be closed to the caller: look again as root.
        if (!exists) exists = stat(path_.c_str(), &st) == 0;
    }
    if (!exists || !SameFile(c, pid, path_, st)) {
        c.Forget();
        kova_internal::Database fresh;
        if (!OpenFresh(path_, fresh, exists ? &st : nullptr, root_->ok())) return false;
        // Identify what was opened, not what the path named before.
        if (stat(path_.c_str(), &st) != 0) {
            KOVA_FAIL(KOVA_ERR_IO);
            return false;
        }
        c.db = std::move(fresh);
        c.path = path_;
        c.pid = pid;
        c.dev = st.st_dev;
        c.ino = st.st_ino;
    }
    db_ = &c.db;
    ++c.sessions;
    counted_ = true;
    if (mode != kRead) return true;
    MemoTag now;
    if (!ReadTag(c.db.get(), st, now)) {
        c.memo.clear();
        c.tag.reset();
        return true;
    }
    if (!c.tag || !(*c.tag == now) || c.memo.size() > kMemoLimit) {
        c.memo.clear();
        c.tag = now;
    }
    memo_ = &c.memo;
    return true;
}

} // namespace kova_accounts
