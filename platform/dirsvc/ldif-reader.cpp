// Reading accounts from an LDIF file of entries, parsed by libldap's LDIF
// reader so folded lines and base64 values are handled as LDAP tools do.
#include "entry-map.h"
#include "kova-dirsvc-admin.h"

#include "kova-internal/call-guard.h"

#include <ldap.h>
#include <ldif.h>

#include <cstring>
#include <memory>

using namespace kova_dirsvc;
using kova_internal::Guarded;

namespace {
struct LdifClose {
    void operator()(LDIFFP *f) const { ldif_close(f); }
};
struct RecordDone {
    void operator()(LDIFRecord *r) const { ldap_ldif_record_done(r); }
};
} // namespace

int KovaDirsvc::LdifRead(const std::string &path, const KovaDirSink &sink) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdifRead", int);
    return Guarded(-1, [&]() -> int {
        std::unique_ptr<LDIFFP, LdifClose> fp(ldif_open(path.c_str(), "r"));
        if (!fp) {
            KOVA_FAIL(KOVA_ERR_NOENT);
            return -1;
        }
        unsigned long lineno = 0;
        char *buf = nullptr;
        int buflen = 0;
        struct BufFree {
            char **p;
            ~BufFree() { ber_memfree(*p); }
        } bufOwner{&buf};
        int rc;
        while ((rc = ldif_read_record(fp.get(), &lineno, &buf, &buflen)) > 0) {
            berval rbuf{std::strlen(buf), buf};
            LDIFRecord rec{};
            if (ldap_parse_ldif_record(&rbuf, lineno, &rec, "kova-admin",
                                       LDIF_DEFAULT_ADD | LDIF_ENTRIES_ONLY | LDIF_NO_CONTROLS) != LDAP_SUCCESS) {
                KOVA_FAIL(KOVA_ERR_BADARG);  // malformed record: nothing is half-read
                return -1;
            }
            std::unique_ptr<LDIFRecord, RecordDone> done(&rec);
            if (rec.lr_op != LDAP_REQ_ADD || !rec.lrop_mods) continue;
            Attrs attrs;
            for (LDAPMod **m = rec.lrop_mods; *m; ++m) {
                auto &slot = attrs[Lower((*m)->mod_type)];
                for (berval **v = (*m)->mod_bvalues; v && *v; ++v) slot.emplace_back((*v)->bv_val, (*v)->bv_len);
            }
            KovaDirEntry entry;
            if (MapEntry(std::string(rec.lr_dn.bv_val ? rec.lr_dn.bv_val : "", rec.lr_dn.bv_len), attrs, entry) && !sink(entry))
                return -1;
        }
        if (rc < 0) {
            KOVA_FAIL(KOVA_ERR_IO);
            return -1;
        }
        return 0;
    });
}
