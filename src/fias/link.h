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
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fias/codec.h"
#include "fias/packet.h"
#include "thread_annotations.h"

class pms_link {
  public:
    enum class state { down, connecting, active };

    // How the link behaves; set by the main thread before it connects.
    struct options {
        // The end of the stream, a failed or short write and a write that
        // cannot complete within 10 s count as a lost link: the link is down
        // at once and the reader returns -1. Connecting gives up after 5 s.
        bool link_end = false;
        // "Read code ..." is logged at DEBUG instead of printed.
        bool quiet = false;
        // How records are written (send_packet).
        fias_codec_options codec;
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
    // Reads one framed record into `packet` (NUL-terminated; the ETX stays as
    // the last character). Returns the length before the ETX, -2 for a stray
    // byte before STX (printing "Read code %x" on standard output for every
    // byte read before the record), -1 for a read error, no socket, or a link
    // ended by a failed start-up exchange. A record longer than maxlen - 1 is
    // cut there. At the end of the stream it waits (one second per attempt,
    // running the idle hook) and reads again without returning.
    int read_packet(char* packet, int maxlen);
    // Called once per wait while the reader waits for bytes, so that pending
    // signals are acted on. Set before other threads exist.
    void set_idle_hook(std::function<void()> hook) { idle_hook_ = std::move(hook); }

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
    // types (fias_optional_record) are described only when in `optional`.
    // 0, or -1 when a record could not be written: the link is then shut
    // down, and its reader returns -1.
    int init_connection(const char* iftype, fias_record_set optional = 0);
    // The PMS sent "LA": postings may go out.
    void set_active() { pms_connected_ = 1; }

    // Postings written whole and not yet answered ([fixes] posting). A
    // posting whose answer was lost with its link is handed out once for
    // sending again on a later link, and then forgotten; an answer settles
    // it. One posting waits per "P#": when the sequence comes round to the
    // number of a posting still unanswered, that one is forgotten (with a
    // warning once per link), so a PMS that never answers costs no memory.
    struct posting {
        std::string seq;  // its "P#"
        std::string room;
        std::string number;  // the number called ("DD")
        std::string text;    // the record text
    };
    void posting_sent(posting p);
    // Forgets the posting `seq`; false when none was waiting.
    bool posting_answered(const std::string& seq);
    // The postings sent on an earlier link and not yet sent again.
    std::vector<posting> postings_to_resend();
    bool active() const { return pms_connected_ != 0; }
    // Counts the links attached so far: a link that is dropped and made
    // again has a new number.
    unsigned link_number() const { return link_number_; }
    state current_state() const;

  private:
    int socket_fd() const;

    mutable annotated_mutex write_mutex_;
    int fd_ GUARDED_BY(write_mutex_) = -1;
    std::atomic<bool> open_{false};
    std::atomic<bool> ended_{false};      // shut down by a writer
    std::atomic<int> pms_connected_{0};   // 1 once the PMS has sent "LA"
    std::atomic<int> fias_connected_{0};  // 1 once our description and "LA" went out
    std::atomic<bool> link_end_{false};
    std::atomic<bool> quiet_{false};
    std::atomic<bool> numbers_{false};
    std::function<void()> idle_hook_;  // main thread only

    struct in_flight {
        posting p;
        unsigned link_number;  // of the link it went out on
        uint64_t order;        // of sending
    };
    annotated_mutex postings_mutex_;
    std::unordered_map<std::string, in_flight> in_flight_ GUARDED_BY(postings_mutex_);  // by "P#"
    uint64_t postings_sent_ GUARDED_BY(postings_mutex_) = 0;
    unsigned unanswered_warned_ GUARDED_BY(postings_mutex_) = 0;  // the link last warned about
    std::atomic<unsigned> link_number_{0};                        // counts the links attached
};
