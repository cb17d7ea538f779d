// Cost of building a check-in statement from a template, and of one room's
// call query on an SQLite file as the billing loop runs it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "db/sqlite.h"
#include "logger.h"
#include "states/states.h"
#include "templates/templates.h"

namespace {

// The echo of every finished statement goes to /dev/null while measuring, as
// it does in a detached daemon.
class quiet_stdout {
  public:
    quiet_stdout() {
        fflush(stdout);
        saved_ = dup(1);
        int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(fd, 1);
        close(fd);
    }
    ~quiet_stdout() {
        fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

  private:
    int saved_;
};

fias_field_t text_field(const char* text) {
    fias_field_t f;
    f.value = std::make_unique<fias_value_t>();
    f.value->str = text;
    return f;
}

void BM_prepare_query_checkin(benchmark::State& state) {
    dbdriver_t drv;
    const char* checkin =
        "insert into guests (extension, name, language, shared, arrival, arrival_time, "
        "booked) values ('%exten%', '%name%', '%lang%', %share%, '%date%', '%time%', "
        "'%current_date% %current_time%')";
    fias_field_t rn = text_field("1204"), name = text_field("Mrs. Eleanor Whitfield-Santos");
    fias_field_t lang = text_field("EA");
    fias_field_t shared;
    shared.value = std::make_unique<fias_value_t>();
    shared.value->bval = 1;
    fias_field_t date, tim;
    date.value = std::make_unique<fias_value_t>();
    date.value->date = {25, 2, 14, 0};
    tim.value = std::make_unique<fias_value_t>();
    tim.value->time = {14, 30, 5, 0};

    quiet_stdout quiet;
    for (auto _ : state) {
        std::string q =
            prepare_query(&drv, checkin, &rn, &name, &lang, &shared, &date, &tim, nullptr);
        benchmark::DoNotOptimize(q);
    }
}
BENCHMARK(BM_prepare_query_checkin);

// A states file whose call cache holds `rooms` rooms of `calls` calls each.
class call_cache {
  public:
    call_cache(int rooms, int calls) {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/orlanbeck-bench-XXXXXX";
        if (!mkdtemp(templ.data())) abort();
        dir_ = templ;
        if (states_.open(dir_ + "/states.db") != 0) abort();
        drv_ = sqlite_create_drv("bench");
        db_lock guard(*drv_);
        if (drv_->connect(nullptr, 0, nullptr, nullptr, (dir_ + "/states.db").c_str()) != 0)
            abort();
        std::string fill = "begin;";
        for (int r = 0; r < rooms; ++r) {
            for (int c = 0; c < calls; ++c) {
                char row[256];
                snprintf(row, sizeof row,
                         "insert into cdrcache (src, dst, start, billsec, c_from) values "
                         "('%d', '0049301234%03d', '2025-03-%02d 10:%02d:00', %d, '%d');",
                         1000 + r, c, 1 + c % 28, c % 60, 30 + c, 1000 + r);
                fill += row;
            }
        }
        fill += "commit;";
        if (drv_->query(fill.c_str()) != 0) abort();
    }
    ~call_cache() {
        drv_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    dbdriver_t& drv() { return *drv_; }

  private:
    std::string dir_;
    states_file states_;
    dbdriver_ptr drv_;
};

void BM_room_calls_round_trip(benchmark::State& state) {
    logger_init(nullptr, 0, 0, 1);
    const int rooms = static_cast<int>(state.range(0));
    const int calls = 20;
    call_cache cache(rooms, calls);
    dbdriver_t& drv = cache.drv();
    int room = 0;
    for (auto _ : state) {
        char q[1024];
        snprintf(q, sizeof q,
                 "select date(start),time(start),dst,billsec,-1 from cdrcache where src='%d' "
                 "and (userfield='NULL' or userfield=NULL or userfield='')",
                 1000 + room);
        room = (room + 1) % rooms;
        db_lock guard(drv);
        if (drv.is_connected()) drv.reconnect();
        if (drv.query(q) != 0) {
            state.SkipWithError("query failed");
            break;
        }
        int rows = 0;
        char date[32], time[32], dst[256];
        int billsec, cost;
        while (drv.fetch_row() == 0) {
            drv.fetch_char_field(0, date, sizeof date - 1);
            drv.fetch_char_field(1, time, sizeof time - 1);
            drv.fetch_char_field(2, dst, sizeof dst - 1);
            drv.fetch_int_field(3, &billsec);
            drv.fetch_int_field(4, &cost);
            ++rows;
        }
        drv.free_result();
        if (rows != calls) {
            state.SkipWithError("wrong row count");
            break;
        }
        benchmark::DoNotOptimize(rows);
    }
    state.SetItemsProcessed(state.iterations() * calls);
}
BENCHMARK(BM_room_calls_round_trip)->Arg(50)->Arg(250);

}  // namespace

BENCHMARK_MAIN();
