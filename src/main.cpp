// orlanbeck: middle layer between a hotel's PMS (FIAS over TCP) and an Asterisk
// exchange (SQL templates on its databases, and the Manager interface).
//
// The main thread owns everything the process shares: the configuration
// loader, the PMS link, the stop flag and the billing and capture threads.
// It reads the link and hands each record to a worker of its own; signals are
// counted by their handlers and acted upon here.
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "billing/background.h"
#include "config.h"
#include "config_check.h"
#include "daemon.h"
#include "fias/link.h"
#include "handlers/dispatch.h"
#include "logger.h"
#include "mgr/cdr.h"
#include "process.h"
#include "rooms/rooms.h"
#include "states/states.h"
#include "stop_flag.h"

namespace {

const struct option longopts[] = {
    {"config", required_argument, nullptr, 'c'},
    {"foreground", no_argument, nullptr, 'f'},
    {"log-to-console", no_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

struct options {
    std::string config_file = "/etc/orlanbeck.conf";
    bool foreground = false;
    bool console_log = false;
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
    while ((c = getopt_long(argc, argv, "c:fdsh", longopts, nullptr)) != -1) {
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

// A thread of the process that can be waited for with a deadline: one that
// the design leaves blocked for good is given up on, not joined.
class owned_thread {
  public:
    template <typename F>
    void start(F body) {
        std::packaged_task<void()> task(std::move(body));
        done_ = task.get_future();
        thread_ = std::thread(std::move(task));
    }
    // True when the thread ended (and was joined) before `deadline`.
    bool join_until(std::chrono::steady_clock::time_point deadline) {
        if (!thread_.joinable()) return true;
        if (done_.wait_until(deadline) != std::future_status::ready) {
            thread_.detach();
            return false;
        }
        thread_.join();
        return true;
    }

  private:
    std::thread thread_;
    std::future<void> done_;
};

// What the signal handlers act on. They run in the main thread, from
// signal_handle_all(), never in a signal context (SIGABRT excepted, which
// has its own handler).
struct process_state {
    options opts;
    config_loader* configs = nullptr;
    pms_link* link = nullptr;
    stop_flag stop;
    owned_thread billing;
    owned_thread capture;
};
process_state* self = nullptr;

void apply_logger(const config& cfg) {
    logger_init(self->opts.console_log ? "" : cfg.logfile.c_str(), cfg.loglevel, cfg.logtype,
                cfg.disable_log);
}

// Stops the billing and capture threads (waiting a few seconds at most),
// drops the link, closes the databases whose lock is free, removes the pid
// file and ends the process with `status`.
[[noreturn]] void shut_down(int status) {
    self->stop.request();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    bool billing_joined = self->billing.join_until(deadline);
    bool capture_joined = self->capture.join_until(deadline);
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
    if (!billing_joined || !capture_joined) _exit(status);
    exit(status);
}

void sig_term(int signo) {
    LOG(L_NOTICE, "Caught signal %d. Exiting.", signo);
    shut_down(0);
}

// SIGABRT runs at once, in whatever thread it hits: only async-signal-safe
// calls. The log line is the one SIGTERM writes.
void sig_abort(int signo) {
    char text[] = "Caught signal 0. Exiting.";
    text[14] = static_cast<char>('0' + signo % 10);
    write_log_async_safe(L_NOTICE, __FILE_NAME__, __LINE__, "sig_term", text);
    daemon_close_async_safe();
    _exit(0);
}

void sig_hup(int) {
    LOG(L_NOTICE, "Hangup. Reloading configuration.");
    if (self->configs->load() < 0) {
        LOG(L_ERROR, "Unable to open configuration file %s. Exiting...",
            self->configs->path().c_str());
        shut_down(0);
    }
    config_ptr cfg = self->configs->current();
    warn_service_strings(*cfg);
    apply_logger(*cfg);
}

// Opens the link to the PMS of the current configuration (a reload moves the
// next connection, not the present one).
bool connect_pms() {
    config_ptr cfg = self->configs->current();
    const char* interface = cfg->pmsinterface ? cfg->pmsinterface->c_str() : "";
    if (self->link->connect(cfg->pmshost, cfg->pmsport) == 0) return true;
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
    signal_set_handler(SIGABRT, 0, sig_abort);
    signal_set_handler(SIGQUIT, 0, sig_term);
    signal_set_handler(SIGKILL, 0, sig_term);  // refused by the system, as expected
}

}  // namespace

int main(int argc, char** argv) {
    process_state state;
    self = &state;
    if (argc > 1) state.opts = get_options(argc, argv);

    config_loader configs(state.opts.config_file);
    state.configs = &configs;
    if (configs.load() < 0) {
        fprintf(stderr, "\nUnable to open configuration file %s. Exiting...\n\n",
                configs.path().c_str());
        exit(0);
    }
    warn_service_strings(*configs.current());

    pid_t pid = state.opts.foreground ? 0 : fork();
    if (pid != 0) {
        // The parent (or a failed fork) is done. It leaves without closing
        // the database connections it shares with the child.
        fflush(nullptr);
        _exit(0);
    }
    if (!state.opts.foreground) {
        install_signal_handlers();
        const char* name = strrchr(argv[0], '/');
        daemon_init(name ? name + 1 : argv[0]);
    }

    pms_link link;
    state.link = &link;
    config_ptr cfg = configs.current();
    apply_logger(*cfg);
    // The first warnings came before the logger had its settings.
    warn_service_strings(*cfg);

    if (open_states_file(cfg->statesfile) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", cfg->statesfile.c_str());
        exit(1);
    }
    load_rooms_conf(cfg->rooms, cfg->statesfile);

    // While the reader waits, signals are still acted upon.
    link.set_idle_hook(signal_handle_all);
    connect_pms();

    state.billing.start([&] { service_background(configs, link, state.stop); });
    if (cfg->use_manager) state.capture.start([&, cfg] { cdrmanager_thread(cfg, state.stop); });
    cfg.reset();

    char buffer[4096];
    for (;;) {
        if (!link.is_open()) {
            if (!connect_pms()) {
                signal_handle_all();
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
        }
        int n = link.read_packet(buffer, sizeof buffer);
        if (n < 0) {
            LOG(L_WARNING, "Connection to PMS lost");
            link.drop();
        } else {
            LOG(L_DEBUG, "Read %s", buffer);
            std::thread(process_fias_packet, std::cref(configs), std::ref(link),
                        std::string(buffer))
                .detach();
        }
        signal_handle_all();
        std::this_thread::sleep_for(record_pause());
    }
}
