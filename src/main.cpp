// orlanbeck: middle layer between a hotel's PMS (FIAS over TCP) and an Asterisk
// exchange (SQL templates on its databases, and the Manager interface).
#include <getopt.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <thread>

#include "billing/background.h"
#include "billing/templates.h"
#include "config.h"
#include "daemon.h"
#include "db/sqlite.h"
#include "fias/link.h"
#include "guest/dispatch.h"
#include "logger.h"
#include "mgr/cdr.h"
#include "process.h"
#include "rooms/rooms.h"

namespace {

int foreground = 0;
int console_log = 0;
bool config_given = false;

const struct option longopts[] = {
    {"config", required_argument, nullptr, 'c'},
    {"foreground", no_argument, nullptr, 'f'},
    {"log-to-console", no_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

void usage(char** argv) {
    fprintf(stderr, "\n");
    fprintf(stderr, "Orlanbeck: middle layer FIAS application.\n\n");
    fprintf(stderr, "Usage:\n");
    fprintf(stderr, "%s [options]\n\n", argv[0]);
    fprintf(stderr, "Where options are:\n");
    fprintf(stderr, "\t-c <path>, --config=<path>\tuse custom config file \n");
    fprintf(stderr, "\t-f, --foreground \t\trun in foreground mode\n");
    fprintf(stderr, "\t-d, --log-to-console\t\tlog to console (requires -f)\n");
    fprintf(stderr, "\t-h, --help\t\t\tshow this text\n");
    fprintf(stderr, "\n\n");
}

// A daemon works in "/": a relative configuration path is taken from the
// directory it was started in, so that the room list and reloads find it.
std::string absolute_path(const char* path) {
    if (path[0] == '/' || path[0] == '\0') return path;
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return path;
    return std::string(cwd) + "/" + path;
}

void get_options(int argc, char** argv) {
    opterr = 0;  // the usage text is the only complaint
    int c;
    while ((c = getopt_long(argc, argv, "c:fdsh", longopts, nullptr)) != -1) {
        switch (c) {
            case 'c':
                config_file = absolute_path(optarg);
                config_given = true;
                break;
            case 'f':
                foreground = 1;
                break;
            case 'd':
                console_log = 1;
                break;
            case 'h':
            case '?':
                usage(argv);
                exit(0);
            default:  // -s is accepted and ignored
                break;
        }
    }
    if (console_log && !foreground) {
        usage(argv);
        exit(0);
    }
}

// Ends the process without running static destructors: detached worker
// threads may still be running and must not see their globals torn down.
[[noreturn]] void leave(int status) {
    fflush(nullptr);
    _exit(status);
}

void sig_term(int signo) {
    LOG(L_NOTICE, "Caught signal %d. Exiting.", signo);
    free_confvals();
    doexit = 1;
    // The billing thread is detached: shutdown never waits for a worker.
    if (!foreground) daemon_close();
    leave(0);
}

void apply_logger(const config& cfg) {
    logger_init(console_log ? "" : cfg.logfile.c_str(), cfg.loglevel, cfg.logtype,
                cfg.disable_log);
}

void sig_hup(int) {
    std::string copy = config_file;
    LOG(L_NOTICE, "Hangup. Reloading configuration.");
    free_confvals();
    if (load_conf(copy.c_str()) < 0) {
        LOG(L_ERROR, "Unable to open configuration file %s. Exiting...", copy.c_str());
        doexit = 1;
        leave(0);
    }
    apply_logger(*current_config());
}

// Opens the link to the PMS of the current configuration (a reload moves the
// next connection, not the present one).
bool connect_pms() {
    config_ptr cfg = current_config();
    const char* interface = cfg->pmsinterface ? cfg->pmsinterface->c_str() : "";
    fias_sock = fias_connect(cfg->pmshost.c_str(), cfg->pmsport, interface);
    if (fias_sock >= 0) return true;
    LOG(L_ERROR, "Unable to connect to PMS at %s:%d/%s", cfg->pmshost.c_str(), cfg->pmsport,
        interface);
    return false;
}

void install_signal_handlers() {
    signal_set_handler(SIGHUP, 0, sig_hup);
    signal_set_handler(SIGTERM, 0, sig_term);
    signal_set_handler(SIGTERM, 0, sig_term);
    signal_set_handler(SIGCHLD, 0, SIG_IGN);
    signal_set_handler(SIGUSR1, 0, SIG_IGN);
    signal_set_handler(SIGUSR2, 0, SIG_IGN);
    signal_set_handler(SIGINT, 0, sig_term);
    signal_set_handler(SIGABRT, 0, sig_term);
    signal_set_handler(SIGQUIT, 0, sig_term);
    signal_set_handler(SIGKILL, 0, sig_term);  // refused by the system, as expected
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) get_options(argc, argv);
    if (!config_given) config_file = "/etc/orlanbeck.conf";

    if (load_conf(config_file.c_str()) < 0) {
        fprintf(stderr, "\nUnable to open configuration file %s. Exiting...\n\n",
                config_file.c_str());
        exit(0);
    }

    pid_t pid = foreground ? 0 : fork();
    if (pid != 0) {
        // The parent (or a failed fork) is done. It leaves without closing
        // the database connections it shares with the child.
        free_confvals();
        leave(0);
    }

    if (!foreground) {
        install_signal_handlers();
        const char* name = strrchr(argv[0], '/');
        daemon_init(name ? name + 1 : argv[0]);
    }

    pms_connected = 0;
    config_ptr cfg = current_config();
    apply_logger(*cfg);
    // The load's warnings came before the logger had its settings.
    warn_service_strings(*cfg);

    if (open_states_file(cfg->statesfile.c_str()) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", cfg->statesfile.c_str());
        leave(1);
    }
    load_rooms_conf();

    const bool use_manager = cfg->use_manager;
    cfg.reset();

    // While the reader waits at the end of the stream, signals are still
    // acted upon.
    fias_set_idle_hook(signal_handle_all);
    connect_pms();

    std::thread(service_background).detach();
    if (use_manager) std::thread(cdrmanager_thread).detach();

    char buffer[4096];
    for (;;) {
        if (fias_sock <= 0) {
            if (!connect_pms()) {
                signal_handle_all();
                usleep(1000000);
            }
        }
        int n = fias_read_packet(fias_sock, buffer, sizeof buffer);
        if (n < 0) {
            LOG(L_WARNING, "Connection to PMS lost");
            fias_disconnect(fias_sock.exchange(-1));
            pms_connected = 0;
        } else {
            LOG(L_DEBUG, "Read %s", buffer);
            std::thread(process_fias_packet, std::string(buffer)).detach();
        }
        signal_handle_all();
        std::this_thread::sleep_for(record_pause());
    }
}
