#include "support_slapd.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

#include "netutil.h"

namespace {

using namespace std::chrono_literals;


std::string slapd_conf(const temp_dir& dir) {
    std::ostringstream conf;
    conf << "include /etc/ldap/schema/core.schema\n"
         << "include /etc/ldap/schema/cosine.schema\n"
         << "include /etc/ldap/schema/inetorgperson.schema\n"
         << "include /etc/ldap/schema/nis.schema\n"
         << "pidfile " << dir.file("slapd.pid") << "\n"
         << "argsfile " << dir.file("slapd.args") << "\n"
         << "modulepath /usr/lib/ldap\n"
         << "moduleload back_mdb\n"
         << "database mdb\n"
         << "maxsize 16777216\n"
         << "suffix \"" << slapd_server::suffix << "\"\n"
         << "rootdn \"" << slapd_server::admin_dn << "\"\n"
         << "rootpw " << slapd_server::admin_password << "\n"
         << "directory " << dir.file("db") << "\n";
    return conf.str();
}

// Runs a client program to its end; its exit status (-1 when it could not
// start or did not end within `timeout`), its output in *out.
int run_tool(const std::vector<std::string>& argv, const std::string* input, std::string* out,
             std::chrono::milliseconds timeout = 10s) {
    child_process tool;
    if (!tool.start(argv, input)) {
        *out = "cannot start " + argv[0];
        return -1;
    }
    int status = tool.wait_exit(timeout);
    tool.stop();
    *out = tool.output();
    return status;
}

}  // namespace

slapd_server::~slapd_server() {
    stop();
}

std::string slapd_server::uri() const {
    return "ldap://127.0.0.1:" + std::to_string(port_) + "/";
}

bool slapd_server::start() {
    if (dir_.path().empty()) {
        error_ = "cannot create a temporary folder for slapd";
        return false;
    }
    write_file(dir_.file("slapd.conf"), slapd_conf(dir_));
    std::error_code ec;
    std::filesystem::create_directory(dir_.file("db"), ec);
    if (ec) {
        error_ = "cannot create " + dir_.file("db") + ": " + ec.message();
        return false;
    }
    // A free port may be taken by somebody else before slapd binds it: try
    // again with another one.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (launch()) break;
        stop();
        if (attempt == 2) return false;
    }
    std::string ldif = std::string("dn: ") + suffix +
                       "\nobjectClass: dcObject\nobjectClass: organization\ndc: hotel\no: "
                       "Hotel\n";
    return add(ldif);
}

bool slapd_server::launch() {
    port_ = pick_free_port();
    if (port_ <= 0) {
        error_ = "no free port on 127.0.0.1";
        return false;
    }
    slapd_ = std::make_unique<child_process>();
    // -d none: stay in the foreground and print only the messages that are
    // always logged (start, configuration errors).
    std::vector<std::string> argv = {
        find_program({"slapd"}), "-f", dir_.file("slapd.conf"), "-h", uri(), "-d", "none"};
    if (!slapd_->start(argv)) {
        error_ = "cannot start " + argv[0];
        return false;
    }
    running_ = true;
    bool started = wait_until(
        [&] {
            return slapd_->output().find("slapd starting") != std::string::npos ||
                   !slapd_->running();
        },
        15s);
    if (started && slapd_->running() && wait_until([&] { return answers(); }, 10s)) return true;
    error_ = "slapd did not come up on " + uri() + "; its output:\n" + slapd_->output();
    return false;
}

bool slapd_server::answers() {
    std::string out;
    return run_tool({find_program({"ldapsearch"}), "-x", "-H", uri(), "-b", "", "-s", "base", "-LLL",
                     "namingContexts"},
                    nullptr, &out, 5s) == 0;
}

bool slapd_server::add(const std::string& ldif) {
    std::string out;
    int status =
        run_tool({find_program({"ldapadd"}), "-x", "-H", uri(), "-D", admin_dn, "-w", admin_password},
                 &ldif, &out);
    if (status == 0) return true;
    error_ = "ldapadd failed (" + std::to_string(status) + "):\n" + out + "\nslapd:\n" +
             (slapd_ ? slapd_->output() : std::string());
    return false;
}

void slapd_server::stop() {
    if (!slapd_ || !running_) return;
    running_ = false;
    slapd_->signal(SIGTERM);
    slapd_->wait_exit(10s);
    slapd_->stop();  // SIGKILL if it is still there
}
