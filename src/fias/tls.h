// The TLS client side of the PMS link, through OpenSSL: TLS 1.2 or later,
// the server's certificate checked against the configured CAs and its name
// (or IP address).
//
// Contract:
//  - tls_handshake() runs the handshake on a connected socket that the caller
//    keeps owning; the socket is non-blocking from then on. The session must
//    be destroyed before the socket is closed.
//  - A session may be used by several threads at once (the link's reader and
//    its writers): every OpenSSL call on it is made under the session's own
//    lock, which is held only for that call, never while waiting.
//  - Nothing here logs: failures come back in words (OpenSSL's reason) for
//    the caller, who knows which server it was.
#pragma once

#include <chrono>
#include <memory>
#include <string>

struct tls_settings {
    std::string ca;           // CA file or directory; empty: the system's
    std::string cert;         // client certificate (chain) file; empty: none
    std::string key;          // its private key; empty: in the certificate file
    std::string server_name;  // a host name, or an IP address, the certificate must name

    bool operator==(const tls_settings&) const = default;
};

class tls_session;

struct tls_result {
    std::unique_ptr<tls_session> session;  // null on failure
    bool late = false;                     // the deadline passed first
    std::string error;                     // what went wrong, for the log
};

// Runs the client handshake on `fd` until `deadline`.
tls_result tls_handshake(int fd, const tls_settings& settings,
                         std::chrono::steady_clock::time_point deadline);

class tls_session {
  public:
    // A read or write that cannot go on until the socket is ready; `*wait`
    // (POLLIN or POLLOUT) says for what.
    static constexpr int again = -2;

    ~tls_session();
    tls_session(const tls_session&) = delete;
    tls_session& operator=(const tls_session&) = delete;

    // Up to `len` bytes into `buf`: the count, 0 at the end of the stream
    // (and on every call after it), -1 on error, or `again`.
    int read(char* buf, int len, short* wait);
    // All `len` bytes, or -1, or `again` (call again with the same bytes).
    int write(const char* buf, int len, short* wait);
    // Whether bytes already received wait to be read (poll() cannot tell).
    bool pending() const;

    // Made by tls_handshake() only: the state is defined in the .cpp.
    struct state;
    explicit tls_session(std::unique_ptr<state> s);

  private:
    std::unique_ptr<state> state_;
};
