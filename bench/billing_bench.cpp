// One billing cycle of a 2,000-room hotel as the daemon runs it: the states
// file opened by the daemon's own code (its journal, its indexes), the
// 100,000 calls posted in earlier cycles still in the cache (the specified
// mode never removes them) and 20,000 new ones to post; the log written to a
// file at the shipped level 4 (and, for information, at level 5, where every
// DEBUG line is written); the statements' echo on standard output going to
// /dev/null as in a detached daemon. Also the idle cycle (nothing new) and
// the query mode on an indexed PBX table holding as many calls (in WAL mode,
// its section with synchronous = normal, and for information without). The PMS link
// is a socket pair whose far end is drained. Arguments: "fixes" 0 the
// specified behaviour, 1 every [fixes] correction; "level" the log level.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "billing/background.h"
#include "db/sqlite.h"
#include "fias/link.h"
#include "logger.h"
#include "states/states.h"

namespace {

constexpr int kRooms = 2000;
constexpr int kNewPerRoom = 10;
constexpr int kPostedPerRoom = 50;

void run(dbdriver_t& drv, const std::string& sql) {
    bench_run(drv, sql);
}

// Inserts rows in one transaction; `insert(r, i, posted)` makes the statement
// of call i of room r.
template <typename Insert>
void fill(dbdriver_t& drv, Insert insert) {
    std::string sql = "begin;";
    for (int r = 0; r < kRooms; ++r) {
        for (int i = 0; i < kPostedPerRoom; ++i) sql += insert(r, i, true);
        for (int i = 0; i < kNewPerRoom; ++i) sql += insert(r, i, false);
    }
    sql += "commit;";
    run(drv, sql);
}

std::string room_name(int r) {
    return std::to_string(1000 + r);
}

std::vector<std::string> all_rooms() {
    std::vector<std::string> rooms;
    for (int r = 0; r < kRooms; ++r) rooms.push_back(room_name(r));
    return rooms;
}

// Posted calls were made the day before the new ones.
std::string call_date(bool posted) {
    return posted ? "2009-05-13" : "2009-05-14";
}

std::string call_time(int i) {
    char text[16];
    snprintf(text, sizeof text, "10:%02d:%02d", i / 60, i % 60);
    return text;
}

config bench_config(bool fixes) {
    config cfg;
    if (fixes) {
        fixes_settings& f = cfg.fixes;
        f.link_end = f.ordered_records = f.signals = f.reload = f.exit_status = f.quiet = true;
        f.private_files = f.escape = f.numbers = f.dates = f.percent = f.dnd_keys = true;
        f.states_file = f.posting = f.mysql = f.manager_events = true;
    }
    return cfg;
}

// An active link whose PMS end reads and forgets everything.
struct drained_link {
    pms_link link;
    int far = -1;
    std::thread reader;
    drained_link() {
        int sv[2];
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
        link.attach(sv[0]);
        link.set_active();
        far = sv[1];
        reader = std::thread([fd = far] {
            char buf[65536];
            while (read(fd, buf, sizeof buf) > 0) {
            }
        });
    }
    ~drained_link() {
        shutdown(far, SHUT_RDWR);
        reader.join();
        close(far);
    }
};

// The daemon's objects that a cycle works with, on an active link whose PMS
// end reads and forgets everything.
struct cycle_parts {
    drained_link drained;
    states_file states;
    audit_window audit;
    posting_extensions extensions;
    notifier notify;
    billing_parts parts{drained.link, states, audit, extensions, notify};
};

cycle_parts& bench_parts() {
    static cycle_parts p;
    return p;
}

// The states file as the daemon opens it, with the posted and the new calls.
void open_cache() {
    static bool opened = [] {
        bench_parts().states.open(work_dir() + "/states.db");
        fill(bench_db(work_dir() + "/states.db"), [](int r, int i, bool posted) {
            const std::string room = room_name(r);
            const std::string mark = posted ? "PS|P#0001|RN" + room + "|PTT|DA090513|TI10000" +
                                                  std::to_string(i % 10) + "|DU000205|DD5551234|"
                                            : "";
            return "insert into cdrcache (src, dst, start, billsec, c_from, userfield) values ('" +
                   room + "','5551234','" + call_date(posted) + " " + call_time(i) + "',125,'" +
                   room + "','" + mark + "');";
        });
        return true;
    }();
    (void)opened;
}

void unpost_new_calls() {
    run(bench_db(work_dir() + "/states.db"),
        "update cdrcache set userfield='' where start >= '2009-05-14'");
}

// Times whole cycles over all rooms; `reset` (not timed) makes the new
// calls new again before each.
void time_cycles(benchmark::State& state, const config& cfg, const std::function<void()>& reset) {
    std::vector<std::string> rooms = all_rooms();
    posting_sequence sequence;
    for (auto _ : state) {
        state.PauseTiming();
        reset();
        state.ResumeTiming();
        billing_cycle(cfg, rooms, bench_parts().parts, sequence);
    }
    state.counters["calls/cycle"] = kRooms * kNewPerRoom;
}

// Each cycle benchmark in the specified mode (0) and with every correction
// (1), at the shipped log level.
void both_modes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"fixes", "level"})->Args({0, 4})->Args({1, 4});
    b->Unit(benchmark::kMillisecond)->Iterations(3);
}

