// The Manager side of a 2,000-room hotel, with the states file opened by the
// daemon's own code and 100,000 calls already in its cache:
//  - BM_ReaderToRoomTest: Cdr events as wire bytes through a loopback
//    connection, read by the reader and put to the room test the way the
//    capture thread does (none of the sources is a room, so nothing is
//    stored): the reader's rate end to end.
//  - BM_CaptureBurst: the capture thread itself, logged in to the Manager
//    simulator, which sends a burst of 10,000 Cdr events of a room: the time
//    until all of them are in the cache.
// Argument "level": the log level. The sample configuration ships level 4,
// where DEBUG lines are not written: the figures to meet. At level 5 (the
// default when the key is absent) every header of every event and every room
// compared is a DEBUG line in the log file.
#include <benchmark/benchmark.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "db/sqlite.h"
#include "logger.h"
#include "mgr/cdr.h"
#include "mgr/manager.h"
#include "netutil.h"
#include "sim_mgr.h"
#include "states/states.h"

namespace {

constexpr int kRooms = 2000;
constexpr int kBurst = 10000;

std::string states_path() {
    return work_dir() + "/states.db";
}

states_file states;

void run(const std::string& sql) {
    bench_run(bench_db(states_path()), sql);
}

// The states file with its rooms (1000 to 2999) and 100,000 posted calls.
void open_states() {
    static bool opened = [] {
        states.open(states_path());
        std::string sql = "begin;";
        for (int r = 0; r < kRooms; ++r) {
            const std::string room = std::to_string(1000 + r);
            sql += "insert into rooms values ('" + room + "','','',0);";
            for (int i = 0; i < 50; ++i)
                sql += "insert into cdrcache (src, dst, start, billsec, userfield) values ('" +
                       room + "','5551234','2009-05-13 10:00:" + std::to_string(10 + i) +
                       "',125,'PS|P#0001|RN" + room + "|PTT|');";
        }
        sql += "commit;";
        run(sql);
        return true;
    }();
    (void)opened;
}

// The newest row of the cache (rows are only added while measuring).
long newest_row() {
    return bench_number(bench_db(states_path()), "select max(rowid) from cdrcache");
}

int cached_calls(const char* src) {
    return bench_number(bench_db(states_path()),
                        std::string("select count(*) from cdrcache where src='") + src + "'");
}

mgr_cdr_event sample_call(const std::string& src) {
    return mgr_cdr_event::make(src, "004930123456", "2024-05-01 10:00:00", 65)
        .set("From", src)
        .set("To", "004930123456")
        .set("Cost", "0.40");
}

void BM_ReaderToRoomTest(benchmark::State& state) {
    open_states();
    set_level(static_cast<int>(state.range(0)));
    std::vector<std::string> list;
    states.rooms().list(list);
    const cdr_rooms rooms(std::move(list));
    int port = 0;
    int listener = listen_loopback(0, &port);
    mansession s;
    s.fd = connect_loopback(port);
    s.connected = 1;
    int server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (listener < 0 || s.fd < 0 || server < 0) {
        state.SkipWithError("no loopback connection");
        return;
    }
    // Sources next to the rooms' numbers, none of them a room.
    std::vector<std::string> texts;
    for (int i = 0; i < 64; ++i) texts.push_back(sample_call(std::to_string(5000 + i * 37)).text());
    const auto total = static_cast<long>(state.max_iterations);
    std::thread writer([&] {
        std::string chunk;
        for (long i = 0; i < total; ++i) {
            chunk += texts[static_cast<size_t>(i) % texts.size()];
            if (chunk.size() >= 64 * 1024 || i + 1 == total) {
                if (!write_all(server, chunk)) return;
                chunk.clear();
            }
        }
    });
    auto m = std::make_unique<message>();
    char addr[] = "127.0.0.1";
    for (auto _ : state) {
        // The capture thread's steps for one message.
        m->clear();
        if (mgr_read(s, *m) != 1) {
            state.SkipWithError("read failed");
            break;
        }
        for (int i = 0; i < m->count(); ++i) LOG(L_DEBUG, "%s got: %s", addr, m->line(i));
        if (strcasecmp(mgr_get_header(*m, "Event"), "Cdr") == 0) mgr_cache_cdr(*m, rooms, states);
    }
    writer.join();
    close(server);
    close(listener);
    state.counters["events/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
// At level 5 an event that is no room's call writes one line per room.
BENCHMARK(BM_ReaderToRoomTest)->ArgName("level")->Arg(4)->UseRealTime()->Iterations(500000);
BENCHMARK(BM_ReaderToRoomTest)->ArgName("level")->Arg(5)->UseRealTime()->Iterations(500);

void BM_CaptureBurst(benchmark::State& state) {
    open_states();
    set_level(static_cast<int>(state.range(0)));
    mgr_sim sim;
    if (!sim.start()) {
        state.SkipWithError("no simulator");
        return;
    }
    auto cfg = std::make_shared<config>();
    notifier notify;
    mgr_session capture({"127.0.0.1", sim.port(), "admin", "secret", "cdr"}, states, notify);
    attach_cdr_capture(capture, cfg, states);
    capture.start();
    if (!sim.wait_logins(1)) {
        state.SkipWithError("no login");
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the answer is read
    // A room in the first tenth of the list.
    const std::string room = "1199";
    int expected = cached_calls(room.c_str());
    bool lost = false;
    for (auto _ : state) {
        const long last = newest_row() + kBurst;
        sim.send_burst(sample_call(room), kBurst);
        expected += kBurst;
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (newest_row() < last) {
            if (std::chrono::steady_clock::now() > give_up) {
                lost = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    capture.stop(std::chrono::steady_clock::now() + std::chrono::seconds(10));
    if (lost || cached_calls(room.c_str()) != expected) state.SkipWithError("calls lost");
    state.counters["events/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kBurst, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_CaptureBurst)
    ->ArgName("level")
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);
BENCHMARK(BM_CaptureBurst)
    ->ArgName("level")
    ->Arg(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv);
}
