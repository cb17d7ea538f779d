// A PMS simulator: the server side of the FIAS link, for tests and the demo.
//
// It listens on 127.0.0.1, takes one client (the daemon) at a time and, when
// that client goes away, waits for the next one. Every frame (STX text ETX)
// that it receives or sends is kept, with a time stamp, in a transcript that
// any thread may read while the simulator runs.
//
// What it plays on its own (each can be switched off in pms_sim::options):
//  - link start-up: the daemon's "LS" is answered with "LS|DA..|TI..|"; once
//    the daemon has sent its "LD" (and its "LR" records) and then "LA", the
//    simulator answers "LA|DA..|TI..|" and counts the link as active; an
//    "LS" on an active link is an alive check, answered "LA|DA..|TI..|";
//  - postings: each "PS" is answered with a "PA" carrying AS, then RN, P#, DA
//    and TI copied from the "PS" (fields the "PS" lacks are left out); AS is
//    "OK" (answer_mode::ok) or the refusal text (answer_mode::refuse), or no
//    answer is sent at all (answer_mode::none); with an answer delay, each
//    "PA" leaves that long after its "PS", in the order of the "PS" records,
//    while the simulator goes on reading (answers still due when the client
//    goes away are dropped);
//  - database resync, once set_occupied() gave it a list of guests: each "DR"
//    is answered with "DS", one "GI" per guest and "DE" (by default "DR" is
//    not answered).
//
// Typical use in a test:
//
//     pms_sim pms;                        // default options, port 0 = pick one
//     ASSERT_TRUE(pms.start());
//     ... start the daemon with pms:port = pms.port() ...
//     ASSERT_TRUE(pms.wait_link_active(10s));
//     pms.send_record("GI|RN101|GNSmith|GLEN|GSN|");
//     auto ps = pms.wait_for_frame("PS", 15s);   // std::optional<std::string>
//
// Over TLS (serve_tls() before start()) every client first passes a TLS
// handshake with the given certificate; a client whose handshake fails is
// noted ("TLS handshake failed: ...") and closed, and never counts as
// connected.
//
// Threads: the simulator runs one thread of its own (accepting, reading and
// answering). All public methods may be called from any thread. A frame is
// written to the socket in one piece under a lock, so records sent from the
// test and answers sent by the simulator never interleave. The destructor
// stops the simulator and closes every socket.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "thread_annotations.h"

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

class pms_sim {
  public:
    enum class answer_mode { ok, refuse, none };

    // One frame of the transcript.
    struct frame {
        std::chrono::system_clock::time_point when;
        std::string stamp;  // "HH:MM:SS.mmm" local time
        bool incoming;      // true = received from the daemon, false = sent by us
        std::string text;   // record text without STX/ETX (raw bytes for send_raw)
        bool raw = false;   // sent with send_raw (not framed)
    };

    struct options {
        int port = 0;                               // 0 = pick a free port
        answer_mode answer = answer_mode::ok;       // how "PS" records are answered
        std::string refuse_text = "NG";             // AS of a refusing "PA"
        bool play_link = true;                      // answer "LS" and "LA" as described above
        std::chrono::microseconds answer_delay{0};  // from a "PS" to its "PA"
        // Called (on the simulator's thread or the sender's) for every
        // transcript entry and for notes such as "client connected". They
        // must not call the simulator's send methods.
        std::function<void(const frame&)> on_frame;
        std::function<void(const std::string&)> on_note;
    };

    pms_sim();
    explicit pms_sim(options opts);
    ~pms_sim();
    pms_sim(const pms_sim&) = delete;
    pms_sim& operator=(const pms_sim&) = delete;

    // Serves TLS with the certificate (chain) and key of these PEM files,
    // from the next start(). false when they cannot be used. The process
    // ignores SIGPIPE from then on.
    bool serve_tls(const std::string& cert_file, const std::string& key_file);
    // Handshakes that failed so far.
    int tls_failures() const;
    // Binds, listens and starts the simulator's thread. false on failure.
    bool start();
    // Stops the thread and closes all sockets (also done by the destructor).
    void stop();
    // The port listened on (valid after start()).
    int port() const { return port_; }

    // Changes how later "PS" records are answered.
    void set_answer(answer_mode mode, const std::string& refuse_text = "NG");
    // Changes the delay of the answers to later "PS" records.
    void set_answer_delay(std::chrono::microseconds delay);

    // A guest as the PMS has it.
    struct guest {
        std::string room;
        std::string name;
        std::string lang = "EN";
    };
    // The guests with which later "DR" records are answered; nothing stops
    // answering them.
    void set_occupied(std::optional<std::vector<guest>> occupied);
    // Sends "GC" for `g`, a room move from `old_room` when that is not empty.
    bool send_guest_change(const guest& g, const std::string& old_room = "");
    // Sends "NS" (start) or "NE" (end of the night audit), dated now.
    bool send_night_audit(bool start);

