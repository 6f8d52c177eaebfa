// Changes a test slapd's directory as its administrator would (bound as the root DN): passwords, group
// members, extra entries. Header-only, for the LDAP account tests of the platform and of the module.
#ifndef KOVA_TEST_DIRECTORY_ADMIN_H
#define KOVA_TEST_DIRECTORY_ADMIN_H

#include "slapd.h"

#include <ldap.h>

#include <memory>
#include <string>
#include <vector>

namespace kova_test {

// Entry names of Slapd's generated accounts.
inline std::string PersonDn(int uidNumber) {
    return "uidNumber=" + std::to_string(uidNumber) + ",ou=people,dc=example,dc=com";
}
inline std::string GroupDn(int gidNumber) {
    return "gidNumber=" + std::to_string(gidNumber) + ",ou=groups,dc=example,dc=com";
}

class DirectoryAdmin {
public:
    explicit DirectoryAdmin(const Slapd &s) {
        LDAP *raw = nullptr;
        if (ldap_initialize(&raw, s.uri().c_str()) != LDAP_SUCCESS) return;
        ld_.reset(raw);
        int v = LDAP_VERSION3;
        ldap_set_option(raw, LDAP_OPT_PROTOCOL_VERSION, &v);
        std::string pw = s.rootPassword();
        berval cred{static_cast<ber_len_t>(pw.size()), &pw[0]};
        bound_ = ldap_sasl_bind_s(raw, s.rootDn().c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr) == LDAP_SUCCESS;
    }
    bool ok() const { return bound_; }
    // op LDAP_MOD_ADD or LDAP_MOD_REPLACE of one attribute.
    bool Modify(const std::string &dn, int op, const char *attr, std::vector<std::string> values) {
        std::vector<char *> vals;
        for (auto &v : values) vals.push_back(&v[0]);
        vals.push_back(nullptr);
        LDAPMod mod{};
        mod.mod_op = op;
        mod.mod_type = const_cast<char *>(attr);
        mod.mod_values = vals.data();
        LDAPMod *mods[] = {&mod, nullptr};
        return ldap_modify_ext_s(ld_.get(), dn.c_str(), mods, nullptr, nullptr) == LDAP_SUCCESS;
    }
    bool AddPerson(const std::string &dn, const std::string &uid) {
        std::string oc = "inetOrgPerson", u = uid;
        char *ocv[] = {&oc[0], nullptr}, *uv[] = {&u[0], nullptr};
        LDAPMod m1{LDAP_MOD_ADD, const_cast<char *>("objectClass"), {ocv}};
        LDAPMod m2{LDAP_MOD_ADD, const_cast<char *>("uid"), {uv}};
        LDAPMod m3{LDAP_MOD_ADD, const_cast<char *>("cn"), {uv}};
        LDAPMod m4{LDAP_MOD_ADD, const_cast<char *>("sn"), {uv}};
        LDAPMod *mods[] = {&m1, &m2, &m3, &m4, nullptr};
        return ldap_add_ext_s(ld_.get(), dn.c_str(), mods, nullptr, nullptr) == LDAP_SUCCESS;
    }

private:
    struct Closer {
        void operator()(LDAP *l) const { ldap_unbind_ext_s(l, nullptr, nullptr); }
    };
    std::unique_ptr<LDAP, Closer> ld_;
    bool bound_ = false;
};

} // namespace kova_test

#endif
