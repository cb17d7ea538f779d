// orlanbeck: middle layer between a hotel's PMS (FIAS over TCP) and an Asterisk
// exchange (SQL templates on its databases, and the Manager interface).
//
// The main thread owns everything the process shares: the configuration
// loader, the PMS link, the stop flag and the billing and capture threads.
// It reads the link and hands each record to a worker of its own; signals are
// counted by their handlers and acted upon here.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "billing/background.h"
#include "config.h"
#include "config_check.h"
#include "daemon.h"
#include "fias/link.h"
#include "handlers/dispatch.h"
#include "logger.h"
#include "mgr/cdr.h"
#include "ops/notify.h"
#include "owned_thread.h"
#include "process.h"
#include "rooms/rooms.h"
#include "states/states.h"
#include "stop_flag.h"

namespace {

// clang-format off
const struct option longopts[] = {
    {"config", required_argument, nullptr, 'c'},
    {"foreground", no_argument, nullptr, 'f'},
    {"log-to-console", no_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {"test-config", no_argument, nullptr, 't'},
    {nullptr, 0, nullptr, 0},
};
// clang-format on

struct options {
    std::string config_file = "/etc/orlanbeck.conf";
    bool foreground = false;
    bool console_log = false;
    int test_config = 0;  // -t: check the configuration (-tt: and its databases)
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
// directory it was started in, so that reloads find it.
std::string absolute_path(const char* path) {
    if (path[0] == '/' || path[0] == '\0') return path;
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return path;
    return std::string(cwd) + "/" + path;
}

options get_options(int argc, char** argv) {
    options opts;
    opterr = 0;  // the usage text is the only complaint
    int c;
    while ((c = getopt_long(argc, argv, "c:fdsht", longopts, nullptr)) != -1) {
        switch (c) {
            case 'c':
                opts.config_file = absolute_path(optarg);
                break;
            case 'f':
                opts.foreground = true;
                break;
            case 'd':
                opts.console_log = true;
                break;
            case 't':
                opts.test_config++;
                break;
            case 'h':
            case '?':
                usage(argv);
                exit(0);
            default:  // -s is accepted and ignored
                break;
        }
    }
    if (opts.console_log && !opts.foreground) {
        usage(argv);
        exit(0);
    }
    return opts;
}

// What the signal handlers act on. They run in the main thread, from
// signal_handle_all(), never in a signal context (fault signals excepted,
// which have their own handler).
struct process_state {
    options opts;
    config_loader* configs = nullptr;
    pms_link* link = nullptr;
    // The corrections in force for the whole run, from the first load.
    fixes_settings start_fixes;
    std::string statesfile;
    stop_flag stop;  // billing
    owned_thread billing;
    // The capture thread and its stop flag; flags of threads that were given
    // up on are kept, since those threads may still look at them.
    std::vector<std::unique_ptr<stop_flag>> capture_stops;
    owned_thread capture;
    std::unique_ptr<ordered_records> ordered;
    bool pms_moved = false;  // the link was ended to connect elsewhere
};
process_state* self = nullptr;

void apply_logger(const config& cfg) {
    logger_init(self->opts.console_log ? "" : cfg.logfile.c_str(), cfg.loglevel, cfg.logtype,
                cfg.disable_log);
}

pms_link::options link_options(const config& cfg) {
    return pms_link::options{cfg.fixes.link_end, cfg.fixes.quiet,
                             fias_codec_options{cfg.fixes.numbers}};
}

void start_capture(const config_ptr& cfg) {
    if (!cfg->use_manager) return;
    self->capture_stops.push_back(std::make_unique<stop_flag>());
    stop_flag& stop = *self->capture_stops.back();
    notify_running(notify_part::capture);
    self->capture.start([cfg, &stop] { cdrmanager_thread(cfg, stop); });
}

// Stops the capture thread, waiting until `deadline` at most.
bool stop_capture(std::chrono::steady_clock::time_point deadline) {
    if (!self->capture.running()) return true;
    self->capture_stops.back()->request();
    return self->capture.join_until(deadline);
}

// Stops the billing and capture threads (and the record worker), waiting a
// few seconds at most, drops the link, closes the databases whose lock is
// free, removes the pid file and ends the process with `status`.
[[noreturn]] void shut_down(int status) {
    self->stop.request();
    notify_finish();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    bool joined = self->billing.join_until(deadline);
    joined = stop_capture(deadline) && joined;
    if (self->ordered) joined = self->ordered->stop(deadline) && joined;
    self->link->drop();
    // A record worker may still be using a database: one whose lock is taken
    // is left as it is.
    for (const dbdriver_ptr& drv : self->configs->current()->dbdrivers) {
        if (!drv->try_lock()) continue;
        drv->close();
        drv->unlock();
    }
    if (sqliteint.try_lock()) {
        sqliteint.close();
        sqliteint.unlock();
    }
    if (!self->opts.foreground) daemon_close();
    fflush(nullptr);
    // A thread that could not be joined may still touch the process's
    // objects: leave without running their destructors.
    if (!joined) _exit(status);
    exit(status);
}

void sig_term(int signo) {
    LOG(L_NOTICE, "Caught signal %d. Exiting.", signo);
    shut_down(0);
}

// Fault signals run at once, in whatever thread they hit: only
// async-signal-safe calls. The log line is the one SIGTERM writes. With
// [fixes] signals the process then ends by the signal itself, so that a
// supervisor sees the crash; otherwise with status 0.
volatile sig_atomic_t crash_ends_by_signal = 0;

void sig_fault(int signo) {
    char text[32] = "Caught signal ";
    size_t n = strlen(text);
    if (signo >= 10) text[n++] = static_cast<char>('0' + signo / 10 % 10);
    text[n++] = static_cast<char>('0' + signo % 10);
    memcpy(text + n, ". Exiting.", sizeof ". Exiting.");
    write_log_async_safe(L_NOTICE, __FILE_NAME__, __LINE__, "sig_term", text);
    daemon_close_async_safe();
    if (crash_ends_by_signal) {
        signal(signo, SIG_DFL);
        raise(signo);
    }
    _exit(0);
}

// After a reload with [fixes] reload: the room list, the PMS address and the
// Manager session follow the new configuration.
void apply_reload(const config& before, const config_ptr& after) {
    load_rooms_conf(after->rooms, self->statesfile, after->fixes.dates);
    if (before.pmshost != after->pmshost || before.pmsport != after->pmsport ||
        before.pmsinterface != after->pmsinterface) {
        LOG(L_NOTICE, "PMS settings changed: connecting to %s:%d", after->pmshost.c_str(),
            after->pmsport);
        self->pms_moved = true;
        self->link->end();
    }
    if (before.use_manager != after->use_manager || before.mgr_host != after->mgr_host ||
        before.mgr_port != after->mgr_port || before.mgr_user != after->mgr_user ||
        before.mgr_passwd != after->mgr_passwd || before.mgr_events != after->mgr_events) {
        LOG(L_NOTICE, "Manager settings changed: starting a new session");
        notify_manager(after->use_manager);
        if (!stop_capture(std::chrono::steady_clock::now() + std::chrono::seconds(3)))
            LOG(L_WARNING, "The old Manager session did not stop; it is left behind");
        start_capture(after);
    }
}

void sig_hup(int) {
    logger_reopen();  // a rotated log file is left for a new one
    LOG(L_NOTICE, "Hangup. Reloading configuration.");
    const config_ptr before = self->configs->current();
    if (self->configs->load() < 0) {
        LOG(L_ERROR, "Unable to open configuration file %s. Exiting...",
            self->configs->path().c_str());
        shut_down(before->fixes.exit_status ? 1 : 0);
    }
    config_ptr cfg = self->configs->current();
    check_configuration(*cfg);
    apply_logger(*cfg);
    if (cfg->fixes.reload) apply_reload(*before, cfg);
}

// Opens the link to the PMS of the current configuration (a reload moves the
// next connection, not the present one).
bool connect_pms() {
    config_ptr cfg = self->configs->current();
    const char* interface = cfg->pmsinterface ? cfg->pmsinterface->c_str() : "";
    self->link->set_options(link_options(*cfg));
    notify_waiting(notify_part::main_loop, true);
    const bool ok = self->link->connect(cfg->pmshost, cfg->pmsport) == 0;
    notify_waiting(notify_part::main_loop, false);
    notify_pms_connect(cfg->pmshost, cfg->pmsport, ok);
    if (ok) return true;
    LOG(L_ERROR, "Unable to connect to PMS at %s:%d/%s", cfg->pmshost.c_str(), cfg->pmsport,
        interface);
    return false;
}

void install_signal_handlers() {
    signal_set_handler(SIGHUP, 0, sig_hup);
    signal_set_handler(SIGTERM, 0, sig_term);
    signal_set_handler(SIGCHLD, 0, SIG_IGN);
    signal_set_handler(SIGUSR1, 0, SIG_IGN);
    signal_set_handler(SIGUSR2, 0, SIG_IGN);
    signal_set_handler(SIGINT, 0, sig_term);
    signal_set_handler(SIGABRT, 0, sig_fault);
    signal_set_handler(SIGQUIT, 0, sig_term);
    signal_set_handler(SIGKILL, 0, sig_term);  // refused by the system, as expected
}

// Hands one record to its handler: a worker per record, or, with [fixes]
// ordered_records, the reader itself for link records and the one ordered
// worker for all others.
void dispatch(const config_loader& configs, pms_link& link, const char* record) {
    if (!self->ordered) {
        std::thread(process_fias_packet, std::cref(configs), std::ref(link), std::string(record))
            .detach();
    } else if (is_link_record(record)) {
        process_fias_packet(configs, link, record);
    } else {
        self->ordered->push(record);
    }
}

}  // namespace

int main(int argc, char** argv) {
    process_state state;
    self = &state;
    if (argc > 1) state.opts = get_options(argc, argv);
    if (state.opts.test_config > 0)
        return test_configuration(state.opts.config_file, state.opts.test_config);

    config_loader configs(state.opts.config_file);
    state.configs = &configs;
    if (configs.load() < 0) {
        fprintf(stderr, "\nUnable to open configuration file %s. Exiting...\n\n",
                configs.path().c_str());
        exit(0);
    }
    check_configuration(*configs.current());
    state.start_fixes = configs.current()->fixes;

    pid_t pid = state.opts.foreground ? 0 : fork();
    if (pid != 0) {
        // The parent (or a failed fork) is done. It leaves without closing
        // the database connections it shares with the child.
        fflush(nullptr);
        _exit(0);
    }
    if (!state.opts.foreground || state.start_fixes.signals) {
        crash_ends_by_signal = state.start_fixes.signals;
        install_signal_handlers();
        if (state.start_fixes.signals) signal_set_handler(SIGSEGV, 0, sig_fault);
    }
    if (!state.opts.foreground) {
        const char* name = strrchr(argv[0], '/');
        daemon_init(name ? name + 1 : argv[0]);
    }

    pms_link link;
    state.link = &link;
    config_ptr cfg = configs.current();
    if (state.start_fixes.private_files) logger_set_file_mode(0640);
    apply_logger(*cfg);
    // The first warnings came before the logger had its settings.
    check_configuration(*cfg);

    state.statesfile = cfg->statesfile;
    if (open_states_file(cfg->statesfile) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", cfg->statesfile.c_str());
        exit(1);
    }
    if (state.start_fixes.private_files)
        for (const char* suffix : {"", "-wal", "-shm"})
            chmod((cfg->statesfile + suffix).c_str(), 0640);
    load_rooms_conf(cfg->rooms, cfg->statesfile, cfg->fixes.dates);

    // While the reader waits, signals are still acted upon.
    link.set_idle_hook([] {
        notify_beat(notify_part::main_loop);
        signal_handle_all();
    });
    notify_start(link, cfg->statesfile, cfg->use_manager);
    connect_pms();

    state.billing.start([&] { service_background(configs, link, state.stop); });
    start_capture(cfg);
    if (state.start_fixes.ordered_records)
        state.ordered = std::make_unique<ordered_records>(configs, link);
    cfg.reset();
    notify_ready();

    char buffer[4096];
    for (;;) {
        notify_beat(notify_part::main_loop);
        if (!link.is_open()) {
            if (!connect_pms()) {
                signal_handle_all();
                std::this_thread::sleep_for(std::chrono::seconds(1));
                // With [fixes] link_end a link that is down is not lost again.
                if (configs.current()->fixes.link_end) continue;
            }
        }
        int n = link.read_packet(buffer, sizeof buffer);
        const fixes_settings fixes = configs.current()->fixes;
        if (n >= 0 && fixes.link_end && strncmp(buffer, "LE", 2) == 0 && is_link_record(buffer)) {
            LOG(L_DEBUG, "Read %s", buffer);
            n = -1;  // the PMS ends the link
        }
        if (n < 0) {
            if (!state.pms_moved) LOG(L_WARNING, "Connection to PMS lost");
            state.pms_moved = false;
            link.drop();
        } else {
            LOG(L_DEBUG, "Read %s", buffer);
            if (!is_link_record(buffer)) notify_record(buffer);
            dispatch(configs, link, buffer);
        }
        signal_handle_all();
        if (!state.ordered) std::this_thread::sleep_for(record_pause());
    }
}
