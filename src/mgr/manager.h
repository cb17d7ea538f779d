// Asterisk Manager client: a session over TCP that logs in and reads messages
// (blocks of "Name: value" lines ended by an empty line) one at a time.
//
// Contract:
//  - A mansession and the messages read with it belong to one thread (the
//    session's reader); nothing here takes a lock. The session owns its
//    socket and closes it when it is destroyed or initialised again.
//  - Calling order: mgr_init, mgr_login, then mgr_read in a loop; after a
//    failed read, mgr_login again (it reconnects, retrying every second for
//    as long as it takes). mgr_login answers 1 once the manager has refused a
//    login (`connected` -1): a refused login is never retried.
//  - How lines are read depends only on the message's structure: an action
//    answer whose first header is exactly "Response: Follows" holds a
//    command's output, in which empty lines do not end the message, up to a
//    line that is exactly "--END COMMAND--". No header value changes how
//    the following lines are read.
//  - A line keeps at most message::max_line bytes: a longer one is cut there
//    (WARNING), the rest of it up to its line end is dropped, and the
//    message is read on. A message keeps its first max_lines lines; later
//    ones are read and dropped.
//  - A message reuses its memory: keep one and clear() it before every
//    mgr_read. Pointers into it hold until the next clear() or read.
//  - Writes use MSG_NOSIGNAL, so a connection closed by the manager makes a
//    write fail instead of raising SIGPIPE. A write either goes out whole
//    before its deadline or fails; the caller then ends the connection, so
//    that no cut action stays on the wire.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct mansession {
    static constexpr size_t buffer_size = 64 * 1024;

    sockaddr_in sin{};  // the manager's address and port (network byte order)
    int fd = -1;        // the TCP socket, -1 when there is none
    // Received bytes not yet returned as lines: buf[head, tail).
    std::unique_ptr<char[]> buf = std::make_unique<char[]>(buffer_size);
    size_t head = 0;
    size_t tail = 0;
    bool skipping = false;     // the rest of a cut line is dropped up to its line end
    int connected = 0;         // 0 login answer awaited, 1 "Authentication accepted", -1 refused
    std::atomic<int> dead{0};  // when set, an interrupted wait for input fails the read
    int wake_fd = -1;          // not owned: readable once the session must stop (-1: none)
    bool hide_secret = false;  // the secret is not written to the log
    // Called when a read is about to wait for the manager (not owned; may be
    // empty): what was read so far can be dealt with before the wait.
    std::function<void()> before_wait;
    int quick_reads = 0;  // receives in a row that did not wait
    // A connect attempt waits this long, watching wake_fd, and a socket whose
    // connect did not finish in time is replaced (0: one second, as always).
    int connect_timeout_ms = 0;
    // When set, a read waits for the manager until then at most.
    std::chrono::steady_clock::time_point answer_by{};
    std::string user;
    std::string pass;

    mansession() = default;
    ~mansession();
    mansession(const mansession&) = delete;
    mansession& operator=(const mansession&) = delete;

    // Closes the socket and returns every field to its initial value.
    void reset();
    // Forgets the bytes received and not yet read (a new connection).
    void drop_input() {
        head = tail = 0;
        skipping = false;
    }
};

class message {
  public:
    static constexpr int max_lines = 255;
    static constexpr size_t max_line = 8192;

    // No lines, not in a command's output; the memory is kept.
    void clear() {
        text_.clear();
        lines_.clear();
        in_command = false;
    }
    // Appends a line, cut at max_line bytes; false (nothing added) when the
    // message holds max_lines lines already.
    bool add(std::string_view line);
    int count() const { return static_cast<int>(lines_.size()); }
    // Line `i` (0 <= i < count()), terminated.
    const char* line(int i) const { return text_.data() + lines_[static_cast<size_t>(i)].start; }
    // The value of the first line "<name>: value" (the name compared without
    // regard to case), or an empty text; never null.
    const char* get(std::string_view name) const;

    bool in_command = false;  // reading a command's output

  private:
    struct entry {
        uint32_t start;     // in text_
        uint32_t name_len;  // bytes before the first ": ", or none
    };
    static constexpr uint32_t no_name = UINT32_MAX;
    std::string text_;  // the lines, each followed by '\0'
    std::vector<entry> lines_;
};

// Resolves `host` (IPv4), creates the socket and keeps the login data.
// 0, or -1 when the host cannot be resolved or no socket can be created.
int mgr_init(mansession& s, const char* host, int port, const char* user, const char* passwd);

// One non-blocking connect attempt of at most one second (connect_timeout_ms
// when set): the connected socket, or -1 with errno set. A socket that
// reports itself connected already, aborted or refused is closed and replaced
// for the next attempt; with connect_timeout_ms also one that timed out
// (ETIMEDOUT, logged at ERROR) or was woken (EINTR).
int connect_nonb(mansession& s);

// connect_nonb, storing the socket in s.fd and forgetting unread input:
// the socket, or -1.
int mgr_connect(mansession& s);

// Writes all of `text` to `fd` before `deadline`: 0, -1 (write error, or
// `wake_fd` became readable) or -2 (the socket did not take it all in time).
// After a failure the connection must be ended: part of the text may be on
// the wire.
int mgr_send(int fd, std::string_view text, std::chrono::steady_clock::time_point deadline,
             int wake_fd = -1);

// Sends the message's non-empty lines, each with "\r\n", and an empty line,
// as one write with a deadline of one second. 0, or -1 when it did not go
// out whole; the connection is then shut down (the next read fails).
int mgr_write(mansession& s, const message& m);

// Appends a line formatted printf-style. 0 added, 1 the message is full.
int mgr_add_header(message& m, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Connects (retrying every second until it succeeds) and sends the login with
// "Events: <events>" (null or empty: "call"). 0 sent, 1 refused because the
// manager refused the last login, or because wake_fd became readable.
int mgr_login(mansession& s, const char* events = "call");

// m.get(name) for a name that may be null.
inline const char* mgr_get_header(const message& m, const char* name) {
    return m.get(name ? name : "");
}

// Reads one whole message into the cleared `m`: 1, or -1 (peer closed,
// receive or wait error, wake_fd readable) or -2 (answer_by passed). Waits
// without time limit (until answer_by when set) for the socket; bytes that
// have arrived already are read without a wait (wake_fd is looked at when
// it waits, and at least every 64th receive).
int mgr_read(mansession& s, message& m);

// The dotted form of `addr` in `buf`; returns `buf`.
const char* mgr_inet_ntoa(char* buf, size_t size, in_addr addr);
