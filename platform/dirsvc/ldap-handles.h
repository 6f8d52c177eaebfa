// Owners of libldap's handles: the connection (unbound on release), a
// result message and a value list.
#ifndef KOVA_DIRSVC_LDAP_HANDLES_H
#define KOVA_DIRSVC_LDAP_HANDLES_H

#include <ldap.h>

#include <memory>

namespace kova_dirsvc {

struct LdapCloser {
    void operator()(LDAP *ld) const { ldap_unbind_ext_s(ld, nullptr, nullptr); }
};
struct MsgFree {
    void operator()(LDAPMessage *m) const { ldap_msgfree(m); }
};
struct ValsFree {
    void operator()(berval **v) const { ldap_value_free_len(v); }
};
using Ldap = std::unique_ptr<LDAP, LdapCloser>;

} // namespace kova_dirsvc

#endif
