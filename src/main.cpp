// orlanbeck: middle layer between a hotel's PMS (FIAS over TCP) and an Asterisk
// exchange (SQL templates on its databases, and the Manager interface).
//
// The main thread makes and owns everything the process shares: the
// configuration loader, the PMS link, the states file, the notifier, the
// resync and night-audit state, the postings that wait for answers, the
// record dispatcher, the billing thread and the Manager session. It reads the link,
// hands each record to the dispatcher, and acts on the signals counted by
// their handlers between two reads.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

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
#include "billing/pricing.h"
#include "config.h"
#include "config_check.h"
#include "daemon.h"
#include "dialcodes/dialcodes.h"
#include "fias/link.h"
#include "handlers/dispatch.h"
#include "logger.h"
#include "metrics.h"
#include "mgr/cdr.h"
#include "ops/notify.h"
#include "ops/status_server.h"
#include "owned_thread.h"
#include "process.h"
#include "rooms/rooms.h"
#include "states/states.h"
#include "stop_flag.h"
#include "templates/templates.h"
#include "text.h"
#include "wakeup/schedule.h"

namespace {

// clang-format off
const struct option longopts[] = {
    {"config", required_argument, nullptr, 'c'},
    {"foreground", no_argument, nullptr, 'f'},
    {"log-to-console", no_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {"test-config", no_argument, nullptr, 't'},
    {"pid-file", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};
// clang-format on

struct options {
    std::string config_file = "/etc/orlanbeck.conf";
    bool foreground = false;
    bool console_log = false;
    int test_config = 0;   // -t: check the configuration (-tt: and its databases)
    std::string pid_file;  // -p: this pid file, also in the foreground
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
    while ((c = getopt_long(argc, argv, "c:fdshtp:", longopts, nullptr)) != -1) {
        switch (c) {
            case 'c':
                opts.config_file = absolute_path(optarg);
                break;
            case 'p':
                opts.pid_file = absolute_path(optarg);
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

// orlanbeck --price <number> <seconds> [<YYYY-MM-DD HH:MM:SS>] [-c <file>]:
// prices one call from the configured tariff file, as billing would. 0 when
// a line prices it, 1 when none does, 2 when it cannot be priced at all.
int price_command(int argc, char** argv) {
    std::string config_file = "/etc/orlanbeck.conf";
    std::vector<std::string> args;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--price") continue;
        if (a == "-c" && i + 1 < argc)
            config_file = absolute_path(argv[++i]);
        else if (a.rfind("--config=", 0) == 0)
            config_file = absolute_path(a.c_str() + strlen("--config="));
        else
            args.push_back(a);
    }
    char* end = nullptr;
    const long seconds = args.size() >= 2 ? strtol(args[1].c_str(), &end, 10) : -1;
    int32_t date = call_start_date(nullptr, nullptr);
    bool date_ok = true;
    if (args.size() == 3) {
        struct tm start {};
        const char* rest = strptime(args[2].c_str(), "%Y-%m-%d", &start);
        if (rest && *rest) rest = strptime(rest, " %H:%M:%S", &start);
        date_ok = rest && *rest == '\0';
        date = (start.tm_year + 1900) * 10000 + (start.tm_mon + 1) * 100 + start.tm_mday;
    }
    if (args.size() < 2 || args.size() > 3 || !end || *end || seconds < 0 || !date_ok) {
        fprintf(stderr,
                "Usage: %s --price <number> <seconds> [<YYYY-MM-DD HH:MM:SS>] [-c <file>]\n",
                argv[0]);
        return 2;
    }
    logger_init("", 2, 0, 0);  // WARNING and ERROR, on standard error
    config cfg;
    if (!parse_config_file(config_file, cfg)) {
        fprintf(stderr, "Unable to open configuration file %s\n", config_file.c_str());
        return 2;
    }
    if (!cfg.rating.tariffs) {
        fprintf(stderr, "%s has no rating:tariffs\n", config_file.c_str());
        return 2;
    }
    if (!load_tariff(cfg)) return 2;
    const call_price p = price_call(cfg, args[0], seconds, date);
    if (p.outcome != call_price::priced) {
        printf("no line of %s prices %s\n", cfg.rating.tariffs->c_str(), args[0].c_str());
        return 1;
    }
    printf("line %s %s %s\n", p.line.c_str(), p.prefix.c_str(), p.description.c_str());
    printf("billed %lld s\n", static_cast<long long>(p.billed));
    printf("amount %s (TA %lld)\n", amount_text(p.amount, cfg.rating.rule.decimals).c_str(),
           static_cast<long long>(p.amount));
    return 0;
}

// The daemon's own state and what the signal handlers do. The handlers run
// in the main thread, from signal_handle_all() in the main loop, never in a
// signal context. Made by main() and never destroyed: exit() leaves it to
// the threads that may still run.
class daemon_process {
  public:
    options opts;
    config_loader* configs = nullptr;
    pms_link* link = nullptr;
    states_file* states = nullptr;
    notifier* notify = nullptr;
    record_dispatcher* records = nullptr;
    wakeup_dialer* wakeup = nullptr;
    // The corrections in force for the whole run, from the first load.
    fixes_settings start_fixes;
    stop_flag stop;  // billing
    owned_thread billing;
    // With [fixes] posting at start: the one writer of the outbox to the PMS.
    posting_sender* sender = nullptr;
    owned_thread sending;
    // What posts to the PMS besides the billing thread ([posting] immediate,
    // [dialcodes]).
    const billing_parts* posting = nullptr;
    bool pms_moved = false;  // the link was ended to connect elsewhere

    void apply_logger(const config& cfg) {
        logger_init(opts.console_log ? "" : cfg.logfile.c_str(), cfg.loglevel, cfg.logtype,
                    cfg.disable_log);
        logger_hide_names(!cfg.personal_data);
    }

    // The status endpoint of status:listen; a load that changes it moves it.
    std::unique_ptr<status_server> status_endpoint;
    opt_text status_at;
    void apply_status(const config& cfg) {
        if (cfg.status_listen == status_at) return;
        status_at = cfg.status_listen;
        status_endpoint.reset();
        if (!cfg.status_listen) return;
        status_endpoint = std::make_unique<status_server>();
        if (!status_endpoint->start(*cfg.status_listen, [this] { return health(); }))
            status_endpoint.reset();
    }
    // Why the daemon is not healthy ("" when it is).
    std::string health() {
        if (!link->active()) return "PMS link not active";
        if (manager_used) {
            // Read once: a reload may replace the session meanwhile.
            const std::shared_ptr<mgr_session> session = manager.get();
            if (!session) return "Manager session not running";
            if (!session->is_up()) return "Manager session not logged in";
        }
        return notify->stopped_parts();
    }
    std::atomic<bool> manager_used{false};
    metrics::now_values now() {
        metrics::now_values v;
        v.link_up = link->active();
        std::shared_ptr<mgr_session> session = manager.get();
        v.manager_used = manager_used;
        v.manager_up = session && session->is_up();
        v.postings_unanswered = std::max(0, states->outbox().unanswered());
        v.calls_waiting = std::max(0, states->calls().waiting());
        v.oldest_waiting_call_age = std::max(0, states->calls().oldest_waiting_age());
        v.actions_queued = std::max(0, states->actions().count());
        if (wakeup) {
            const wakeup_dialer::counts_t c = wakeup->counts();
            v.wakeup_bookings = c.bookings;
            v.wakeup_overdue = c.overdue;
        }
        return v;
    }

    // The Manager session, when calls are cached from the Manager or a
    // service step sends actions.
    void start_manager(const config_ptr& cfg) {
        const bool actions = cfg->uses_actions();
        const bool dialer = wakeup != nullptr;
        manager_used = cfg->use_manager || actions || cfg->uses_dialcodes() || dialer;
        if (!manager_used) return;
        // Writing to a connection that was closed must fail, not end the
        // process (the Manager session's own writes never raise the signal).
        signal(SIGPIPE, SIG_IGN);
        const manager_setup setup = manager_setup_of(*cfg);
        auto session = std::make_shared<mgr_session>(setup.session, *states, *notify);
        cdr_stored_hook stored;
        if (cfg->posting.immediate && posting)
            stored = [cfg, parts = posting](const std::vector<std::string>& rooms,
                                            const std::vector<std::string>& all) {
                post_cached_now(*cfg, rooms, all, *parts);
            };
        if (cfg->use_manager) attach_cdr_capture(*session, cfg, *states, std::move(stored));
        // [dialcodes]: minibar, room status and the guest's own codes from
        // the room phone.
        if (cfg->uses_dialcodes() && posting && posting->sequence)
            attach_dialcodes(*session, cfg, {*link, *states, posting->audit, sender},
                             *posting->sequence, phone_wakeups_of());
        if (dialer) wakeup->attach(*session);
        notify->running(notify_part::capture);
        session->start();
        manager.set(std::move(session));
    }

    // The dialer's part in the room phone's wake-ups (none without it).
    phone_wakeups phone_wakeups_of() {
        phone_wakeups out;
        if (!wakeup || !records) return out;
        out.book = [dialer = wakeup](const std::string& room, const std::string& date,
                                     const std::string& time) {
            return dialer->book(room, date, time);
        };
        out.cancel = [dialer = wakeup](const std::string& room, const std::string& time) {
            std::vector<std::pair<std::string, std::string>> gone;
            for (const wakeup_dialer::booking& b : dialer->cancel(room, "", time)) {
                std::string date = b.date;
                if (date.empty()) date = local_time_text(b.due, "%y%m%d");
                gone.emplace_back(date, wakeup_time_key(b.time));
            }
            return gone;
        };
        out.run_steps = [dispatcher = records](const std::string& record) {
            dispatcher->run_own(record);
        };
        return out;
    }

    // Stops the Manager session, waiting until `deadline` at most.
    bool stop_manager(std::chrono::steady_clock::time_point deadline) {
        std::shared_ptr<mgr_session> session = manager.get();
        if (!session) return true;
        manager.set(nullptr);
        if (session->stop(deadline)) return true;
        stuck_sessions_.push_back(std::move(session));  // its thread may still use it
        return false;
    }

    // Opens the link to the PMS of the current configuration (a reload moves
    // the next connection, not the present one).
    bool connect_pms() {
        config_ptr cfg = configs->current();
        const char* interface = cfg->pmsinterface ? cfg->pmsinterface->c_str() : "";
        link->set_options(link_options(*cfg));
        // Writing into a TLS session whose peer has gone must fail, not end
        // the process (OpenSSL writes to the socket without MSG_NOSIGNAL).
        if (cfg->pms_tls) signal(SIGPIPE, SIG_IGN);
        notify->waiting(notify_part::main_loop, true);
        const bool ok = link->connect(cfg->pmshost, cfg->pmsport) == 0;
        notify->waiting(notify_part::main_loop, false);
        notify->pms_connect(cfg->pmshost, cfg->pmsport, ok);
        if (ok) return true;
        LOG(L_ERROR, "Unable to connect to PMS at %s:%d/%s", cfg->pmshost.c_str(), cfg->pmsport,
            interface);
        return false;
    }

    // With alive checks or answer time-outs (pms:alive_interval,
    // pms:answer_timeout): a PMS that stays silent is checked, and loses its
    // link when it does not answer.
    void watch_pms() {
        const config_ptr cfg = configs->current();
        if (cfg->alive_interval().count() == 0 && cfg->answer_timeout().count() == 0) return;
        link->watch_silence(cfg->alive_interval(), cfg->link_answer_timeout());
    }

    void install_signal_handlers() {
        signal_set_deferred(SIGHUP, [this](int signo) { sig_hup(signo); });
        signal_set_deferred(SIGTERM, [this](int signo) { sig_term(signo); });
        signal_set_handler(SIGCHLD, 0, SIG_IGN);
        signal_set_handler(SIGUSR1, 0, SIG_IGN);
        signal_set_handler(SIGUSR2, 0, SIG_IGN);
        signal_set_deferred(SIGINT, [this](int signo) { sig_term(signo); });
        signal_set_fault_exit(SIGABRT, start_fixes.signals);
        signal_set_deferred(SIGQUIT, [this](int signo) { sig_term(signo); });
        if (start_fixes.signals) signal_set_fault_exit(SIGSEGV, true);
    }

    mgr_session_slot manager;

  private:
    // Everything the Manager session is made from: a reload that changes any
    // of it (with [fixes] reload) starts a new session.
    struct manager_setup {
        mgr_session::settings session;  // the connection, the login, its event classes
        bool capture = false;           // services:cdr_use_manager
        bool immediate = false;         // [posting] immediate, fed by the capture
        dialcodes_settings dialcodes;   // the events the dial codes subscribe to
        bool operator==(const manager_setup&) const = default;
    };
    manager_setup manager_setup_of(const config& cfg) const {
        manager_setup m;
        mgr_session::settings& s = m.session;
        s.host = cfg.mgr_host.value_or("");
        s.port = cfg.mgr_port;
        s.user = cfg.mgr_user.value_or("");
        s.secret = cfg.mgr_passwd.value_or("");
        s.events = login_events(cfg);
        // With [fixes] private_files (read at start only) the secret never
        // reaches the log.
        s.hide_secret = start_fixes.private_files;
        s.actions = cfg.uses_actions() || wakeup != nullptr;
        s.connect_timeout_s = cfg.ami_connect_timeout;
        s.login_timeout_s = cfg.ami_login_timeout;
        if (!cfg.use_manager) s.stop_prefix = "Manager session stopped";
        m.capture = cfg.use_manager;
        m.immediate = cfg.posting.immediate;
        m.dialcodes = cfg.dialcodes;
        return m;
    }

    // The event classes the login asks for: as configured; without the key
    // and without actions as always ("cdr" with [fixes] manager_events, since
    // current Asterisk sends Cdr events only to that class); with actions
    // what the features need.
    static std::string login_events(const config& cfg) {
        if (cfg.mgr_events_set) return cfg.mgr_events;
        std::string events;
        if (!cfg.use_manager && !cfg.uses_actions())
            events = "off";  // the session is there for the dial codes or the dialer alone
        else if (!cfg.uses_actions())
            events = cfg.fixes.manager_events ? "cdr" : cfg.mgr_events;
        else
            events = cfg.use_manager ? "cdr" : "off";
        // [dialcodes]: their UserEvents come with the "user" class.
        if (cfg.uses_dialcodes()) events = with_classes(events, {"user"});
        // Voice mail counts come as MessageWaiting, of the "call" class.
        if (cfg.dialcodes.voicemail) events = with_classes(events, {"call"});
        // The wake-up dialer: "call" for the outcomes of its calls, "user"
        // for the snooze key.
        if (cfg.wakeup.call) events = with_classes(events, {"call", "user"});
        return events;
    }

    // `events` with the classes `wanted` added (a login for "on" has them all).
    static std::string with_classes(const std::string& events,
                                    std::initializer_list<const char*> wanted) {
        if (events == "on") return events;
        std::string out = events == "off" ? "" : events;
        for (const char* w : wanted)
            if (("," + out + ",").find(std::string(",") + w + ",") == std::string::npos)
                out += (out.empty() ? "" : ",") + std::string(w);
        return out.empty() ? "off" : out;
    }

    static pms_link::options link_options(const config& cfg) {
        pms_link::options o;
        o.link_end = cfg.fixes.link_end;
        o.quiet = cfg.fixes.quiet;
        o.codec = fias_codec_options{cfg.fixes.numbers, 0, cfg.plus_prefix};
        // TLS is always bounded: its handshake and writes wait on a
        // non-blocking socket.
        if (cfg.fixes.deadlines || cfg.pms_tls) {
            o.connect_limit = std::chrono::milliseconds(cfg.pms_connect_timeout_ms);
            o.write_limit = std::chrono::milliseconds(cfg.pms_write_timeout_ms);
        }
        if (cfg.pms_tls) o.tls = tls_settings_of(cfg);
        o.keepalive = cfg.alive_interval();
        return o;
    }

    static tls_settings tls_settings_of(const config& cfg) {
        return tls_settings{cfg.pms_tls_ca.value_or(""), cfg.pms_tls_cert.value_or(""),
                            cfg.pms_tls_key.value_or(""),
                            cfg.pms_tls_server_name.value_or(cfg.pmshost)};
    }

    // Stops the billing thread and the Manager session (and the record worker), waiting
    // a few seconds at most, drops the link, closes the databases whose lock
    // is free, removes the pid file (unless `keep_pid_file`) and ends the
    // process with `status`.
    [[noreturn]] void shut_down(int status, bool keep_pid_file = false) {
        stop.request();
        status_endpoint.reset();  // no scrape reads what is being stopped
        metrics::set_now_values({});
        notify->finish();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        bool joined = billing.join_until(deadline);
        if (wakeup) joined = wakeup->stop(deadline) && joined;
        joined = stop_manager(deadline) && joined;
        joined = records->stop(deadline) && joined;
        if (sender) sender->wake();
        joined = sending.join_until(deadline) && joined;
        link->drop();
        // A record worker may still be using a database: one whose lock is
        // taken is left as it is.
        for (const dbdriver_ptr& drv : configs->current()->dbdrivers) {
            if (!drv->try_lock()) continue;
            drv->close();
            drv->unlock();
        }
        states->close_idle();
        if (!keep_pid_file) daemon_close();
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

    // After a reload with [fixes] reload: the room list, the PMS address and
    // the Manager session follow the new configuration.
    void apply_reload(const config& before, const config_ptr& after) {
        load_rooms_conf(after->rooms, *states, fill_options_of(*after).dates);
        if (before.pmshost != after->pmshost || before.pmsport != after->pmsport ||
            before.pmsinterface != after->pmsinterface || before.pms_tls != after->pms_tls ||
            (after->pms_tls && tls_settings_of(before) != tls_settings_of(*after))) {
            LOG(L_NOTICE, "PMS settings changed: connecting to %s:%d", after->pmshost.c_str(),
                after->pmsport);
            pms_moved = true;
            link->end();
        }
        if (!(manager_setup_of(before) == manager_setup_of(*after))) {
            LOG(L_NOTICE, "Manager settings changed: starting a new session");
            notify->manager(after->use_manager);
            if (!stop_manager(std::chrono::steady_clock::now() + std::chrono::seconds(3)))
                LOG(L_WARNING, "The old Manager session did not stop; it is left behind");
            start_manager(after);
        }
    }

    void sig_hup(int) {
        logger_reopen();  // a rotated log file is left for a new one
        LOG(L_NOTICE, "Hangup. Reloading configuration.");
        const config_ptr before = configs->current();
        if (configs->load(true) < 0) {
            LOG(L_ERROR, "Unable to open configuration file %s. Exiting...",
                configs->path().c_str());
            // The pid file stays, unless the ending is to be noticed by its
            // status.
            const bool failed = before->fixes.exit_status;
            shut_down(failed ? 1 : 0, !failed);
        }
        config_ptr cfg = configs->current();
        metrics::reloaded();
        const unsigned long problems = logger_problem_count();
        check_configuration(*cfg);
        metrics::config_problems(logger_problem_count() - problems);
        apply_logger(*cfg);
        apply_status(*cfg);
        if (cfg->fixes.reload) apply_reload(*before, cfg);
    }

    // Sessions that did not stop when asked: kept, since their threads may
    // still use them.
    std::vector<std::shared_ptr<mgr_session>> stuck_sessions_;
};

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--price") == 0) return price_command(argc, argv);
    daemon_process state;
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
    if (!state.opts.foreground || state.start_fixes.signals) state.install_signal_handlers();
    // The pid file that -p names is written in the foreground too; without
    // -p a detached daemon names it after the program.
    bool pid_file_failed = false;
    if (!state.opts.foreground) {
        const char* name = strrchr(argv[0], '/');
        if (state.opts.pid_file.empty())
            daemon_init(name ? name + 1 : argv[0]);
        else
            pid_file_failed = daemon_init(nullptr) != 0 ||
                              daemon_write_pid_file(state.opts.pid_file.c_str()) != 0;
    } else if (!state.opts.pid_file.empty()) {
        pid_file_failed = daemon_write_pid_file(state.opts.pid_file.c_str()) != 0;
    }

    config_ptr cfg = configs.current();
    if (state.start_fixes.private_files) logger_set_file_mode(0640);
    state.apply_logger(*cfg);
    // The first warnings came before the logger had its settings.
    check_configuration(*cfg);
    if (pid_file_failed)
        LOG(L_WARNING, "Unable to write pid file %s: running without one",
            state.opts.pid_file.c_str());

    // The objects the threads share live in main()'s frame, which exit()
    // never unwinds.
    states_file states;
    state.states = &states;
    if (states.open(cfg->statesfile, state.start_fixes.any) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", cfg->statesfile.c_str());
        exit(1);
    }
    load_rooms_conf(cfg->rooms, states, fill_options_of(*cfg).dates);

    pms_link link;
    state.link = &link;
    notifier notify;
    state.notify = &notify;
    resync sync;
    audit_window audit;
    posting_extensions extensions;
    // With the outbox the posting numbers go on after the last one used.
    posting_sequence sequence;
    if (cfg->uses_outbox())
        sequence.last = static_cast<unsigned>(std::max(0L, states.outbox().last_posting_number()));
    // Wake-up calls placed by the daemon, when configured at start.
    std::unique_ptr<posting_sender> sender;
    if (state.start_fixes.posting) {
        sender = std::make_unique<posting_sender>(configs, link, states, audit);
        state.sender = sender.get();
        states.calls().use_one_connection();
    }
    wakeup_dialer dialer({configs, link, states, audit, notify, state.manager, sender.get()});
    if (cfg->wakeup.call) state.wakeup = &dialer;
    record_parts handler_parts{configs, link,       states,        sync,
                               audit,   extensions, state.manager, sequence};
    handler_parts.wakeup = state.wakeup;
    handler_parts.sender = sender.get();
    record_dispatcher records(handler_parts, state.start_fixes.ordered_records);
    state.records = &records;
    notify.start(link, states, cfg->use_manager);
    state.connect_pms();

    const billing_parts billing{link,   states,    audit,        extensions,
                                notify, &sequence, sender.get(), &state.stop};
    if (sender) state.sending.start([&] { sender->run(state.stop); });
    state.posting = &billing;
    state.billing.start([&] { service_background(configs, billing, state.stop); });
    state.start_manager(cfg);
    if (state.wakeup) dialer.start();
    metrics::set_now_values([&state] { return state.now(); });
    metrics::config_problems(logger_problem_count());
    state.apply_status(*cfg);
    cfg.reset();
    notify.ready();

    char buffer[4096];
    for (;;) {
        notify.beat(notify_part::main_loop);
        // After the records read so far: a resync's records that came before
        // a lost link still count for it.
        if (sync.running()) records.in_order([&sync, &link] { sync.watch(link); });
        state.watch_pms();
        if (!link.is_open() && !state.connect_pms()) {
            signal_handle_all();
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        const int n = link.read_packet(buffer, sizeof buffer);
        if (n == pms_link::idle) {
            signal_handle_all();
            continue;
        }
        if (n < 0) {
            if (!state.pms_moved) LOG(L_WARNING, "Connection to PMS lost");
            state.pms_moved = false;
            link.drop();
        } else if (link.answered_alive_check()) {
            LOG(L_DEBUG, "Alive check answered: %s", fias_shown(buffer).c_str());
            metrics::record_received(buffer);
        } else {
            LOG(L_DEBUG, "Read %s", fias_shown(buffer).c_str());
            if (!is_link_record(buffer)) notify.record(buffer);
            records.handle(buffer);
        }
        signal_handle_all();
        if (!state.start_fixes.ordered_records) std::this_thread::sleep_for(record_pause());
    }
}
