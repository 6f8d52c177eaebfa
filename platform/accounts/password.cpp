// argon2id with a random 16-byte salt; the cost is the interactive-login
// level (3 passes over 64 MiB would make every test slow for no gain here).
// The encoded form is libargon2's ("$argon2id$v=19$m=M,t=T,p=P$salt$hash",
// base64 without padding); it is written and read here because the library
// only allocates through the caller's callbacks on its context interface,
// which takes raw values.
#include "password.h"

#include "argon2-run.h"

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <cstdio>
#include <vector>

namespace kova_accounts {

namespace {
constexpr uint32_t kTimeCost = 2;
constexpr uint32_t kMemoryKiB = 19 * 1024;
constexpr uint32_t kLanes = 1;
constexpr size_t kSaltLen = 16;
constexpr size_t kHashLen = 32;
// What a stored hash may ask for: anything costlier is refused rather than
// run, since a row decides how much memory and time a check takes.
constexpr uint32_t kMaxTimeCost = 16;
constexpr uint32_t kMaxMemoryKiB = 64 * 1024;
constexpr uint32_t kMaxLanes = 4;

using Bytes = std::vector<uint8_t>;

struct Encoded {
    uint32_t t = 0, m = 0, p = 0;
    Bytes salt, hash;
};

bool HasNul(const std::string &s) { return s.find('\0') != std::string::npos; }

std::string Base64(const Bytes &in) {
    std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]), in.data(), static_cast<int>(in.size()));
    out.resize(static_cast<size_t>(n));
    while (!out.empty() && out.back() == '=') out.pop_back();
    return out;
}

// Unpadded base64 as libargon2 writes it; false for anything else.
bool FromBase64(const std::string &in, Bytes &out) {
    if (in.empty() || in.size() % 4 == 1) return false;
    for (char c : in)
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/'))
            return false;
    size_t pad = (4 - in.size() % 4) % 4;
    std::string padded = in + std::string(pad, '=');
    out.resize(padded.size() / 4 * 3);
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char *>(padded.data()),
                            static_cast<int>(padded.size()));
    if (n < 0 || static_cast<size_t>(n) != out.size()) return false;
    out.resize(out.size() - pad);
    return true;
}

std::string Encode(const Encoded &e) {
    char head[80];
    std::snprintf(head, sizeof head, "$argon2id$v=%d$m=%u,t=%u,p=%u$", ARGON2_VERSION_13, e.m, e.t, e.p);
    return head + Base64(e.salt) + "$" + Base64(e.hash);
}

// Only what Encode writes, within the bounds above.
bool Decode(const std::string &text, Encoded &e) {
    unsigned v = 0;
    int used = 0;
    if (std::sscanf(text.c_str(), "$argon2id$v=%u$m=%u,t=%u,p=%u$%n", &v, &e.m, &e.t, &e.p, &used) != 4 || used == 0)
        return false;
    if (v != ARGON2_VERSION_13 || e.t < 1 || e.t > kMaxTimeCost || e.p < 1 || e.p > kMaxLanes || e.m < 8 * e.p ||
        e.m > kMaxMemoryKiB)
        return false;
    size_t split = text.find('$', static_cast<size_t>(used));
    if (split == std::string::npos) return false;
    if (!FromBase64(text.substr(static_cast<size_t>(used), split - static_cast<size_t>(used)), e.salt) ||
        !FromBase64(text.substr(split + 1), e.hash))
        return false;
    return e.salt.size() >= ARGON2_MIN_SALT_LENGTH && e.hash.size() >= ARGON2_MIN_OUTLEN && e.hash.size() <= 64;
}

// The raw hash of password under e's parameters and salt, into out (sized
// by the caller); the Argon2 result code.
int Compute(const Encoded &e, const std::string &password, Bytes &out) {
    argon2_context ctx{};
    ctx.out = out.data();
    ctx.outlen = static_cast<uint32_t>(out.size());
    ctx.pwd = reinterpret_cast<uint8_t *>(const_cast<char *>(password.data()));
    ctx.pwdlen = static_cast<uint32_t>(password.size());
    ctx.salt = const_cast<uint8_t *>(e.salt.data());
    ctx.saltlen = static_cast<uint32_t>(e.salt.size());
    ctx.t_cost = e.t;
    ctx.m_cost = e.m;
    ctx.lanes = ctx.threads = e.p;
    ctx.version = ARGON2_VERSION_13;
    ctx.flags = ARGON2_DEFAULT_FLAGS;
    return RunArgon2id(ctx);
}

// Today's parameters, with a zero salt and a zero digest of today's sizes.
Encoded Today() {
    Encoded e;
    e.t = kTimeCost;
    e.m = kMemoryKiB;
    e.p = kLanes;
    e.salt.assign(kSaltLen, 0);
    e.hash.assign(kHashLen, 0);
    return e;
}

// Checking against it costs what a real check costs, and no password has
// its digest.
const Encoded &Dummy() {
    static const Encoded dummy = Today();
    return dummy;
}

bool Matches(const Encoded &e, const std::string &password) {
    Bytes out(e.hash.size());
    return Compute(e, password, out) == ARGON2_OK && CRYPTO_memcmp(out.data(), e.hash.data(), out.size()) == 0;
}
} // namespace

bool HashPassword(const std::string &password, std::string &encoded) {
    if (HasNul(password)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    Encoded e = Today();
    if (getrandom(e.salt.data(), e.salt.size(), 0) != static_cast<ssize_t>(e.salt.size())) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    int rc = Compute(e, password, e.hash);
    if (rc != ARGON2_OK) {
        KOVA_FAIL(rc == ARGON2_MEMORY_ALLOCATION_ERROR ? KOVA_ERR_NOMEM : KOVA_ERR_IO);
        return false;
    }
    encoded = Encode(e);
    return true;
}

bool VerifyPassword(const std::string &encoded, const std::string &password) {
    Encoded e;
    if (HasNul(password) || HasNul(encoded) || !Decode(encoded, e)) {
        VerifyAgainstDummy(password);
        return false;
    }
    return Matches(e, password);
}

void VerifyAgainstDummy(const std::string &password) { Matches(Dummy(), password); }

} // namespace kova_accounts
