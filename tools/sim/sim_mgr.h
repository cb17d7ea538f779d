// Asterisk Manager simulator: a loopback server that speaks enough of the
// Manager protocol for the daemon's CDR capture (banner, Login, Cdr events).
//
// Contract:
//  - mgr_sim::start() listens on 127.0.0.1 (port 0 picks a free one, see
//    port()) and runs one server thread that accepts sessions and answers
//    their actions. The thread blocks in poll() while idle. The destructor
//    stops it and closes every connection.
//  - All public members may be called from any thread. Sending calls block
//    until the sockets took the bytes (a burst goes "as fast as the socket
//    takes it"); they return the number of sessions the text was sent to.
//  - On connect a session gets "Asterisk Call Manager/9.0.0\r\n". A Login
//    action is answered with
//        "Response: Success\r\nMessage: Authentication accepted\r\n\r\n", or
//        "Response: Error\r\nMessage: Authentication failed\r\n\r\n"
//    after which the connection is closed (refuse mode, or user/secret not
//    the ones set with set_credentials). An "ActionID" of the action is
//    echoed after "Response". Logoff and Ping get their usual answers.
//  - Asterisk's own database is kept in memory: DBPut, DBGet, DBDel and
//    DBDelTree, and MWIUpdate, answer with the texts and events of a stock
//    Asterisk (DBGet of a key: Success "Result will follow", then the events
//    DBGetResponse and DBGetComplete; deleting what is not there: Error
//    "Database entry could not be deleted" / "Database entry not found").
//    Other actions: Error "Invalid/unknown command". A test can make an
//    action (by name, any case) answer Error with a message of its choice,
//    or not answer at all. Every action of a logged-in session but Login is
//    recorded with its headers.
//  - Cdr events go only to logged-in sessions, and (while the filter is on, the
//    default) only to those whose login asked for "Events: on" (or yes, true,
//    all), a list holding "cdr", or no Events header at all, as the exchange
//    does. The default login of the daemon ("Events: call") gets none unless
//    the filter is switched off.
//  - Originate is answered "Success", "Originate successfully queued"; its
//    OriginateResponse follows after the delay chosen for the channel's
//    extension, with the Response and Reason of a stock Asterisk (answer: 4,
//    busy: 5, no answer: 3, no channel: 0 and Uniqueid "<unknown>"), to every
//    session whose login asked for the "call" class; "silent" sends none.
//    UserEvents go to the sessions that asked for "user" (the filter on).
//  - Raw text goes to every open session, logged in or not.
//  - A session counts as logged in from the moment its answer is written:
//    an event sent once wait_logins() saw the login (or once the client read
//    the answer) reaches that session, after the answer.
//
// Script lines (run_line(), run_script(), the mgr_sim program): one command a
// line, words separated by blanks; a word may be quoted with "..." and a
// backslash takes the next character literally. Blank lines and lines
// starting with '#' are ignored.
//    cdr SRC DST START BILLSEC [Header=value ...]
//        one Cdr event. START is "YYYY-MM-DDTHH:MM:SS" (or '_' for 'T'), or
//        "now". Header=value replaces a header of that name or appends one
//        (From, To, Cost, CallClass, FaxData ...); Header= makes it empty;
//        -Header removes it.
//        Disposition=BUSY (NO ANSWER, FAILED, CONGESTION) gives a call of
//        any outcome.
//    userevent NAME [Header=value ...]
//        one UserEvent named NAME with these headers last (Room=101
//        Article=12 ...), to sessions that asked for the "user" class.
//    burst N SRC DST START BILLSEC [Header=value ...]
//        N such events, each with its own UniqueID, as fast as possible.
//    raw TEXT         TEXT with \r \n \t \\ escapes, to every open session.
//    drop             closes every connection.
//    reading on|off   reads what the sessions send (or lets it wait).
//    refuse on|off    refuse (or accept) the following logins.
//    filter on|off    the event-class filter for Cdr events.
//    before-answer TEXT   raw text (escapes as for raw) sent after a login
//                         is read and before it is answered; empty: none.
//    error ACTION MESSAGE...   ACTION is answered with Error and MESSAGE;
//    error ACTION off          answered as usual again.
//    silent ACTION on|off      ACTION gets no answer (or gets one again).
//    dbput FAMILY KEY VALUE    a key in the simulated database.
//    originate EXTEN answer|busy|noanswer|nochannel|silent [DELAY_MS]
//                     how an Originate to EXTEN ends (default: answered after 100 ms).
//    wait-login [N] [SECONDS]  waits until N logins (default 1) have been
//                         accepted in total (default 10 s).
//    sleep SECONDS    pauses (fractions allowed).
//    quit             ends the script.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "thread_annotations.h"

