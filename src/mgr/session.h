// The Manager session: one connection to Asterisk's Manager interface,
// logged in with the services:cdr_mgr_* settings, and one reader thread that
// routes every message read: a response to the action that waits for it (by
// its ActionID), an event to the handler that asked for events of its name.
//
// Contract:
//  - main makes a session when calls are cached from the Manager or a
//    service step names "ami:", registers the handlers, then start()s it;
//    stop() ends the reader thread. A session whose thread could not be
//    joined must be kept alive (its thread may still use it).
//  - The reader thread runs the login (retrying the connection every second
//    for as long as it takes) and logs in again after a lost connection. A
//    refused login ends the session for good, or, with `actions`, is
//    tried again every manager_retry_period() (process.h), logged each time.
//  - action() may be called from any thread. The action goes into the
//    states file's queue first, then, while the session is logged in, onto
//    the wire with an ActionID made of its queue number, and action() waits
//    for its answer at most `timeout`. An action is written whole, as one
//    buffer, within that time, or the connection is ended (and made again):
//    a cut action never stays on the wire. While the session is down it stays
//    queued and action() returns at once: after the next login (also after a
//    restart of the daemon) the queue is sent in order, by a thread of the
//    session's own, while the reader goes on reading. An action that went
//    out and was not answered is sent once more after the next login, with a
//    WARNING, and then given up. Answers to actions nobody waits for any
//    more are logged here.
//  - Handlers run in the reader thread, one message at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mgr/manager.h"
#include "ops/notify.h"
#include "owned_thread.h"
#include "states/states.h"
#include "stop_flag.h"
#include "thread_annotations.h"

class mgr_session {
  public:
    struct settings {
        std::string host;
        int port = 5038;
        std::string user;
        std::string secret;
        std::string events;  // the login's "Events:" value
        bool hide_secret = false;
        // Service steps send actions: a refused login is tried again, and
        // the queue is sent after each login.
        bool actions = false;
        // What STATUS says when the session stops by design ("call capture
        // stopped: ..." or "Manager session stopped: ...").
        std::string stop_prefix = "call capture stopped";
        // Seconds a connect attempt and the login's answer may take (0: a
        // connect attempt waits one second, the answer as long as it takes).
        // A login not answered in time is logged at ERROR and the
        // connection is made again, as after a lost one.
        int connect_timeout_s = 0;
        int login_timeout_s = 0;

        bool operator==(const settings&) const = default;
    };

    // The answer to one action.
    struct answer {
        enum { success, error, timeout, queued } result = timeout;
        std::string message;  // Asterisk's "Message", when it gave one
    };
    using headers = std::vector<std::pair<std::string, std::string>>;

    mgr_session(settings s, states_file& states, notifier& notify);
    ~mgr_session();
    mgr_session(const mgr_session&) = delete;
    mgr_session& operator=(const mgr_session&) = delete;

    // Before start(): `handler` gets every event named `event` (any case);
    // several handlers of one event each get it, in the order subscribed.
    void subscribe(const std::string& event, std::function<void(const message&)> handler);
    // Before start(): `handler` gets every answer whose ActionID starts with
    // `prefix` (answers to send_now()).
    void subscribe_answers(const std::string& prefix, std::function<void(const message&)> handler);
    // Before start(): runs first in the reader thread; false ends the session
    // (with `why` in STATUS).
    void before_start(std::function<bool(std::string& why)> hook);
    // Before start(): runs whenever the reader is about to wait for the
    // Manager, and when the connection was lost.
    void before_wait(std::function<void()> hook);
    // Before start(): runs in the reader thread after each accepted login.
    void after_login(std::function<void()> hook);

    void start();
    // Ends the reader thread; true when it ended before `deadline`.
    bool stop(std::chrono::steady_clock::time_point deadline);
    // Whether the session ended by itself (waiting until `deadline` at most).
    bool ended_by(std::chrono::steady_clock::time_point deadline) const {
        return thread_.done_by(deadline);
    }

    // Whether the session is logged in now.
    bool is_up() const { return up_; }
    // Sends `action` with `fields` for `room` and waits for its answer.
    answer action(const std::string& room, const std::string& action, const headers& fields,
                  std::chrono::milliseconds timeout);

