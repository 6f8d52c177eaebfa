// The server's TLS certificate. With none configured, kova-webd makes a
// self-signed one on first start (an EC P-256 key, ten years, the host's
// name, localhost and 127.0.0.1 as subject names) and keeps it for later
// starts, so the fingerprint a browser was told to trust stays the same.
// The key is written 0600 and the folder 0700, both root's; the pair is
// written to temporary names and renamed, so a crash never leaves half a
// key. A key file found with looser modes or another owner is refused.
#ifndef KOVA_WEBD_TLS_CERT_H
#define KOVA_WEBD_TLS_CERT_H

#include <string>

namespace webd {

struct CertFiles {
    std::string cert;     // PEM certificate (chain)
    std::string key;      // PEM private key
    bool generated = false;  // made just now
};

// Uses dir/webd.crt and dir/webd.key, making dir and the pair when absent.
// false with *why set when they cannot be made or are unsafe.
bool EnsureSelfSigned(const std::string &dir, CertFiles *out, std::string *why);

// SHA-256 of the first certificate in a PEM file (DER bytes), as upper-case
// hex pairs joined by ':' (the form browsers and `openssl x509
// -fingerprint -sha256` show); "" when the file holds no certificate.
std::string CertFingerprint(const std::string &pemFile);

} // namespace webd

#endif
