#include "ops/status_server.h"

#include <CivetServer.h>
#include <civetweb.h>
#include <prometheus/exposer.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>

#include "logger.h"
#include "metrics.h"
#include "thread_annotations.h"

namespace {

// The health function of the server that runs (at most one does). A request
// for /health is answered before the exposer sees it.
annotated_mutex health_mutex;
status_server::health_fn* current_health GUARDED_BY(health_mutex) = nullptr;

int answer_health(mg_connection* conn) {
    const mg_request_info* info = mg_get_request_info(conn);
    if (!info || !info->local_uri || std::string(info->local_uri) != "/health") return 0;
    std::string why = "no health check";
    {
        mutex_lock guard(health_mutex);
        if (current_health && *current_health) why = (*current_health)();
    }
    const bool ok = why.empty();
    const std::string body = (ok ? std::string("ok") : why) + "\n";
    mg_printf(conn,
              "HTTP/1.1 %d %s\r\nContent-Type: text/plain; charset=utf-8\r\n"
              "Content-Length: %zu\r\nConnection: close\r\n\r\n%s",
              ok ? 200 : 503, ok ? "OK" : "Service Unavailable", body.size(), body.c_str());
    return ok ? 200 : 503;
}

bool is_port(const std::string& text) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const long port = strtol(text.c_str(), nullptr, 10);
    return port >= 1 && port <= 65535;
}

}  // namespace

std::optional<std::string> status_address(const std::string& listen) {
    if (is_port(listen)) return "127.0.0.1:" + listen;
    if (!listen.empty() && listen[0] == '[') {  // [v6 address]:port
        const size_t close = listen.find("]:");
        if (close == std::string::npos || close < 3 || !is_port(listen.substr(close + 2)))
            return std::nullopt;
        if (listen.find_first_not_of("0123456789abcdefABCDEF:.", 1) != close) return std::nullopt;
        return listen;
    }
    const size_t colon = listen.rfind(':');
    if (colon == std::string::npos || colon == 0 || !is_port(listen.substr(colon + 1)))
        return std::nullopt;
    const std::string host = listen.substr(0, colon);
    if (host.find_first_not_of("0123456789.") != std::string::npos ||
        std::count(host.begin(), host.end(), '.') != 3)
        return std::nullopt;
    return listen;
}

struct status_server::impl {
    health_fn health;
    CivetCallbacks callbacks;
    std::unique_ptr<prometheus::Exposer> exposer;
};

status_server::status_server() : impl_(std::make_unique<impl>()) {}

status_server::~status_server() {
    {
        mutex_lock guard(health_mutex);
        if (current_health == &impl_->health) current_health = nullptr;
    }
    impl_->exposer.reset();  // its threads end here
}

bool status_server::start(const std::string& listen, health_fn health) {
    const std::optional<std::string> address = status_address(listen);
    if (!address) {
        LOG(L_ERROR,
            "status:listen = \"%s\" is no address: give a port, an IPv4 address and port, or "
            "[IPv6 address]:port; no status endpoint",
            listen.c_str());
        return false;
    }
    impl_->health = std::move(health);
    impl_->callbacks.begin_request = answer_health;
    try {
        // A few threads, and a connection that sends no whole request or
        // reads no answer is dropped after 5 s: slow scrapers cannot keep
        // the others out for long.
        impl_->exposer = std::make_unique<prometheus::Exposer>(
            std::vector<std::string>{"listening_ports", *address, "num_threads", "4",
                                     "request_timeout_ms", "5000"},
            &impl_->callbacks);
    } catch (const std::exception& e) {
        LOG(L_ERROR, "Unable to listen on %s for the status endpoint (%s): running without it",
            address->c_str(), e.what());
        return false;
    }
    impl_->exposer->RegisterCollectable(metrics::counters());
    impl_->exposer->RegisterCollectable(metrics::now_collectable());
    {
        mutex_lock guard(health_mutex);
        current_health = &impl_->health;
    }
    LOG(L_NOTICE, "Status endpoint listening on %s (/metrics, /health)", address->c_str());
    return true;
}

int status_server::port() const {
    if (!impl_->exposer) return 0;
    const std::vector<int> ports = impl_->exposer->GetListeningPorts();
    return ports.empty() ? 0 : ports.front();
}

bool status_address_bindable(const std::string& listen, std::string* why) {
    const std::optional<std::string> address = status_address(listen);
    if (!address) {
        *why = "no address";
        return false;
    }
    try {
        prometheus::Exposer probe(*address, 1);
    } catch (const std::exception& e) {
        *why = e.what();
        return false;
    }
    return true;
}
