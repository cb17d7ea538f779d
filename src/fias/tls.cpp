#include "fias/tls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "thread_annotations.h"

namespace {

struct ctx_deleter {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
struct ssl_deleter {
    void operator()(SSL* s) const { SSL_free(s); }
};
using ctx_ptr = std::unique_ptr<SSL_CTX, ctx_deleter>;
using ssl_ptr = std::unique_ptr<SSL, ssl_deleter>;

// The reason of the most recent OpenSSL error of this thread (the queue is
// emptied), or `otherwise` when there is none.
std::string openssl_reason(const char* otherwise) {
    unsigned long last = 0;
    while (unsigned long e = ERR_get_error()) last = e;
    if (last == 0) return otherwise;
    if (const char* reason = ERR_reason_error_string(last)) return reason;
    char text[256];
    ERR_error_string_n(last, text, sizeof text);
    return text;
}

bool is_ip_address(const std::string& name) {
    unsigned char buf[sizeof(in6_addr)];
    return inet_pton(AF_INET, name.c_str(), buf) == 1 ||
           inet_pton(AF_INET6, name.c_str(), buf) == 1;
}

// The CAs, the client certificate and the version floor. Empty on success,
// else what failed.
std::string configure(SSL_CTX* ctx, const tls_settings& s) {
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
    // A peer that closes without close_notify ends the stream like plain TCP.
    SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
    struct stat st;
    const bool directory = !s.ca.empty() && stat(s.ca.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    const int loaded = s.ca.empty()
                           ? SSL_CTX_set_default_verify_paths(ctx)
                           : SSL_CTX_load_verify_locations(ctx, directory ? nullptr : s.ca.c_str(),
                                                           directory ? s.ca.c_str() : nullptr);
    if (loaded != 1)
        return "cannot load the CA " + (s.ca.empty() ? std::string("of the system") : s.ca) + ": " +
               openssl_reason("unknown reason");
    if (s.cert.empty()) return "";
    const std::string& key = s.key.empty() ? s.cert : s.key;
    if (SSL_CTX_use_certificate_chain_file(ctx, s.cert.c_str()) != 1)
        return "cannot load the client certificate " + s.cert + ": " +
               openssl_reason("unknown reason");
    if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1)
        return "cannot load the client key " + key + ": " + openssl_reason("unknown reason");
    return "";
}

// The name or address the certificate must carry, and SNI for a name.
bool expect_name(SSL* ssl, const std::string& name) {
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    if (is_ip_address(name)) return X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str()) == 1;
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return X509_VERIFY_PARAM_set1_host(param, name.c_str(), 0) == 1 &&
           SSL_set_tlsext_host_name(ssl, name.c_str()) == 1;
}

}  // namespace

struct tls_session::state {
    ssl_ptr ssl;
    annotated_mutex mutex;
    bool ended GUARDED_BY(mutex) = false;   // end of the stream seen
    bool failed GUARDED_BY(mutex) = false;  // a fatal error: no close_notify

    // What a failed call of `rc` means: again (with *wait set), 0 for the end
    // of the stream, or -1.
    int outcome(int rc, short* wait) REQUIRES(mutex) {
        switch (SSL_get_error(ssl.get(), rc)) {
            case SSL_ERROR_WANT_READ:
                *wait = POLLIN;
                return again;
            case SSL_ERROR_WANT_WRITE:
                *wait = POLLOUT;
                return again;
            case SSL_ERROR_ZERO_RETURN:
                ended = true;
                return 0;
            case SSL_ERROR_SYSCALL:
                if (errno == EINTR || errno == EAGAIN) {
                    *wait = POLLIN | POLLOUT;
                    return again;
                }
                [[fallthrough]];
            default:
                failed = true;
                return -1;
        }
    }
};

tls_session::tls_session(std::unique_ptr<state> s) : state_(std::move(s)) {}

tls_session::~tls_session() {
    mutex_lock guard(state_->mutex);
    // A close_notify, if the socket takes it at once; nothing is waited for.
    if (!state_->failed) SSL_shutdown(state_->ssl.get());
    ERR_clear_error();
}

int tls_session::read(char* buf, int len, short* wait) {
    mutex_lock guard(state_->mutex);
    if (state_->ended) return 0;
    ERR_clear_error();
    const int n = SSL_read(state_->ssl.get(), buf, len);
    if (n > 0) return n;
    const int r = state_->outcome(n, wait);
    ERR_clear_error();
    return r;
}

int tls_session::write(const char* buf, int len, short* wait) {
    mutex_lock guard(state_->mutex);
    ERR_clear_error();
    const int n = SSL_write(state_->ssl.get(), buf, len);
    if (n > 0) return n;
    const int r = state_->outcome(n, wait);
    ERR_clear_error();
    return r == 0 ? -1 : r;
}

bool tls_session::pending() const {
    mutex_lock guard(state_->mutex);
    return SSL_pending(state_->ssl.get()) > 0;
}

namespace {

// Drives SSL_connect until it completes, fails or `deadline` passes.
void run_handshake(tls_session::state& s, int fd, std::chrono::steady_clock::time_point deadline,
                   tls_result& result) REQUIRES(s.mutex) {
    for (;;) {
        ERR_clear_error();
        const int rc = SSL_connect(s.ssl.get());
        if (rc == 1) return;
        short wait = 0;
        if (s.outcome(rc, &wait) != tls_session::again) {
            const long verified = SSL_get_verify_result(s.ssl.get());
            if (verified != X509_V_OK)
                result.error = std::string("certificate verify failed: ") +
                               X509_verify_cert_error_string(verified);
            else
                result.error =
                    openssl_reason(errno ? strerror(errno) : "the server closed the connection");
            return;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, wait, 0};
        int ready = 0;
        if (left.count() > 0) {
            do {
                ready = poll(&p, 1, static_cast<int>(left.count()));
            } while (ready < 0 && errno == EINTR);
        }
        if (ready <= 0) {
            s.failed = true;
            if (ready == 0)
                result.late = true;
            else
                result.error = strerror(errno);
            return;
        }
    }
}

}  // namespace

tls_result tls_handshake(int fd, const tls_settings& settings,
                         std::chrono::steady_clock::time_point deadline) {
    tls_result result;
    ERR_clear_error();
    ctx_ptr ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx) {
        result.error = openssl_reason("cannot make a TLS context");
        return result;
    }
    result.error = configure(ctx.get(), settings);
    if (!result.error.empty()) return result;
    ssl_ptr ssl(SSL_new(ctx.get()));  // holds its own reference to the context
    if (!ssl || SSL_set_fd(ssl.get(), fd) != 1 || !expect_name(ssl.get(), settings.server_name)) {
        result.error = openssl_reason("cannot set up the TLS session");
        return result;
    }
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        result.error = strerror(errno);
        return result;
    }
    auto s = std::make_unique<tls_session::state>();
    s->ssl = std::move(ssl);
    {
        mutex_lock guard(s->mutex);
        run_handshake(*s, fd, deadline, result);
        ERR_clear_error();
        if (result.late || !result.error.empty()) return result;
    }
    result.session = std::make_unique<tls_session>(std::move(s));
    return result;
}
