#include "fill-accounts.h"
#include "sqlite-baseline.h"

#include "kova/account.h"
#include "kova/klibc.h"

#include <cstdio>

namespace kova_bench {

std::string Words::Word(int syllables) {
    static const char *const kSyllables[] = {"ka", "lo", "mi", "ne", "su", "ta", "ro", "vi",
                                             "de", "ba", "xo", "qu", "zen", "fa", "gi", "ho"};
    std::string w;
    for (int i = 0; i < syllables; ++i) w += kSyllables[rng_() % 16];
    w[0] = static_cast<char>(w[0] - 32);
    return w;
}

bool FillLocalUsers(int users) {
    // The first call creates the database with its default accounts.
    if (KOVAUserAdd("bench-seed", -1, nullptr, nullptr, nullptr, 0) != 0) return false;
    Db d;
    std::string path = std::string(KLIBCRootGet()) + "/etc/accounts.db";
    if (sqlite3_open(path.c_str(), &d.db) != SQLITE_OK || !Exec(d.db, "BEGIN")) return false;
    sqlite3_stmt *ins = nullptr;
    sqlite3_prepare_v2(d.db, "INSERT INTO users(uid, name, gid, description, email) VALUES (?, ?, 100, ?, ?)", -1, &ins,
                       nullptr);
    for (int i = 0; i < users; ++i) {
        std::string name = "luser" + std::to_string(1000000 + static_cast<long long>(i) * 7919 % users);
        std::string desc = "Local user " + std::to_string(i), mail = name + "@example.com";
        sqlite3_bind_int(ins, 1, 2000 + i);
        sqlite3_bind_text(ins, 2, name.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(ins, 3, desc.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(ins, 4, mail.c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(ins) != SQLITE_DONE) {
            sqlite3_finalize(ins);
            return false;
        }
        sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    return Exec(d.db, "COMMIT");
}

bool AddLdapUsers(KovaAccountCacheBuilder &builder, int users, Words &words) {
    for (int i = 0; i < users; ++i) {
        KovaCacheEntry e;
        char n[32];
        std::snprintf(n, sizeof(n), "user%07d", i);
        e.name = n;
        e.fullname = words.Word(2) + " " + words.Word(3);
        e.mail = std::string(n) + "@example.com";
        e.desc = "Department " + words.Word(2);
        e.id = kLdapFirstUid + i;  // uidNumber, clear of the local uids
        e.gid = 100;
        if (builder.Add(e) != 0) return false;
    }
    return true;
}

} // namespace kova_bench