void BM_CycleCacheMode(benchmark::State& state) {
    open_cache();
    set_level(static_cast<int>(state.range(1)));
    config cfg = bench_config(state.range(0) != 0);
    cfg.use_manager = 1;
    time_cycles(state, cfg, unpost_new_calls);
}
BENCHMARK(BM_CycleCacheMode)->Apply(both_modes)->Args({0, 5});

// A cycle that finds nothing new: 120,000 posted calls, none to post.
void BM_CycleCacheIdle(benchmark::State& state) {
    open_cache();
    set_level(static_cast<int>(state.range(1)));
    config cfg = bench_config(state.range(0) != 0);
    cfg.use_manager = 1;
    std::vector<std::string> rooms = all_rooms();
    posting_sequence sequence;
    billing_cycle(cfg, rooms, bench_parts().parts, sequence);
    for (auto _ : state) billing_cycle(cfg, rooms, bench_parts().parts, sequence);
}
BENCHMARK(BM_CycleCacheIdle)
    ->ArgNames({"fixes", "level"})
    ->Args({0, 4})
    ->Args({1, 4})
    ->Unit(benchmark::kMillisecond);

// A PBX database in WAL mode, as an operator who wants speed sets it up;
// "normal" 1 gives its section synchronous = normal (a commit waits for the
// operating system), 0 keeps the library's default (a commit waits for the
// disk: one disk sync per room).
void BM_CycleQueryMode(benchmark::State& state) {
    const std::string path = work_dir() + "/pbx.db";
    auto open_pbx = [&](bool normal) {
        dbdriver_ptr drv = sqlite_create_drv("pbx");
        drv->database = path;
        sqlite_set_sync_normal(*drv, normal);
        db_lock guard(*drv);
        drv->reconnect();
        return drv;
    };
    static dbdriver_ptr pbx_full = [&] {
        dbdriver_ptr drv = open_pbx(false);
        run(*drv, "pragma journal_mode=wal");
        run(*drv, "create table calls (src, calldate, calltime, dst, billsec, cost, posted)");
        run(*drv, "create index calls_src on calls (src, posted)");
        fill(*drv, [](int r, int i, bool posted) {
            return "insert into calls values ('" + room_name(r) + "','" + call_date(posted) +
                   "','" + call_time(i) + "','5551234',125,498," + (posted ? "1" : "0") + ");";
        });
        return drv;
    }();
    static dbdriver_ptr pbx_normal = open_pbx(true);
    dbdriver_ptr pbx = state.range(2) ? pbx_normal : pbx_full;
    set_level(static_cast<int>(state.range(1)));
    config cfg = bench_config(state.range(0) != 0);
    cfg.dbdrivers = {pbx};
    cfg.billcalls =
        "pbx:select calldate, calltime, dst, billsec, cost from calls where "
        "src='%exten%' and posted=0";
    cfg.billmark =
        "pbx:update calls set posted=1 where src='%exten%' and calldate='%date%' and "
        "calltime='%time%' and posted=0";
    time_cycles(state, cfg,
                [&] { run(*pbx, "update calls set posted=0 where calldate='2009-05-14'"); });
}
BENCHMARK(BM_CycleQueryMode)
    ->ArgNames({"fixes", "level", "normal"})
    ->Args({0, 4, 1})
    ->Args({1, 4, 1})
    ->Args({0, 4, 0})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    if (!freopen("/dev/null", "w", stdout)) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::ConsoleReporter report;
    report.SetOutputStream(&std::cerr);
    report.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&report);
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(work_dir(), ec);
    return 0;
}