    // Writes `action` with `fields` and the ActionID `action_id` at once,
    // without the queue and without waiting for its answer; false when the
    // session is not logged in or the write failed. For actions that are
    // worth nothing later (a call placed now).
    bool send_now(const std::string& action, const std::string& action_id, const headers& fields);

  private:
    struct waiter {
        bool answered = false;
        answer reply;
    };

    void run();
    // The replay thread: sends the queue after each login.
    void replay();
    bool log_in(mansession& s, const char* addr);
    void logged_in(mansession& s) EXCLUDES(mutex_);
    void connection_lost() EXCLUDES(write_mutex_, mutex_);
    // An answer to one of the daemon's actions (`k` says what `m` is):
    // true when it was one.
    bool deliver(const message& m, const struct mgr_message_kind& k) EXCLUDES(mutex_);
    // Notes action `id` as sent (the states file, the count by name).
    void note_sent(long id, const std::string& name) REQUIRES(mutex_);
    // Writes `text` whole to `fd` before `deadline`, or ends the connection
    // (logged with `what`): true when written.
    bool write_whole(int fd, const std::string& text,
                     std::chrono::steady_clock::time_point deadline, const std::string& what)
        REQUIRES(write_mutex_);

    const settings settings_;
    states_file& states_;
    notifier& notify_;
    // by lower-case name
    std::map<std::string, std::vector<std::function<void(const message&)>>> handlers_;
    std::vector<std::pair<std::string, std::function<void(const message&)>>> answer_handlers_;
    std::function<bool(std::string&)> before_start_;
    std::function<void()> before_wait_;
    std::function<void()> after_login_;
    stop_flag stop_;
    owned_thread thread_;
    owned_thread replayer_;  // with `actions`

    // One writer of the socket at a time, so that each action goes out whole
    // and in queue order; taken before mutex_. The reader never waits for it
    // while it reads: only when the connection is lost.
    annotated_mutex write_mutex_;
    annotated_mutex mutex_;
    std::condition_variable_any answered_;
    std::condition_variable_any replay_wanted_;
    // The socket while logged in (and, with `actions`, once the replay
    // thread took it over); -1 otherwise. Only the reader thread changes the
    // connection, and only while this and login_fd_ are -1.
    int fd_ GUARDED_BY(mutex_) = -1;
    // A connection just logged in whose queue is to be sent; -1 when none.
    int login_fd_ GUARDED_BY(mutex_) = -1;
    std::string addr_ GUARDED_BY(mutex_);  // of the Manager, dotted, for the log
    std::map<long, std::shared_ptr<waiter>> waiting_ GUARDED_BY(mutex_);  // by queue number
    // Actions sent from the queue that nobody waits for: room and action.
    std::map<long, std::pair<std::string, std::string>> unattended_ GUARDED_BY(mutex_);
    // The names of the actions sent and not yet answered, for counting.
    std::map<long, std::string> names_ GUARDED_BY(mutex_);
    std::atomic<bool> up_{false};  // logged in
};

// What a message read from the Manager is: the answer to an action of the
// daemon's (its queue number), an event (its name in lower case), or
// something else (the login's answer, an answer to an action of another
// program).
struct mgr_message_kind {
    enum { answer, event, other } kind = other;
    long action = 0;
    std::string name;  // of the event
};
mgr_message_kind classify_message(const message& m);

// Logs what an answer says: an error at ERROR with the action, the room and
// Asterisk's message (at NOTICE when a DBDel or DBDelTree found nothing to
// delete), no answer within `timeout_s` at ERROR, a queued action at NOTICE.
void log_action_answer(const std::string& room, const std::string& action,
                       const mgr_session::answer& a, int timeout_s);

// The session in use, replaced when a reload restarts it. Record workers
// take it once per record; a replaced session lives while one holds it.
class mgr_session_slot {
  public:
    std::shared_ptr<mgr_session> get() const {
        mutex_lock guard(mutex_);
        return session_;
    }
    void set(std::shared_ptr<mgr_session> s) {
        mutex_lock guard(mutex_);
        session_ = std::move(s);
    }

  private:
    mutable annotated_mutex mutex_;
    std::shared_ptr<mgr_session> session_ GUARDED_BY(mutex_);
};
