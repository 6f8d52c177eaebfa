// A throw-away OpenLDAP server for tests: a temporary directory with a generated slapd.conf (mdb backend, a
// low size limit so that only paged searches read everything), N users and M groups loaded with slapadd, and
// slapd listening on a free loopback port. Stopped and removed by the destructor.
#ifndef KOVA_TEST_SLAPD_H
#define KOVA_TEST_SLAPD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kova_test {

class Slapd {
public:
    struct Account {
        std::string uid;  // users: uid; groups: cn
        std::string desc, mail, fullname;
        bool group = false;
    };

    // Generated accounts: users "user0000".. with mail "userNNNN@example.com", displayName "Person NNNN",
    // description "Staff NNNN"; groups "group00".. (posixGroup) with description "Team NN".
    Slapd(int users, int groups);
    ~Slapd();
    Slapd(const Slapd &) = delete;
    Slapd &operator=(const Slapd &) = delete;

    // True when slapd and slapadd are installed (tests skip otherwise).
    static bool Installed();
    // Extra accounts; call before Start.
    void Add(const Account &a) { extra_.push_back(a); }
    // Writes the config and data, loads it and starts the server; false with a reason in *error.
    bool Start(std::string *error);
    void Stop();
    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    int port() const { return port_; }

    std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(port_) + "/"; }
    std::string base() const { return "dc=example,dc=com"; }
    std::string rootDn() const { return "cn=admin,dc=example,dc=com"; }
    std::string rootPassword() const { return "secret"; }
    // The accounts as an LDIF file of entries (for LDIF imports).
    std::string LdifPath() const { return dir_ + "/data.ldif"; }
    int userCount() const;
    int groupCount() const;

private:
    std::string Ldif() const;
    int users_, groups_;
    std::vector<Account> extra_;
    std::string dir_;
    int port_ = 0;
    pid_t pid_ = -1;
};

} // namespace kova_test

#endif