// One Cdr event: its headers in the order they are sent.
struct mgr_cdr_event {
    std::vector<std::pair<std::string, std::string>> headers;

    // The event of a call from `src` to `dst` that started at `start`
    // ("YYYY-MM-DD HH:MM:SS") and was billed `billsec` seconds, with the
    // exchange's header order: Event, Privilege, AccountCode, Source,
    // Destination, DestinationContext, CallerID, Channel, DestinationChannel,
    // LastApplication, LastData, StartTime, AnswerTime, EndTime, Duration,
    // BillableSeconds, Disposition, AMAFlags, UniqueID, UserField.
    static mgr_cdr_event make(const std::string& src, const std::string& dst,
                              const std::string& start, int billsec);

    // Replaces the first header named `name` (any case), or appends it.
    mgr_cdr_event& set(const std::string& name, const std::string& value);
    mgr_cdr_event& remove(const std::string& name);
    // The value of header `name`, or "".
    std::string get(const std::string& name) const;
    // The wire text: "Name: value\r\n" per header and an empty line.
    std::string text() const;
};

// An action as the simulator received it: its headers in order (names in
// lower case).
struct mgr_action {
    int session = 0;
    std::vector<std::pair<std::string, std::string>> headers;
    // The value of the first header named `name` (any case), or "".
    std::string get(const std::string& name) const;
};

// How an Originate to one extension ends, and after how long.
struct originate_outcome {
    enum kind_t { answer, busy, no_answer, no_channel, silent } kind = answer;
    std::chrono::milliseconds delay{100};
};

struct mgr_sim_options {
    int port = 0;         // 0: pick a free port
    bool refuse = false;  // refuse every login
    bool filter = true;   // honour the event classes of the login
    // When set, only this user and secret are accepted.
    bool check_credentials = false;
    std::string user;
    std::string secret;
    // Transcript: called (from any thread, one call at a time) with the
    // session number, "<-" (received) or "->" (sent), and the text.
    std::function<void(int, const char*, const std::string&)> transcript;
};

class mgr_sim {
  public:
    explicit mgr_sim(mgr_sim_options opts = {});
    ~mgr_sim();
    mgr_sim(const mgr_sim&) = delete;
    mgr_sim& operator=(const mgr_sim&) = delete;

    // Listens and starts the server thread; false when the port cannot be bound.
    bool start();
    int port() const { return port_; }

    void set_refuse(bool refuse);
    void set_filter(bool filter);
    void set_credentials(const std::string& user, const std::string& secret);
    // Raw text sent after a login is read and before it is answered ("": none).
    void set_before_answer(const std::string& text);
    // Whether what the sessions send is read: while not, their actions wait
    // in the sockets (the listener still accepts). With `after_login`, reading
    // stops once the next login has been answered.
    void set_reading(bool reading, bool after_login = false);

    // Sending; the result is the number of sessions reached.
    int send_cdr(const mgr_cdr_event& ev);
    // `n` copies of `ev`, the UniqueID of each made unique ("<base>.<i>").
    int send_burst(const mgr_cdr_event& ev, int n);
    int send_raw(const std::string& text);
    // A UserEvent named `name` (as the dialplan's UserEvent(name,...) sends
    // it) with `headers` last, to logged-in sessions whose login asked for
    // the "user" class (or every class) while the filter is on.
    int send_user_event(const std::string& name,
                        const std::vector<std::pair<std::string, std::string>>& headers);
    // How Originates to `extension` end from now on.
    void set_originate(const std::string& extension, originate_outcome outcome);
    // Closes every open connection (the server keeps listening).
    void drop();

