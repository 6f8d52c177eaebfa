#include "slapd.h"
#include "temp-root.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

namespace kova_test {

namespace {
const char kSlapd[] = "/usr/sbin/slapd";
const char kSlapadd[] = "/usr/sbin/slapadd";

std::string Num(int v, int width) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%0*d", width, v);
    return buf;
}

// Binds a socket to loopback port `port` (0: any free one) and returns the
// port it got, or with `connectTo` connects to it instead; -1 on failure.
int Loopback(int port, bool connectTo) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t len = sizeof(a);
    auto *sa = reinterpret_cast<sockaddr *>(&a);
    const bool ok = fd >= 0 && (connectTo ? connect(fd, sa, len) == 0
                                          : bind(fd, sa, len) == 0 && getsockname(fd, sa, &len) == 0);
    if (fd >= 0) close(fd);
    return ok ? ntohs(a.sin_port) : -1;
}

// Base64, so any character survives the LDIF.
std::string B64(const std::string &s) {
    std::string out(4 * ((s.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                                  reinterpret_cast<const unsigned char *>(s.data()), static_cast<int>(s.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}
} // namespace

Slapd::Slapd(int users, int groups) : users_(users), groups_(groups) {}

Slapd::~Slapd() {
    Stop();
    if (!dir_.empty()) RemoveTree(dir_);
}

bool Slapd::Installed() { return access(kSlapd, X_OK) == 0 && access(kSlapadd, X_OK) == 0; }

int Slapd::userCount() const {
    int n = users_;
    for (const auto &a : extra_) n += a.group ? 0 : 1;
    return n;
}

int Slapd::groupCount() const {
    int n = groups_;
    for (const auto &a : extra_) n += a.group ? 1 : 0;
    return n;
}

std::string Slapd::Ldif() const {
    std::ostringstream o;
    o << "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\ndc: example\no: Example\n\n"
      << "dn: ou=people,dc=example,dc=com\nobjectClass: organizationalUnit\nou: people\n\n"
      << "dn: ou=groups,dc=example,dc=com\nobjectClass: organizationalUnit\nou: groups\n\n";
    std::vector<Account> all;
    for (int i = 0; i < users_; ++i)
        all.push_back({"user" + Num(i, 4), "Staff " + Num(i, 4), "user" + Num(i, 4) + "@example.com", "Person " + Num(i, 4), false});
    for (int i = 0; i < groups_; ++i) all.push_back({"group" + Num(i, 2), "Team " + Num(i, 2), "", "", true});
    all.insert(all.end(), extra_.begin(), extra_.end());
    int id = 0;
    for (const auto &a : all) {
        ++id;
        // Entries are named by number, so account names need no DN escaping.
        if (a.group) {
            o << "dn: gidNumber=" << 5000 + id << ",ou=groups,dc=example,dc=com\nobjectClass: posixGroup\n"
              << "cn:: " << B64(a.uid) << "\ngidNumber: " << 5000 + id << "\n";
            if (!a.desc.empty()) o << "description:: " << B64(a.desc) << "\n";
        } else {
            std::string rdn = "u" + std::to_string(10000 + id);
            o << "dn: uidNumber=" << 10000 + id << ",ou=people,dc=example,dc=com\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\n"
              << "uid:: " << B64(a.uid) << "\ncn: " << rdn << "\nsn: " << rdn << "\nuidNumber: " << 10000 + id
              << "\ngidNumber: 100\nhomeDirectory: /home/" << rdn << "\n";
            if (!a.mail.empty()) o << "mail:: " << B64(a.mail) << "\n";
            if (!a.desc.empty()) o << "description:: " << B64(a.desc) << "\n";
            if (!a.fullname.empty()) o << "displayName:: " << B64(a.fullname) << "\n";
        }
        o << "\n";
    }
    return o.str();
}

bool Slapd::Start(std::string *error) {
    auto fail = [&](const std::string &why) {
        if (error) *error = why;
        return false;
    };
    if (!Installed()) return fail("slapd is not installed");
    char tmpl[] = "/tmp/kova-slapd-XXXXXX";
    if (!mkdtemp(tmpl)) return fail("mkdtemp failed");
    dir_ = tmpl;
    std::ostringstream conf;
    conf << "include /etc/ldap/schema/core.schema\ninclude /etc/ldap/schema/cosine.schema\n"
         << "include /etc/ldap/schema/nis.schema\ninclude /etc/ldap/schema/inetorgperson.schema\n"
         << "pidfile " << dir_ << "/slapd.pid\nmodulepath /usr/lib/ldap\nmoduleload back_mdb\n"
         // Plain searches stop at 50 entries; paged ones may read everything.
         << "sizelimit size.soft=50 size.hard=50 size.pr=100 size.prtotal=unlimited\n"
         << "database mdb\nmaxsize 268435456\nsuffix \"" << base() << "\"\nrootdn \"" << rootDn() << "\"\nrootpw "
         << rootPassword() << "\ndirectory " << dir_ << "/db\n";
    if (!WriteFile(dir_ + "/slapd.conf", conf.str()) || !MakeDirs(dir_ + "/db") || !WriteFile(LdifPath(), Ldif()))
        return fail("cannot write the server files");
    std::string add = std::string(kSlapadd) + " -q -f " + dir_ + "/slapd.conf -l " + LdifPath() + " > " + dir_ + "/slapadd.log 2>&1";
    if (std::system(add.c_str()) != 0) return fail("slapadd failed, see " + dir_ + "/slapadd.log");
    // The port is free when picked, but until slapd binds it another process's outgoing connection may take
    // it as its own local port; slapd then exits at once, and a new port is tried.
    for (int attempt = 0; attempt < 3; ++attempt) {
        port_ = Loopback(0, false);
        if (port_ <= 0) return fail("no free port");
        pid_t pid = fork();
        if (pid < 0) return fail("fork failed");
        if (pid == 0) {
            std::string confFile = dir_ + "/slapd.conf", url = uri();
            // -d 0 keeps slapd in the foreground, so this pid is the server's.
            execl(kSlapd, "slapd", "-f", confFile.c_str(), "-h", url.c_str(), "-d", "0", static_cast<char *>(nullptr));
            _exit(127);
        }
        pid_ = pid;
        for (int i = 0; i < 200 && pid_ > 0; ++i) {
            if (Loopback(port_, true) > 0) return true;
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
            else std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (pid_ > 0) {
            Stop();
            return fail("slapd did not start listening");
        }
    }
    return fail("slapd exited at start, three times");
}

void Slapd::Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status;
    waitpid(pid_, &status, 0);
    pid_ = -1;
}

} // namespace kova_test
