#include "fias/link.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "fias/codec.h"
#include "logger.h"

std::atomic<int> fias_sock{-1};
std::atomic<int> pms_connected{0};
std::atomic<int> fias_connected{0};

namespace {

constexpr char STX = 0x02;
constexpr char ETX = 0x03;

// Every frame goes out in one send() under this mutex, whichever thread sends.
std::mutex write_mutex;

std::atomic<void (*)()> idle_hook{nullptr};

// A link that a writer ended (a failed start-up exchange) while the main
// thread may be reading it. The writer only shuts it down: the descriptor
// stays allocated until the reader's thread releases it with
// fias_disconnect(), so the reader never touches a closed or reused number.
std::atomic<int> ended_sock{-1};

void end_link(int sock) {
    ended_sock = sock;
    shutdown(sock, SHUT_RDWR);
}

// `format` filled in with the current local time.
std::string local_time_text(const char* format) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char buf[32] = "";
    strftime(buf, sizeof buf, format, &tmv);
    return buf;
}

// One byte from `sock`: 1, 0 at end of stream, -1 on error (EINTR retried).
//
// While nothing arrives, the idle hook runs once a second (and after a signal
// interrupted the wait), so a quiet link never keeps the main thread from
// acting on pending signals.
int read_byte(int sock, char* c) {
    if (sock < 0) return -1;
    for (;;) {
        pollfd pfd{sock, POLLIN, 0};
        int ready = poll(&pfd, 1, 1000);
        if (ready <= 0) {
            if (ready < 0 && errno != EINTR) return -1;
            if (void (*hook)() = idle_hook.load()) hook();
            continue;
        }
        ssize_t n = read(sock, c, 1);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return -1;
    }
}

// One byte from `sock`, waiting at the end of the stream: a peer that has
// gone quiet is not reported by the reader. Each wait is one second long and
// runs the idle hook once. 1, or -1 on error or when our side ended the link.
int read_byte_waiting(int sock, char* c) {
    for (;;) {
        int n = read_byte(sock, c);
        if (n != 0) return n;
        if (ended_sock == sock) return -1;
        sleep(1);
        if (void (*hook)() = idle_hook.load()) hook();
    }
}

}  // namespace

void fias_set_idle_hook(void (*hook)()) {
    idle_hook = hook;
}

int fias_connect(const char* host, int port, const char* /*interface*/) {
    if (!host) return -1;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &res) != 0 || !res) return -1;
    sockaddr_in sin{};
    memcpy(&sin, res->ai_addr, sizeof sin);
    freeaddrinfo(res);
    sin.sin_port = htons(static_cast<uint16_t>(port));

    int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return -1;
    if (connect(sock, reinterpret_cast<sockaddr*>(&sin), sizeof sin) < 0) {
        close(sock);
        return -1;
    }
    fias_send_raw_packet(sock, local_time_text("LS|DA%y%m%d|TI%H%M%S|").c_str());
    return sock;
}

void fias_disconnect(int sock) {
    if (sock < 0) return;
    int ended = sock;
    ended_sock.compare_exchange_strong(ended, -1);
    shutdown(sock, SHUT_RDWR);
    close(sock);
}

int fias_send_raw_packet(int sock, const char* packet) {
    if (!packet) return -1;
    LOG(L_DEBUG, "Writing packet %s\n", packet);
    std::string frame;
    frame.reserve(strlen(packet) + 2);
    frame.push_back(STX);
    frame.append(packet);
    frame.push_back(ETX);

    ssize_t n;
    {
        std::lock_guard<std::mutex> guard(write_mutex);
        do {
            n = send(sock, frame.data(), frame.size(), MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
    }
    return n == static_cast<ssize_t>(frame.size()) ? static_cast<int>(n) : -1;
}

int fias_send_packet(int sock, const fias_packet_t* p) {
    if (!p) return -1;
    std::string text = fias_packet_to_str(p);
    if (text.empty()) return -1;
    return fias_send_raw_packet(sock, text.c_str());
}

int fias_read_packet(int sock, char* packet, int maxlen) {
    if (maxlen < 1) return 0;

    char c;
    if (read_byte_waiting(sock, &c) < 0) return -1;
    printf("Read code %x\n", static_cast<int>(static_cast<signed char>(c)));
    fflush(stdout);
    if (c != STX) return -2;

    int count = 0;
    for (;;) {
        if (count >= maxlen - 1) {
            packet[count] = '\0';
            return count;
        }
        if (read_byte_waiting(sock, &packet[count]) < 0) return -1;
        if (packet[count] == ETX) {
            packet[count + 1] = '\0';
            return count;
        }
        count++;
    }
}

int fias_send_la(int sock) {
    return fias_send_raw_packet(sock, local_time_text("LA|DA%y%m%d|TI%H%M%S|").c_str());
}

int fias_init_connection(int sock, const char* iftype) {
    std::string ld = local_time_text("LD|DA%y%m%d|TI%H%M%S|V#1.01|IF");
    if (iftype) ld.append(iftype, strnlen(iftype, 2));
    ld.append("|");
    fias_send_raw_packet(sock, ld.c_str());

    for (const fias_catalogue_row* row = fias_packets; row->num_fields != 0; row++) {
        if (row->packet[0] == 'L') continue;
        std::string names;
        for (int i = 0; i < row->num_fields; i++) names.append(row->fields[i].name);
        char lr[256];
        snprintf(lr, sizeof lr, "LR|RI%.2s|FL%s|", row->packet, names.c_str());
        write_log(L_DEBUG, __FILE_NAME__, __LINE__, "fias_send_lr", "%s\n", lr);
        if (fias_send_raw_packet(sock, lr) < 0) {
            end_link(sock);
            return -1;
        }
    }

    if (fias_send_la(sock) < 0) {
        end_link(sock);
        return -1;
    }
    fias_connected = 1;
    return 0;
}
