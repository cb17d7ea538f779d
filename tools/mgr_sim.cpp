// mgr_sim: an Asterisk Manager simulator on 127.0.0.1 for the demonstration
// and the scenario tests. See --help.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "netutil.h"
#include "sim_mgr.h"

namespace {

const char* const usage_text =
    "usage: %s [options]\n"
    "An Asterisk Manager simulator listening on 127.0.0.1.\n"
    "\n"
    "  --port N             port to listen on (default 0: pick a free one)\n"
    "  --port-file F        write the port into F once listening\n"
    "  --refuse             refuse every login (\"Authentication failed\")\n"
    "  --user U --secret S  accept only this user and secret\n"
    "  --no-filter          send Cdr events to every logged-in session, whatever\n"
    "                       its \"Events:\" value (by default only to sessions that\n"
    "                       asked for \"cdr\" or \"on\")\n"
    "  --script FILE        run the commands of FILE ('-' = standard input);\n"
    "                       without it, commands are read from standard input\n"
    "  --exit-after-script  end when the script ends (default: run until\n"
    "                       SIGTERM or SIGINT)\n"
    "  --help               this text\n"
    "\n"
    "Every received and sent text is printed with a time stamp. The first line\n"
    "is \"mgr_sim listening on 127.0.0.1:PORT\".\n"
    "\n"
    "Commands, one a line (words separated by blanks, \"...\" groups words,\n"
    "a backslash takes the next character; '#' starts a comment line):\n"
    "  cdr SRC DST START BILLSEC [Header=value ...] [-Header ...]\n"
    "      send one Cdr event to the logged-in sessions. START is\n"
    "      YYYY-MM-DDTHH:MM:SS (or _ for T) or 'now'. Header=value replaces or\n"
    "      appends a header (e.g. From=101 To=0049301234 Cost=0.25 CallClass=2),\n"
    "      Header= leaves it empty, -Header removes it.\n"
    "      e.g.  cdr 101 004930123456 2024-05-01T10:00:00 65 Cost=0.40\n"
    "  burst N SRC DST START BILLSEC [Header=value ...]\n"
    "      N such events as fast as the socket takes them (UniqueID <id>.1..N)\n"
    "  raw TEXT             send TEXT (escapes \\r \\n \\t \\\\) to every session\n"
    "  before-answer TEXT   send TEXT after reading a login, before answering it\n"
    "  drop                 close every connection\n"
    "  refuse on|off        refuse or accept the following logins\n"
    "  filter on|off        switch the event-class filter\n"
    "  wait-login [N] [S]   wait until N logins were accepted (default 1, 10 s)\n"
    "  sleep SECONDS        pause\n"
    "  quit                 end the script\n";

void print_transcript(int id, const char* dir, const std::string& text) {
    std::string stamp = time_stamp();
    size_t pos = 0;
    do {
        size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl == std::string::npos ? nl : nl - pos);
        pos = nl == std::string::npos ? text.size() : nl + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        // A message's closing empty line is not printed.
        if (line.empty() && pos >= text.size() && nl != std::string::npos) break;
        printf("%s [%d] %s %s\n", stamp.c_str(), id, dir, line.c_str());
    } while (pos < text.size());
    fflush(stdout);
}

void run_script(mgr_sim& sim, std::istream& in, bool exit_after) {
    std::string line;
    int lineno = 0;
    while (std::getline(in, line)) {
        ++lineno;
        std::string error;
        int r = sim.run_line(line, &error);
        if (r < 0) {
            printf("%s script line %d: %s\n", time_stamp().c_str(), lineno, error.c_str());
            fflush(stdout);
        }
        if (r == 1) break;
    }
    if (exit_after) kill(getpid(), SIGUSR1);
}

}  // namespace

int main(int argc, char** argv) {
    mgr_sim_options opts;
    std::string port_file, script, user, secret;
    bool exit_after = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) {
                fprintf(stderr, "%s needs a value\n", a.c_str());
                exit(2);
            }
            return argv[++i];
        };
        if (a == "--port") {
            opts.port = atoi(value());
        } else if (a == "--port-file") {
            port_file = value();
        } else if (a == "--refuse") {
            opts.refuse = true;
        } else if (a == "--no-filter") {
            opts.filter = false;
        } else if (a == "--user") {
            user = value();
            opts.check_credentials = true;
        } else if (a == "--secret") {
            secret = value();
            opts.check_credentials = true;
        } else if (a == "--script") {
            script = value();
        } else if (a == "--exit-after-script") {
            exit_after = true;
        } else if (a == "--help" || a == "-h") {
            printf(usage_text, argv[0]);
            return 0;
        } else {
            fprintf(stderr, "unknown option %s\n", a.c_str());
            fprintf(stderr, usage_text, argv[0]);
            return 2;
        }
    }
    opts.user = user;
    opts.secret = secret;
    opts.transcript = print_transcript;

    // Every thread inherits the blocked set; the main thread takes the signals.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);

    mgr_sim sim(opts);
    if (!sim.start()) {
        fprintf(stderr, "mgr_sim: cannot listen on 127.0.0.1:%d\n", opts.port);
        return 1;
    }
    printf("mgr_sim listening on 127.0.0.1:%d\n", sim.port());
    fflush(stdout);
    if (!port_file.empty()) {
        std::string tmp = port_file + ".tmp";
        if (FILE* f = fopen(tmp.c_str(), "w")) {
            fprintf(f, "%d\n", sim.port());
            fclose(f);
            rename(tmp.c_str(), port_file.c_str());
        }
    }

    // The script thread may be blocked reading; it ends with the process.
    std::thread([&sim, script, exit_after] {
        if (script.empty() || script == "-") {
            run_script(sim, std::cin, exit_after);
        } else {
            std::ifstream in(script);
            if (!in) {
                printf("%s cannot read %s\n", time_stamp().c_str(), script.c_str());
                fflush(stdout);
            }
            run_script(sim, in, exit_after);
        }
    }).detach();

    int signo = 0;
    sigwait(&set, &signo);
    if (signo == SIGUSR1)
        printf("%s end of script\n", time_stamp().c_str());
    else
        printf("%s signal %d, exiting\n", time_stamp().c_str(), signo);
    fflush(stdout);
    // Connections and threads end with the process.
    _exit(0);
}
