// Asterisk Manager client: a session over TCP that logs in and reads messages
// (blocks of "Name: value" lines ended by an empty line) one at a time.
//
// Contract:
//  - A mansession and the messages read with it belong to one thread (the CDR
//    capture thread); nothing here takes a lock. The session owns its socket
//    and closes it when it is destroyed or initialised again.
//  - Calling order: mgr_init, mgr_login, then mgr_read in a loop; after a
//    failed read, mgr_login again (it reconnects, retrying every second for
//    as long as it takes). mgr_login answers 1 once the manager has refused a
//    login (`connected` -1): a refused login is never retried.
//  - A message is about a quarter of a megabyte: keep it on the heap
//    (std::make_unique<message>()) and clear() it before every mgr_read;
//    clear() empties only the slots used since the last clear().
//  - Writes use MSG_NOSIGNAL, so a connection closed by the manager makes a
//    write fail instead of raising SIGPIPE.
#pragma once

#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>

struct mansession {
    sockaddr_in sin{};   // the manager's address and port (network byte order)
    int fd = -1;         // the TCP socket, -1 when there is none
    char inbuf[1024]{};  // received bytes not yet returned as lines, always terminated
    int inlen = 0;
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
};

struct message {
    static constexpr int max_headers = 255;  // headers kept; slot 255 is the spare one
    static constexpr int line_size = 1024;

    int hdrcount = 0;
    char headers[max_headers + 1][line_size]{};
    int in_command = 0;  // 1 between "Response: Follows" and "--END COMMAND--"
    int touched = 0;     // slots written since the last clear(): only they can hold text

    // Every slot empty, no header, not in a command.
    void clear() {
        const int used = std::min(std::max(touched, hdrcount + 1), max_headers + 1);
        for (int i = 0; i < used; ++i) headers[i][0] = '\0';
        hdrcount = 0;
        in_command = 0;
        touched = 0;
    }
    // Slot `i` is about to be written.
    void touch(int i) { touched = std::max(touched, i + 1); }
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

// connect_nonb, storing the socket in s.fd: the socket, or -1.
int mgr_connect(mansession& s);

// Writes `len` bytes, waiting at most `timeoutms` ms each time the socket
// cannot take more. 0 all written, -1 failure.
int __mgr_write(int fd, const char* buf, size_t len, int timeoutms);

// Sends the message's non-empty headers, each with "\r\n", and an empty line.
// Write errors are not reported: 0.
int mgr_write(mansession& s, const message& m);

// Appends a header formatted printf-style, cut at 1023 characters.
// 0 added, 1 the message is full.
int mgr_add_header(message& m, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Connects (retrying every second until it succeeds) and sends the login with
// "Events: <events>" (null or empty: "call"). 0 sent, 1 refused because the
// manager refused the last login, or because wake_fd became readable.
int mgr_login(mansession& s, const char* events = "call");

// The value of the first header named `name` (compared without regard to
// case), or an empty text. The result points into `m` or is a static "".
const char* mgr_get_header(const message& m, const char* name);

// Returns the next buffered line in `output` (1024 bytes) without its line end
// (1), or waits without time limit (until answer_by when set) for the socket
// and receives more bytes (0), or fails (-1: peer closed, receive or wait
// error, wake_fd readable; -2: answer_by passed). Bytes
// that have arrived already are received without a wait (wake_fd is looked
// at when it waits, and at least every 64th receive).
int mgr_get_input(mansession& s, char* output);

// Reads one whole message into the cleared `m`: 1, or negative on failure.
int mgr_read(mansession& s, message& m);

// The dotted form of `addr` in `buf`; returns `buf`.
const char* mgr_inet_ntoa(char* buf, size_t size, in_addr addr);
