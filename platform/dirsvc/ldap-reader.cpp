// Reading accounts from an LDAP server with libldap: simple bind, then a
// subtree search in pages (the paged-results control), so directories of
// any size come through without tripping the server's size limit.
#include "entry-map.h"
#include "kova-dirsvc-admin.h"
#include "ldap-handles.h"

#include "kova-internal/call-guard.h"

#include <ldap.h>

#include <memory>
#include <string>

using namespace kova_dirsvc;
using kova_internal::Guarded;

namespace {

constexpr int kPageSize = 100;
constexpr int kTimeoutSec = 15;

struct CtrlsFree {
    void operator()(LDAPControl **c) const { ldap_controls_free(c); }
};
struct CtrlFree {
    void operator()(LDAPControl *c) const { ldap_control_free(c); }
};
struct BerFree {
    void operator()(BerElement *b) const { ber_free(b, 0); }
};
struct MemFree {
    void operator()(char *p) const { ldap_memfree(p); }
};

int FailWith(int code) {
    KOVA_FAIL(code);
    return -1;
}

// Maps an LDAP result code to the platform's error classes.
int MapLdapError(int rc) {
    switch (rc) {
    case LDAP_SERVER_DOWN:
    case LDAP_CONNECT_ERROR:
    case LDAP_TIMEOUT:
    case LDAP_UNAVAILABLE:
    case LDAP_BUSY:
        return KOVA_ERR_DIRSVC;
    case LDAP_INVALID_CREDENTIALS:
    case LDAP_INAPPROPRIATE_AUTH:
    case LDAP_INSUFFICIENT_ACCESS:
        return KOVA_ERR_PERM;
    case LDAP_NO_SUCH_OBJECT:
        return KOVA_ERR_NOENT;
    case LDAP_NO_MEMORY:
        return KOVA_ERR_NOMEM;
    default:
        return KOVA_ERR_IO;
    }
}

// Connects and binds; null with the last error set on failure.
Ldap Connect(const std::string &uri, const std::string &bindDn, const std::string &password) {
    LDAP *raw = nullptr;
    if (ldap_initialize(&raw, uri.c_str()) != LDAP_SUCCESS || !raw) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return nullptr;
    }
    Ldap ld(raw);
    int version = LDAP_VERSION3;
    ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version);
    struct timeval tv = {kTimeoutSec, 0};
    ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &tv);
    ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &tv);
    ldap_set_option(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    berval cred;
    cred.bv_val = const_cast<char *>(password.c_str());
    cred.bv_len = password.size();
    int rc = ldap_sasl_bind_s(ld.get(), bindDn.empty() ? nullptr : bindDn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr,
                              nullptr, nullptr);
    if (rc != LDAP_SUCCESS) {
        KOVA_FAIL(MapLdapError(rc));
        return nullptr;
    }
    return ld;
}

// Hands every entry of one page to the sink; false when the sink aborted.
bool DeliverPage(LDAP *ld, LDAPMessage *res, const KovaDirSink &sink) {
    for (LDAPMessage *e = ldap_first_entry(ld, res); e; e = ldap_next_entry(ld, e)) {
        std::unique_ptr<char, MemFree> dn(ldap_get_dn(ld, e));
        Attrs attrs;
        BerElement *berRaw = nullptr;
        for (char *a = ldap_first_attribute(ld, e, &berRaw); a; a = ldap_next_attribute(ld, e, berRaw)) {
            std::unique_ptr<char, MemFree> attr(a);
            std::unique_ptr<berval *, ValsFree> vals(ldap_get_values_len(ld, e, attr.get()));
            auto &slot = attrs[Lower(attr.get())];
            for (berval **v = vals.get(); v && *v; ++v) slot.emplace_back((*v)->bv_val, (*v)->bv_len);
        }
        std::unique_ptr<BerElement, BerFree> ber(berRaw);
        KovaDirEntry entry;
        if (MapEntry(dn ? dn.get() : "", attrs, entry) && !sink(entry)) return false;
    }
    return true;
}

} // namespace

int KovaDirsvc::LdapProbe(const std::string &uri, const std::string &bindDn, const std::string &password) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdapProbe", int);
    return Guarded(-1, [&]() -> int { return Connect(uri, bindDn, password) ? 0 : -1; });
}

int KovaDirsvc::LdapRead(const std::string &uri, const std::string &base, const std::string &bindDn,
                         const std::string &password, const KovaDirSink &sink) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdapRead", int);
    return Guarded(-1, [&]() -> int {
        Ldap ld = Connect(uri, bindDn, password);
        if (!ld) return -1;
        const char *filter =
            "(|(objectClass=posixAccount)(objectClass=inetOrgPerson)(objectClass=posixGroup)(objectClass=groupOfNames))";
        berval cookie{0, nullptr};
        std::unique_ptr<char, MemFree> cookieOwner;
        for (;;) {
            LDAPControl *pageRaw = nullptr;
            int rc = ldap_create_page_control(ld.get(), kPageSize, cookie.bv_len ? &cookie : nullptr, 1, &pageRaw);
            if (rc != LDAP_SUCCESS) return FailWith(MapLdapError(rc));
            std::unique_ptr<LDAPControl, CtrlFree> page(pageRaw);
            LDAPControl *ctrls[] = {page.get(), nullptr};
            struct timeval tv = {kTimeoutSec, 0};
            LDAPMessage *resRaw = nullptr;
            rc = ldap_search_ext_s(ld.get(), base.c_str(), LDAP_SCOPE_SUBTREE, filter, const_cast<char **>(kWantedAttrs), 0,
                                   ctrls, nullptr, &tv, LDAP_NO_LIMIT, &resRaw);
            std::unique_ptr<LDAPMessage, MsgFree> res(resRaw);
            if (rc != LDAP_SUCCESS) return FailWith(MapLdapError(rc));
            if (!DeliverPage(ld.get(), res.get(), sink)) return -1;
            int err = LDAP_SUCCESS;
            LDAPControl **srvRaw = nullptr;
            rc = ldap_parse_result(ld.get(), res.get(), &err, nullptr, nullptr, nullptr, &srvRaw, 0);
            std::unique_ptr<LDAPControl *, CtrlsFree> srv(srvRaw);
            if (rc != LDAP_SUCCESS) return FailWith(MapLdapError(rc));
            if (err != LDAP_SUCCESS) return FailWith(MapLdapError(err));
            LDAPControl *resp = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, srv.get(), nullptr);
            if (!resp) break;  // the server did not page: everything came at once
            ber_int_t estimate = 0;
            berval next{0, nullptr};
            if (ldap_parse_pageresponse_control(ld.get(), resp, &estimate, &next) != LDAP_SUCCESS)
                return FailWith(KOVA_ERR_IO);
            cookieOwner.reset(next.bv_val);
            cookie = next;
            if (cookie.bv_len == 0) break;
        }
        return 0;
    });
}
