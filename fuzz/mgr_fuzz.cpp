// Manager message reader: arbitrary bytes from the manager, read into
// messages until the stream ends, and each message told apart (an answer to
// one of the daemon's actions, an event, anything else). Must never crash,
// overrun or hang.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "logger.h"
#include "mgr/manager.h"
#include "mgr/session.h"

namespace {

constexpr size_t max_input = 64 * 1024;  // fits the socket buffer: written at once

const char* const names[] = {"Event", "Response", "Message", "Source", "Destination", "", "X"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = (logger_init(nullptr, 0, 0, 1), true);
    (void)once;
    if (size > max_input) size = max_input;

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) < 0) return 0;
    int sndbuf = 4 * max_input;
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    size_t off = 0;
    while (off < size) {
        ssize_t n = write(sv[1], data + off, size - off);
        if (n <= 0) break;
        off += static_cast<size_t>(n);
    }
    shutdown(sv[1], SHUT_WR);  // the reader sees the end and fails with -1

    mansession s;
    s.fd = sv[0];
    auto m = std::make_unique<message>();
    for (;;) {
        m->clear();
        if (mgr_read(s, *m) < 0) break;
        if (m->count() < 0 || m->count() > message::max_lines) __builtin_trap();
        for (int i = 0; i < m->count(); ++i)
            if (strlen(m->line(i)) > message::max_line) __builtin_trap();
        for (const char* name : names) {
            const char* v = mgr_get_header(*m, name);
            if (!v) __builtin_trap();
        }
        const mgr_message_kind k = classify_message(*m);
        if (k.kind == mgr_message_kind::answer && k.action <= 0) __builtin_trap();
        if (k.kind == mgr_message_kind::event && k.name.empty()) __builtin_trap();
    }
    if (s.head > s.tail || s.tail > mansession::buffer_size) __builtin_trap();
    close(sv[1]);
    return 0;
}