    // Sends one record text framed as STX text ETX. false without a client or
    // when the write fails.
    bool send_record(const std::string& text);
    // Sends bytes exactly as given (no frame), e.g. stray bytes. false as above.
    bool send_raw(const std::string& bytes);
    // Shuts the client's connection down cleanly (the client reads the end
    // of the stream); the simulator then waits for the next client.
    void drop_connection();
    // Resets the client's connection (the client gets a connection reset).
    void reset_connection();
    // Stops reading from the client (its writes pile up and then block),
    // or reads again.
    void pause_reading(bool paused);
    // A hung PMS, or one again: while silent, everything received is read
    // and kept, nothing is answered and the connection stays (also for later
    // clients).
    void set_silent(bool silent);

    bool connected() const;
    // Number of clients accepted so far.
    int connections() const;
    // true once the current client's start-up exchange is complete (reset when
    // the client goes away).
    bool link_active() const;
    bool wait_connected(std::chrono::milliseconds timeout);
    bool wait_link_active(std::chrono::milliseconds timeout);

    // The whole transcript, both directions, in order.
    std::vector<frame> transcript() const;
    // The texts of the frames received so far, in order.
    std::vector<std::string> frames() const;
    // The received texts that begin with `prefix`.
    std::vector<std::string> frames(const std::string& prefix) const;
    size_t count_frames(const std::string& prefix) const;
    // Per posting number ("P#"): how many "PS" records carried it, and how
    // many "PA" answers with "OK" were sent for it.
    struct posting_count {
        int posted = 0;
        int accepted = 0;
    };
    std::map<std::string, posting_count> postings() const;
    // Waits for a received frame beginning with `prefix` whose index among the
    // received frames is at least `from` (frames already there count). Returns
    // its text, or nothing on time-out. `index`, when given, receives its
    // index, so that `index + 1` can be passed as `from` to wait for the next.
    std::optional<std::string> wait_for_frame(const std::string& prefix,
                                              std::chrono::milliseconds timeout, size_t from = 0,
                                              size_t* index = nullptr) const;
    // Waits until `n` received frames begin with `prefix`.
    bool wait_for_count(const std::string& prefix, size_t n,
                        std::chrono::milliseconds timeout) const;
    // Forgets the transcript (counters of received frames restart at 0).
    void clear();

  private:
    void run();
    void handle_bytes(const char* data, size_t len);
    void handle_frame(const std::string& text);
    // Sends the delayed answers that are due; returns the time until the
    // next one is (nothing when none is waiting).
    std::optional<std::chrono::nanoseconds> send_due_answers();
    void close_client();
    bool send_bytes(const std::string& bytes, const std::string& text, bool raw);
    void record(bool incoming, const std::string& text, bool raw);
    void note(const std::string& text);
    // The server side of the handshake on `fd`; false (noted) on failure.
    bool tls_accept(int fd);
    // What TLS has for us: appended to `out`; 0 at the end, -1 on error, 1
    // otherwise.
    int tls_receive(std::string& out);
    bool tls_send(const std::string& bytes) REQUIRES(send_mutex_);

    struct ctx_free {
        void operator()(SSL_CTX* c) const;
    };
    struct ssl_free {
        void operator()(SSL* s) const;
    };
    std::unique_ptr<SSL_CTX, ctx_free> tls_ctx_;  // set before start()

    options opts_;
    int port_ = 0;
    int listen_fd_ = -1;
    int wake_fd_ = -1;  // eventfd that wakes the thread for stop()
    std::thread thread_;

    // Guards client_fd_ and frame writes. Only the simulator's thread changes
    // client_fd_ (and stop(), once that thread has ended); the thread keeps its
    // own copy for reading.
    mutable annotated_mutex send_mutex_;
    int client_fd_ GUARDED_BY(send_mutex_) = -1;
    std::unique_ptr<SSL, ssl_free> client_ssl_ GUARDED_BY(send_mutex_);

    // Guards the state below that is marked with it, and opts_.answer,
    // opts_.refuse_text (set_answer()) and opts_.answer_delay.
    mutable annotated_mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<frame> transcript_ GUARDED_BY(mutex_);
    std::vector<std::string> received_ GUARDED_BY(mutex_);
    bool connected_ GUARDED_BY(mutex_) = false;
    bool link_active_ GUARDED_BY(mutex_) = false;
    int connections_ GUARDED_BY(mutex_) = 0;
    int tls_failures_ GUARDED_BY(mutex_) = 0;
    bool stopping_ GUARDED_BY(mutex_) = false;
    bool paused_ GUARDED_BY(mutex_) = false;  // not reading from the client
    bool silent_ GUARDED_BY(mutex_) = false;  // answering nothing
    // What "DR" is answered with.
    std::optional<std::vector<guest>> occupied_ GUARDED_BY(mutex_);

    // Reader state, used only by the simulator's thread.
    bool collecting_ = false;
    std::string partial_;
    bool ls_answered_ = false;
    bool ld_seen_ = false;
    // Delayed answers of the current client, in the order they are due.
    struct pending_answer {
        std::chrono::steady_clock::time_point due;
        std::string text;
    };
    std::deque<pending_answer> pending_;
};
