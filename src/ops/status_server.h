// The status endpoint ([status] listen): an HTTP server (prometheus-cpp's
// exposer) that answers /metrics with the daemon's metrics in the Prometheus
// text format and /health with 200 "ok" or 503 and a one-line reason.
//
// Contract:
//  - main makes at most one status_server at a time, and replaces it when a
//    reload changes `listen`. It serves from threads of its own; the health
//    function runs there and must take no lock that the PMS reader or the
//    billing thread holds for long.
//  - A scraper that connects and never reads holds one of the server's
//    threads, nothing else.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

// `listen` as the server's address ("127.0.0.1:9466", "[::1]:9466"), or
// nothing when it cannot be read. A bare port means 127.0.0.1.
std::optional<std::string> status_address(const std::string& listen);

class status_server {
  public:
    // Why the daemon is not healthy, or "" when it is.
    using health_fn = std::function<std::string()>;

    status_server();
    ~status_server();
    status_server(const status_server&) = delete;
    status_server& operator=(const status_server&) = delete;

    // Listens on `listen`. False (logged) when the value cannot be read or
    // the address cannot be bound; the daemon then runs without it.
    bool start(const std::string& listen, health_fn health);
    // The port listened on (0 when not listening).
    int port() const;

  private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

// Whether `listen` can be bound now (the configuration check's -tt); the
// reason in `why` when not.
bool status_address_bindable(const std::string& listen, std::string* why);
