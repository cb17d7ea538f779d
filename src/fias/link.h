// The FIAS link to the PMS: one TCP connection carrying framed records
// (STX text ETX), owned by one pms_link object.
//
// Contract:
//  - The process has one pms_link; it alone owns the socket and the link
//    state (down, connecting, active). Nobody else sees the descriptor.
//  - The main thread connects, reads and drops the link. Only it ever closes
//    the socket, and only while holding the write lock, so no write can land
//    on a descriptor number that was closed and reused.
//  - Any thread may write: every frame goes out whole, in one send() call
//    made under the write lock (MSG_NOSIGNAL: a dead peer never raises
//    SIGPIPE), so frames of different threads never mix.
//  - A writer that gives up the link (a failed start-up exchange) only shuts
//    it down; the reader then returns -1 and the main thread drops it.
//  - The link is "active" once the PMS has sent "LA" (set_active), until it
//    is dropped.
//  - The main thread watches the PMS's silence (watch_silence) between two
//    reads: every whole record read counts as the PMS speaking. An active
//    link that stays silent gets an alive check, an "LS" like the start-up
//    one; an "LA" that answers it is no link start-up (answered_alive_check).
//    A check or a start-up that no record answers in time gives the link up.
//  - How a link ends (options::link_end) is decided here alone, with the
//    options in force when it was connected.
//  - With deadlines (options::connect_limit), a name that does not resolve in
//    time is left to a resolver thread of its own, which ends by itself; the
//    next connect to the same host waits for that lookup instead of starting
//    another, so a hanging resolver never piles up threads.
//  - Over TLS (options::tls) the link is the same framed stream inside a TLS
//    session (fias/tls.h); nothing is sent before the handshake completes.
#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include <netinet/in.h>

#include "fias/codec.h"
#include "fias/packet.h"
#include "fias/tls.h"
#include "thread_annotations.h"

class pms_link {
  public:
    enum class state { down, connecting, active };

    // How the link behaves; set by the main thread before it connects.
    struct options {
        // The end of the stream, a failed or short write, a write that cannot
        // complete within 10 s and an "LE" record from the PMS count as a
        // lost link: the link is down at once and the reader returns -1.
        // Connecting gives up after 5 s, and a link that is down is not
        // reported lost again.
        bool link_end = false;
        // "Read code ..." is logged at DEBUG instead of printed.
        bool quiet = false;
        // How records are written (send_packet).
        fias_codec_options codec;
        // Deadlines, zero for none. Resolving the name, connecting and the
        // TLS handshake together must end within connect_limit; a write that
        // cannot complete within write_limit ends the link (the reader
        // returns -1). Either logs an ERROR naming the PMS; a link whose
        // connection ran out of time is not made. Required with tls.
        std::chrono::milliseconds connect_limit{0};
        std::chrono::milliseconds write_limit{0};
        // The link runs over TLS with these settings.
        std::optional<tls_settings> tls;
        // Non-zero: the socket has TCP keep-alive, first probe after this
        // long without traffic (at most 32767 s), then every 10 s, 3 probes.
        std::chrono::seconds keepalive{0};
    };

    pms_link() = default;
    ~pms_link();
    pms_link(const pms_link&) = delete;
    pms_link& operator=(const pms_link&) = delete;

    // --- main thread -------------------------------------------------------
    void set_options(const options& o) {
        link_end_ = o.link_end;
        quiet_ = o.quiet;
        numbers_ = o.codec.numbers;
        connect_limit_ = o.connect_limit;
        write_limit_ms_ = static_cast<long>(o.write_limit.count());
        tls_settings_ = o.tls;
        keepalive_ = o.keepalive;
    }
    // Connects to host:port and sends "LS". 0, or -1 (the link stays down).
    // `interface` is not used for connecting.
    int connect(const std::string& host, int port);
    // Takes a connected stream descriptor as the link (tests use one end of
    // a socket pair) and owns it from then on. Sends nothing.
    void attach(int fd);
    // Closes the socket (if any); the link is down.
    void drop();
    // Ends the link from any thread (only shut down: the reader returns -1
    // and the main thread drops it). The link is down at once.
    void end();
    bool is_open() const;
    // What read_packet() returns when no whole record came within about a
    // second: the caller acts on what is pending and calls again, and the
    // record begun so far is kept for that call.
    static constexpr int idle = -3;
    // Reads one framed record into `packet` (NUL-terminated; the ETX stays as
    // the last character). Returns the length before the ETX; -2 for a stray
    // byte before STX (printing "Read code %x" on standard output for the
    // first byte read by each call); idle; -1 for a read error, no socket
    // (idle instead with link_end), a link ended by a failed start-up
    // exchange, or, with link_end, the end of the stream or an "LE" record.
    // A record longer than maxlen - 1 is cut there; `maxlen` is the same on
    // every call. At the end of the stream it waits a second and returns
    // idle: a peer that has gone quiet is not reported.
    int read_packet(char* packet, int maxlen);
    // Whether the record read_packet() returned last is an "LA" that answers
    // an alive check: the link goes on as it was, and nothing of a link
    // start-up is to be done for it.
    bool answered_alive_check() const { return alive_answer_; }
    // Acts on the PMS's silence, counted from its last whole record (or from
    // the connection). An active link silent for `alive` (zero: no alive
    // checks) gets an alive check "LS". An alive check, or a link start-up
    // (an open link not yet active), that no record answers within `wait`
    // costs the link: a WARNING naming the PMS, and the link is dropped.
    // True when the link was dropped.
    bool watch_silence(std::chrono::seconds alive, std::chrono::seconds wait);

