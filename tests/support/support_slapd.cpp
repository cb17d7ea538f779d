#include "support_slapd.h"

#include <sys/stat.h>

#include "netutil.h"

using namespace std::chrono_literals;

bool slapd_server::start() {
    std::string conf = "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    for (const char* schema : {"core", "cosine", "inetorgperson", "nis"})
        conf += std::string("include /etc/ldap/schema/") + schema + ".schema\n";
    conf += "pidfile " + dir_.file("slapd.pid") + "\nargsfile " + dir_.file("slapd.args") +
            "\ndatabase mdb\nmaxsize 16777216\nsuffix \"" + suffix + "\"\nrootdn \"" + admin_dn +
            "\"\nrootpw " + admin_password + "\ndirectory " + dir_.file("db") + "\n";
    write_file(dir_.file("slapd.conf"), conf);
    mkdir(dir_.file("db").c_str(), 0700);
    // A free port may be taken by somebody else before slapd binds it.
    bool up = false;
    for (int attempt = 0; attempt < 3 && !up; ++attempt) {
        up = launch();
        if (!up) stop();
    }
    up = up && add(std::string("dn: ") + suffix +
                   "\nobjectClass: dcObject\nobjectClass: organization\ndc: hotel\no: Hotel\n");
    if (up) error_.clear();  // of the searches made while slapd was starting
    return up;
}

bool slapd_server::launch() {
    port_ = pick_free_port();
    slapd_ = std::make_unique<child_process>();
    // -d none: in the foreground, printing only what is always logged.
    if (slapd_->start(
            {find_program({"slapd"}), "-f", dir_.file("slapd.conf"), "-h", uri(), "-d", "none"}) &&
        wait_until([&] {
            return !slapd_->running() ||
                   client({"ldapsearch", "-b", "", "-s", "base", "namingContexts"}, nullptr);
        }) &&
        slapd_->running())
        return true;
    error_ = "slapd did not come up on " + uri() + "; its output:\n" + slapd_->output();
    return false;
}

bool slapd_server::client(const std::vector<std::string>& argv, const std::string* input) {
    std::vector<std::string> args = {find_program({argv[0]}), "-x", "-H", uri()};
    args.insert(args.end(), argv.begin() + 1, argv.end());
    child_process tool;
    int status = tool.start(args, input) ? tool.wait_exit(10s) : -1;
    tool.stop();
    if (status != 0)
        error_ = argv[0] + " failed (" + std::to_string(status) + "):\n" + tool.output() +
                 "\nslapd:\n" + (slapd_ ? slapd_->output() : "");
    return status == 0;
}

bool slapd_server::add(const std::string& ldif) {
    return client({"ldapadd", "-D", admin_dn, "-w", admin_password}, &ldif);
}

void slapd_server::stop() {
    if (slapd_) slapd_->terminate(10s);
}
