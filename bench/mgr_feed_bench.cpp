// 20,000 Cdr events, only the last of them from a room, played by one
// Manager over loopback to a reader, timed from the first byte written until
// the reader has the last call:
//  - BM_DaemonFeed: the daemon itself (its binary, in the foreground, with
//    [fixes] all and the shipped log level): until that call is in the
//    states file's cache.
//  - BM_NodeClientFeed: a Node client of another Manager library, when
//    ORLANBECK_NODE_CLIENT is set (bench/mgr_libs_bench.sh sets it): a
//    command that is run with the Manager's port and the number of events
//    appended, and writes a line once it has the last event. Argument
//    "client": which of the ORLANBECK_NODE_CLIENT_<n> commands.
// Each run is a fresh reader on a fresh connection; the events go out once
// the login has been answered and the reader had 300 ms to settle.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "netutil.h"
#include "sim_mgr.h"
#include "sim_pms.h"

namespace {

constexpr int kEvents = 20000;
const char* const kLastUid = "1714557600.last";

// The events as the exchange writes them.
const std::string& feed() {
    static const std::string text = [] {
        std::string out;
        for (int i = 0; i < kEvents; ++i) {
            const bool last = i + 1 == kEvents;
            const std::string src = last ? "101" : std::to_string(5000 + (i % 64) * 37);
            out += mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65)
                       .set("From", src)
                       .set("To", "004930123456")
                       .set("Cost", "0.40")
                       .set("UniqueID", last ? kLastUid : "1714557600." + std::to_string(i))
                       .text();
        }
        return out;
    }();
    return text;
}

// Accepts the reader's connection on `listener`, answers its login and gives
// it time to settle: the connection, or -1.
int accept_login(int listener) {
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, 30000) <= 0) return -1;
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 || !write_all(fd, "Asterisk Call Manager/9.0.0\r\n")) return -1;
    std::string got;
    char buf[4096];
    pollfd c{fd, POLLIN, 0};
    while (got.find("\r\n\r\n") == std::string::npos) {
        ssize_t n = poll(&c, 1, 30000) > 0 ? recv(fd, buf, sizeof buf, 0) : -1;
        if (n <= 0) {
            close(fd);
            return -1;
        }
        got.append(buf, static_cast<size_t>(n));
    }
    std::string id;
    for (const char* name : {"ActionID: ", "actionid: ", "ActionId: "})
        if (size_t at = got.find(name); at != std::string::npos)
            id = got.substr(at + 10, got.find("\r\n", at) - at - 10);
    const std::string answer = "Response: Success\r\n" +
                               (id.empty() ? "" : "ActionID: " + id + "\r\n") +
                               "Message: Authentication accepted\r\n\r\n";
    if (!write_all(fd, answer)) {
        close(fd);
        return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return fd;
}

// Writes the feed on `fd` in a thread of its own, from `from` on.
std::thread play(int fd, std::chrono::steady_clock::time_point& from) {
    from = std::chrono::steady_clock::now();
    return std::thread([fd] { write_all(fd, feed()); });
}

void report(benchmark::State& state) {
    state.counters["events/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kEvents, benchmark::Counter::kIsRate);
}

void BM_DaemonFeed(benchmark::State& state) {
    feed();
    pms_sim pms;
    if (!pms.start()) {
        state.SkipWithError("no PMS simulator");
        return;
    }
    static int run = 0;  // a fresh folder for every run, repetitions too
    for (auto _ : state) {
        const std::string dir = work_dir() + "/feed" + std::to_string(run++);
        mkdir(dir.c_str(), 0700);
        int port = 0;
        const int listener = listen_loopback(0, &port);
        std::ofstream(dir + "/orlanbeck.conf")
            << "[fixes]\nall = yes\n[pms]\nhost = 127.0.0.1\nport = " << pms.port()
            << "\nstatesfile = " << dir << "/states.db\n[logger]\nlog_level = 4\n"
            << "log_file = " << dir << "/orlanbeck.log\n[services]\ncdr_use_manager = yes\n"
            << "cdr_mgr_host = 127.0.0.1\ncdr_mgr_port = " << port << "\n"
            << "cdr_mgr_user = orlanbeck\ncdr_mgr_password = secret\n[rooms]\nroom1 = 101\n";
        const pid_t daemon = start_daemon(ORLANBECK_BINARY, dir + "/orlanbeck.conf");
        const int fd = accept_login(listener);
        sqlite3* db = nullptr;
        sqlite3_stmt* st = nullptr;
        bool done = false;
        std::chrono::steady_clock::time_point from;
        if (fd >= 0 &&
            sqlite3_open_v2((dir + "/states.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
                SQLITE_OK &&
            sqlite3_prepare_v2(db, "select count(*) from cdrcache where uniqueid = ?", -1, &st,
                               nullptr) == SQLITE_OK) {
            sqlite3_bind_text(st, 1, kLastUid, -1, SQLITE_STATIC);
            std::thread writer = play(fd, from);
            const auto give_up = from + std::chrono::seconds(60);
            while (!done && std::chrono::steady_clock::now() < give_up) {
                done = sqlite3_step(st) == SQLITE_ROW && sqlite3_column_int(st, 0) > 0;
                sqlite3_reset(st);
                if (!done) std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            state.SetIterationTime(
                std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count());
            writer.join();
        }
        sqlite3_finalize(st);
        sqlite3_close(db);
        kill(daemon, SIGTERM);
        waitpid(daemon, nullptr, 0);
        if (fd >= 0) close(fd);
        close(listener);
        if (!done) {
            state.SkipWithError("the last call was not cached");
            break;
        }
    }
    report(state);
}
BENCHMARK(BM_DaemonFeed)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

void BM_NodeClientFeed(benchmark::State& state) {
    const std::string var = "ORLANBECK_NODE_CLIENT_" + std::to_string(state.range(0));
    const char* command = getenv(var.c_str());
    if (!command || !*command) {
        state.SkipWithError(("no client: " + var + " is not set").c_str());
        return;
    }
    feed();
    for (auto _ : state) {
        int port = 0;
        const int listener = listen_loopback(0, &port);
        int out[2];
        if (listener < 0 || pipe2(out, O_CLOEXEC) != 0) {
            state.SkipWithError("no listener");
            return;
        }
        const std::string line =
            std::string(command) + " " + std::to_string(port) + " " + std::to_string(kEvents);
        const pid_t client = fork();
        if (client == 0) {
            dup2(out[1], 1);
            execl("/bin/sh", "sh", "-c", ("exec " + line).c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        const int fd = accept_login(listener);
        bool done = false;
        std::chrono::steady_clock::time_point from;
        if (fd >= 0) {
            std::thread writer = play(fd, from);
            pollfd p{out[0], POLLIN, 0};
            char c;
            done = poll(&p, 1, 60000) > 0 && read(out[0], &c, 1) == 1;
            state.SetIterationTime(
                std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count());
            shutdown(fd, SHUT_RDWR);
            writer.join();
            close(fd);
        }
        kill(client, SIGTERM);
        waitpid(client, nullptr, 0);
        close(out[0]);
        close(listener);
        if (!done) {
            state.SkipWithError("the client did not get the last event");
            break;
        }
    }
    report(state);
}
BENCHMARK(BM_NodeClientFeed)
    ->ArgName("client")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv);
}