    // --- any thread -----------------------------------------------------------
    // Frames and writes one record text. Returns the bytes written (text + 2)
    // or -1.
    int send_raw(const char* text);
    // Serialises and sends a packet; -1 on failure.
    int send_packet(const fias_packet_t* p);
    // Sends "LA" with the current date and time.
    int send_la();
    // Sends "DR" (asks the PMS for a database resync) with the current date
    // and time.
    int send_dr();
    // Sends "LD", one "LR" per record type and "LA". The optional record
    // types (fias_optional_record) are described only when in `optional`,
    // the fields of features only when in `optional_fields`. 0, or -1 when a
    // record could not be written: the link is then shut down, and its
    // reader returns -1.
    int init_connection(const char* iftype, fias_record_set optional = 0,
                        fias_field_set optional_fields = 0);
    // The PMS sent "LA": postings may go out.
    void set_active() { pms_connected_ = 1; }
    bool active() const { return pms_connected_ != 0; }
    // Counts the links attached so far: a link that is dropped and made
    // again has a new number.
    unsigned link_number() const { return link_number_; }
    state current_state() const;

  private:
    void attach(int fd, std::unique_ptr<tls_session> tls, const std::string& peer);
    // Writes a whole frame within write_limit; false when it failed or ran
    // out of time (then logged and the link ended).
    bool write_bounded(const std::string& frame) REQUIRES(write_mutex_);
    // The address of `host`, waiting until `deadline` at most; *late when
    // the lookup is still running then.
    bool resolve_until(const std::string& host, std::chrono::steady_clock::time_point deadline,
                       sockaddr_in* out, bool* late);
    // A whole record came from the PMS (partial_ holds it).
    void heard();

    struct lookup_result {
        bool found = false;
        sockaddr_in address{};
    };

    mutable annotated_mutex write_mutex_;
    int fd_ GUARDED_BY(write_mutex_) = -1;
    std::unique_ptr<tls_session> tls_ GUARDED_BY(write_mutex_);
    std::string peer_ GUARDED_BY(write_mutex_);  // "host:port", for the log
    // The reader's copies of fd_ and tls_ (only the main thread changes
    // them), so that reading never waits for a writer's lock.
    std::atomic<int> read_fd_{-1};
    std::atomic<tls_session*> read_tls_{nullptr};
    short tls_wait_ = 0;  // what the reader's last TLS read waits for
    std::atomic<bool> open_{false};
    std::atomic<bool> ended_{false};     // shut down by a writer
    std::atomic<int> pms_connected_{0};  // 1 once the PMS has sent "LA"
    std::atomic<bool> link_end_{false};
    std::atomic<bool> quiet_{false};
    std::atomic<bool> numbers_{false};
    std::atomic<unsigned> link_number_{0};  // counts the links attached
    std::atomic<long> write_limit_ms_{0};
    // Main thread only: the connection's settings, and a name lookup that
    // outlived its deadline.
    std::chrono::milliseconds connect_limit_{0};
    std::optional<tls_settings> tls_settings_;
    std::string lookup_host_;
    std::future<lookup_result> lookup_;
    std::chrono::seconds keepalive_{0};
    // The record being read (main thread only): STX seen, and its bytes.
    bool in_record_ = false;
    std::string partial_;
    // Bytes read from a plain socket and not yet handed out (main thread).
    std::string received_;
    size_t received_at_ = 0;
    // The PMS's silence (main thread only): when its last whole record came
    // (or the link was attached), the alive check waiting for an answer, and
    // whether the last record answered one.
    std::chrono::steady_clock::time_point last_heard_;
    std::optional<std::chrono::steady_clock::time_point> alive_sent_;
    bool alive_answer_ = false;
};
