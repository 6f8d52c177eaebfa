#include "tls-cert.h"

#include "kova-internal/paths.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace webd {

namespace {

template <class T, void (*F)(T *)>
struct Free {
    void operator()(T *p) const { F(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>>;
using Cert = std::unique_ptr<X509, Free<X509, X509_free>>;
using Bio = std::unique_ptr<BIO, Free<BIO, BIO_free_all>>;
using Ext = std::unique_ptr<X509_EXTENSION, Free<X509_EXTENSION, X509_EXTENSION_free>>;

std::string SslError(const std::string &what) {
    char buf[256] = "";
    unsigned long e = ERR_get_error();
    if (e) ERR_error_string_n(e, buf, sizeof buf);
    ERR_clear_error();
    return what + (e ? std::string(": ") + buf : std::string());
}

std::string HostName() {
    char buf[256] = "";
    if (gethostname(buf, sizeof buf - 1) != 0 || !buf[0]) return "localhost";
    return buf;
}

bool AddExt(X509 *cert, int nid, const std::string &value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    Ext ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

Cert MakeCert(EVP_PKEY *key, std::string *why) {
    Cert cert(X509_new());
    if (!cert) return *why = SslError("cannot make a certificate"), nullptr;
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) return *why = SslError("no random serial"), nullptr;
    serial[0] &= 0x7f;  // a positive number
    std::unique_ptr<BIGNUM, Free<BIGNUM, BN_free>> bn(BN_bin2bn(serial, sizeof serial, nullptr));
    const std::string host = HostName();
    X509_NAME *name = X509_get_subject_name(cert.get());
    bool ok = bn && X509_set_version(cert.get(), 2) == 1 &&
              BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert.get())) != nullptr &&
              X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600) != nullptr &&
              X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                         reinterpret_cast<const unsigned char *>("kova-webd self-signed"), -1, -1,
                                         0) == 1 &&
              X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                         reinterpret_cast<const unsigned char *>(host.c_str()), -1, -1, 0) == 1 &&
              X509_set_issuer_name(cert.get(), name) == 1 && X509_set_pubkey(cert.get(), key) == 1;
    std::string san = "DNS:localhost,IP:127.0.0.1,IP:::1";
    if (host != "localhost" && host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-") ==
                                   std::string::npos)
        san = "DNS:" + host + "," + san;
    ok = ok && AddExt(cert.get(), NID_basic_constraints, "critical,CA:FALSE") &&
         AddExt(cert.get(), NID_key_usage, "critical,digitalSignature") &&
         AddExt(cert.get(), NID_ext_key_usage, "serverAuth") && AddExt(cert.get(), NID_subject_alt_name, san) &&
         AddExt(cert.get(), NID_subject_key_identifier, "hash") && X509_sign(cert.get(), key, EVP_sha256()) > 0;
    if (!ok) return *why = SslError("cannot make the certificate"), nullptr;
    return cert;
}

std::string Pem(int (*write)(BIO *, void *), void *obj) {
    Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get(), obj) != 1) return "";
    char *data = nullptr;
    long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(n));
}

int WriteKey(BIO *b, void *k) {
    return PEM_write_bio_PrivateKey(b, static_cast<EVP_PKEY *>(k), nullptr, nullptr, 0, nullptr, nullptr);
}
int WriteCert(BIO *b, void *c) { return PEM_write_bio_X509(b, static_cast<X509 *>(c)); }

// The key's folder and file belong to root and nobody else may read them.
bool Safe(const std::string &path, mode_t allowed, std::string *why) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return *why = path + ": " + strerror(errno), false;
    if (st.st_uid != 0 || (st.st_mode & 07777 & ~allowed) != 0) {
        *why = path + " must belong to root with no access for group or others (chmod " +
               (S_ISDIR(st.st_mode) ? "700" : "600") + ")";
        return false;
    }
    return true;
}

} // namespace

bool EnsureSelfSigned(const std::string &dir, CertFiles *out, std::string *why) {
    out->cert = dir + "/webd.crt";
    out->key = dir + "/webd.key";
    out->generated = false;
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return *why = "cannot make " + dir + ": " + strerror(errno), false;
    if (!Safe(dir, 0700, why)) return false;
    if (access(out->cert.c_str(), F_OK) == 0 && access(out->key.c_str(), F_OK) == 0) return Safe(out->key, 0600, why);

    Key key(EVP_EC_gen("P-256"));
    if (!key) return *why = SslError("cannot make a key"), false;
    Cert cert = MakeCert(key.get(), why);
    if (!cert) return false;
    const std::string keyPem = Pem(WriteKey, key.get()), certPem = Pem(WriteCert, cert.get());
    if (keyPem.empty() || certPem.empty()) return *why = SslError("cannot encode the certificate"), false;
    // The key first: a certificate is never there without its key.
    if (!kova_internal::WriteAtomically(out->key, keyPem, 0600, why) ||
        !kova_internal::WriteAtomically(out->cert, certPem, 0644, why)) return false;
    out->generated = true;
    return true;
}

std::string CertFingerprint(const std::string &pemFile) {
    Bio bio(BIO_new_file(pemFile.c_str(), "r"));
    if (!bio) return ERR_clear_error(), "";
    Cert cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    if (!cert) return "";
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned n = 0;
    if (X509_digest(cert.get(), EVP_sha256(), md, &n) != 1) return "";
    static const char hex[] = "0123456789ABCDEF";
    std::string s;
    for (unsigned i = 0; i < n; ++i) {
        if (i) s += ':';
        s += hex[md[i] >> 4];
        s += hex[md[i] & 15];
    }
    return s;
}

} // namespace webd
