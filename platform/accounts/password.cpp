// argon2id with a random 16-byte salt; the cost is the interactive-login
// level (3 passes over 64 MiB would make every test slow for no gain here).
#include "password.h"

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <argon2.h>
#include <sys/random.h>

#include <vector>

namespace kova_accounts {

namespace {
constexpr uint32_t kTimeCost = 2;
constexpr uint32_t kMemoryKiB = 19 * 1024;
constexpr uint32_t kLanes = 1;
constexpr size_t kSaltLen = 16;
constexpr size_t kHashLen = 32;
} // namespace

bool HashPassword(const std::string &password, std::string &encoded) {
    unsigned char salt[kSaltLen];
    if (getrandom(salt, sizeof(salt), 0) != static_cast<ssize_t>(sizeof(salt))) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    size_t len = argon2_encodedlen(kTimeCost, kMemoryKiB, kLanes, kSaltLen, kHashLen, Argon2_id);
    std::vector<char> out(len);
    int rc = argon2id_hash_encoded(kTimeCost, kMemoryKiB, kLanes, password.data(), password.size(), salt, sizeof(salt),
                                   kHashLen, out.data(), out.size());
    if (rc != ARGON2_OK) {
        KOVA_FAIL(rc == ARGON2_MEMORY_ALLOCATION_ERROR ? KOVA_ERR_NOMEM : KOVA_ERR_IO);
        return false;
    }
    encoded.assign(out.data());
    return true;
}

bool VerifyPassword(const std::string &encoded, const std::string &password) {
    if (encoded.rfind("$argon2id$", 0) != 0) return false;
    return argon2id_verify(encoded.c_str(), password.data(), password.size()) == ARGON2_OK;
}

} // namespace kova_accounts