    // What happened so far.
    int open_sessions() const;
    int logins() const;           // Login actions received
    int accepted_logins() const;  // of those, accepted
    // The bytes of every Login action received, in order (with their "\r\n").
    std::vector<std::string> login_texts() const;
    // Waits until `n` logins have been accepted in total; false on time-out.
    bool wait_logins(int n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // Actions: what was received (Login excepted), how some are answered,
    // and the simulated database.
    std::vector<mgr_action> actions() const;
    bool wait_actions(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // `message` empty: answered as usual again.
    void set_action_error(const std::string& action, const std::string& message);
    void set_action_silent(const std::string& action, bool silent);
    void db_put(const std::string& family, const std::string& key, const std::string& value);
    std::optional<std::string> db_get(const std::string& family, const std::string& key) const;

    // Runs one script line (see above); 0, or -1 for a line it does not
    // understand (with a reason in *error when given). "quit" gives 1.
    int run_line(const std::string& line, std::string* error = nullptr);

  private:
    // One connection; defined here because send_locked() names its lock.
    struct session {
        int id = 0;
        int fd = -1;
        std::string inbuf;            // server thread only
        size_t line_start = 0;        // of the unended line in inbuf
        annotated_mutex write_mutex;  // one writer of fd at a time
        std::atomic<bool> authenticated{false};
        std::atomic<bool> cdr_wanted{true};
        std::atomic<bool> call_wanted{true};
        std::atomic<bool> user_wanted{true};
        std::atomic<bool> closed{false};
        ~session();
    };
    using session_ptr = std::shared_ptr<session>;

    void serve();
    void accept_one();
    void on_readable(const session_ptr& s);
    void on_action(const session_ptr& s, const std::string& block);
    // The answer to an action of a logged-in session ("" for none).
    std::string answer_action(const std::string& act, const std::string& action_id,
                              const std::vector<std::pair<std::string, std::string>>& hdrs);
    // `what`, when given, is noted in the transcript instead of `text` ("": nothing).
    bool send_to(const session_ptr& s, const std::string& text, const char* what = nullptr);
    bool send_locked(const session_ptr& s, const std::string& text, const char* what)
        REQUIRES(s->write_mutex);
    std::vector<session_ptr> snapshot(bool cdr_only) const;
    void schedule_originate_response(const std::string& action_id,
                                     const std::vector<std::pair<std::string, std::string>>& hdrs);
    void send_due_events();
    int poll_timeout_ms() const;
    void note(int id, const char* dir, const std::string& text);
    void wake();

    mgr_sim_options opts_;
    int port_ = 0;
    int listen_fd_ = -1;
    int wake_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<bool> reading_{true};
    std::atomic<bool> pause_after_login_{false};
    std::thread thread_;

    // Guards the state below that is marked with it, and the settings in opts_
    // that can be changed (refuse, filter, the credentials).
    mutable annotated_mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<session_ptr> sessions_ GUARDED_BY(mutex_);
    int next_id_ GUARDED_BY(mutex_) = 1;
    int logins_ GUARDED_BY(mutex_) = 0;
    int accepted_ GUARDED_BY(mutex_) = 0;
    std::vector<std::string> login_texts_ GUARDED_BY(mutex_);
    std::string before_answer_ GUARDED_BY(mutex_);
    std::vector<mgr_action> actions_ GUARDED_BY(mutex_);
    std::map<std::string, std::string> action_errors_ GUARDED_BY(mutex_);  // by lower-case name
    std::set<std::string> silent_actions_ GUARDED_BY(mutex_);
    std::map<std::string, originate_outcome> originate_outcomes_ GUARDED_BY(mutex_);
    // Events to be sent later (OriginateResponse), by when.
    std::vector<std::pair<std::chrono::steady_clock::time_point, std::string>> delayed_
        GUARDED_BY(mutex_);
    std::map<std::pair<std::string, std::string>, std::string> db_ GUARDED_BY(mutex_);
    annotated_mutex transcript_mutex_;  // one opts_.transcript call at a time
    std::atomic<long> unique_counter_{0};
};
