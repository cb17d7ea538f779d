// One full billing cycle for 2,000 rooms with 20,000 calls (ten a room), in
// the cache mode (internal cdrcache) and in the query mode (a SQLite PBX
// table), with the PMS link played by a socket pair whose far end is drained.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "billing/background.h"
#include "db/sqlite.h"
#include "fias/link.h"
#include "logger.h"
#include "states/states.h"

namespace {

constexpr int kRooms = 2000;
constexpr int kCallsPerRoom = 10;

std::string work_dir() {
    static std::string dir = [] {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/orlanbeck-bench-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        return std::string(mkdtemp(buf.data()));
    }();
    return dir;
}

void run(dbdriver_t& drv, const std::string& sql) {
    db_lock guard(drv);
    if (drv.query(sql.c_str()) != 0) fprintf(stderr, "bench: statement failed: %s\n", sql.c_str());
}

// Inserts the calls in one transaction; `insert` makes the statement of call i of room r.
template <typename Insert>
void fill(dbdriver_t& drv, Insert insert) {
    std::string sql = "begin;";
    for (int r = 0; r < kRooms; ++r)
        for (int i = 0; i < kCallsPerRoom; ++i) sql += insert(r, i);
    sql += "commit;";
    run(drv, sql);
}

std::string room_name(int r) { return std::to_string(1000 + r); }

std::vector<std::string> all_rooms() {
    std::vector<std::string> rooms;
    for (int r = 0; r < kRooms; ++r) rooms.push_back(room_name(r));
    return rooms;
}

std::string call_time(int i) {
    char text[16];
    snprintf(text, sizeof text, "10:%02d:%02d", i / 60, i % 60);
    return text;
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

void BM_CycleCacheMode(benchmark::State& state) {
    static bool opened = [] {
        open_states_file(work_dir() + "/states.db");
        run(sqliteint, "pragma journal_mode=wal");
        run(sqliteint, "delete from cdrcache");
        fill(sqliteint, [](int r, int i) {
            return "insert into cdrcache (src, dst, start, billsec, userfield) values ('" +
                   room_name(r) + "','5551234','2009-05-14 " + call_time(i) + "',125,'');";
        });
        return true;
    }();
    (void)opened;
    config cfg;
    cfg.use_manager = 1;
    std::vector<std::string> rooms = all_rooms();
    drained_link link;
    posting_sequence sequence;
    for (auto _ : state) {
        state.PauseTiming();
        run(sqliteint, "update cdrcache set userfield=''");
        state.ResumeTiming();
        billing_cycle(cfg, rooms, link.link, sequence);
    }
    state.counters["calls/cycle"] = kRooms * kCallsPerRoom;
}
BENCHMARK(BM_CycleCacheMode)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_CycleQueryMode(benchmark::State& state) {
    std::string path = work_dir() + "/pbx.db";
    dbdriver_ptr pbx = sqlite_create_drv("pbx");
    pbx->database = path;
    {
        db_lock guard(*pbx);
        pbx->connect(nullptr, 0, nullptr, nullptr, path.c_str());
    }
    run(*pbx, "pragma journal_mode=wal");
    run(*pbx, "create table if not exists calls (src, calldate, calltime, dst, billsec, cost, "
              "posted default 0)");
    run(*pbx, "create index if not exists calls_src on calls (src, posted)");
    run(*pbx, "delete from calls");
    fill(*pbx, [](int r, int i) {
        return "insert into calls values ('" + room_name(r) + "','2009-05-14','" + call_time(i) +
               "','5551234',125,498,0);";
    });
    config cfg;
    cfg.dbdrivers = {pbx};
    cfg.billcalls = "pbx:select calldate, calltime, dst, billsec, cost from calls where "
                    "src='%exten%' and posted=0";
    cfg.billmark = "pbx:update calls set posted=1 where src='%exten%' and calldate='%date%' and "
                   "calltime='%time%'";
    std::vector<std::string> rooms = all_rooms();
    drained_link link;
    posting_sequence sequence;
    for (auto _ : state) {
        state.PauseTiming();
        run(*pbx, "update calls set posted=0");
        state.ResumeTiming();
        billing_cycle(cfg, rooms, link.link, sequence);
    }
    state.counters["calls/cycle"] = kRooms * kCallsPerRoom;
}
BENCHMARK(BM_CycleQueryMode)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    // The statements' echo and the DEBUG lines are part of the work but not
    // of the report.
    logger_init("/dev/null", 5, 0, 0);
    if (!freopen("/dev/null", "w", stdout)) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::ConsoleReporter report;
    report.SetOutputStream(&std::cerr);
    report.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&report);
    std::error_code ec;
    std::filesystem::remove_all(work_dir(), ec);
    return 0;
}
